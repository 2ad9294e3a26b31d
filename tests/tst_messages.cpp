#include "BLEManager.h"
#include "TestSupport.h"

#include <QSignalSpy>
#include <QTest>
#include <QtEndian>

#include <memory>

namespace {

constexpr QLatin1String secured("C0:FF:EE:00:00:03");
constexpr QLatin1String other("C0:FF:EE:00:00:02");

} // namespace

class TestMessages : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void notificationsKeepTheirOrder();
    void notificationsOfAllSizes();
    void authenticationServiceIsNotHeard();
    void writesKeepTheirOrder();
    void writeModes_data();
    void writeModes();
    void silence();
    void authenticationMessage();

private:
    void connectLight(const QString &address);

    Lights m_lights;
    std::unique_ptr<BLEManager> m_manager;
    std::unique_ptr<QSignalSpy> m_received;
    std::unique_ptr<LogRecorder> m_log;
};

void TestMessages::init()
{
    m_manager = std::make_unique<BLEManager>();
    m_received = std::make_unique<QSignalSpy>(m_manager.get(), &BLEManager::sigMessageReceived);
    m_log = std::make_unique<LogRecorder>();
    m_manager->init();
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    m_manager->start();
    QVERIFY(waitFor([&] { return discovered.size() == 9; }));
    m_manager->stop();
}

void TestMessages::cleanup()
{
    m_manager.reset();
    m_log.reset();
    QVERIFY(waitFor([this] { return m_lights.order(QStringLiteral("connected")).isEmpty(); }));
    m_lights.set(secured, QStringLiteral("writeFlags"), QStringLiteral("[]"));
    m_lights.order(QStringLiteral("reset"));
}

void TestMessages::connectLight(const QString &address)
{
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_manager->connectToDevice(address);
    QVERIFY(waitFor([&] { return !connected.isEmpty(); }));
    // The echo of the first payload tells that the notifications are on.
    m_manager->sendMessage(address, "ready");
    QVERIFY(waitFor([&] {
        return !m_received->isEmpty() || !m_log->linesWith(QStringLiteral("sendMessage")).isEmpty();
    }));
}

void TestMessages::notificationsKeepTheirOrder()
{
    connectLight(secured);
    connectLight(other);
    QVERIFY(waitFor([this] { return m_received->size() == 2; }));
    m_received->clear();
    constexpr quint32 count = 2000;
    for (const QLatin1String address : { secured, other })
        m_lights.order(QStringLiteral("burst"), { QString(address), int(count), 20, 0 });
    QVERIFY(waitFor([this] { return m_received->size() >= int(2 * count); }));

    QMap<QString, quint32> next;
    for (const QVariantList &message : std::as_const(*m_received)) {
        const QByteArray value = message.at(1).toByteArray();
        QCOMPARE(value.size(), 20);
        QCOMPARE(qFromBigEndian<quint32>(value.constData()), next[message.at(0).toString()]++);
    }
    QCOMPARE(next, (QMap<QString, quint32> { { secured, count }, { other, count } }));
}

void TestMessages::notificationsOfAllSizes()
{
    connectLight(secured);
    QVERIFY(waitFor([this] { return !m_received->isEmpty(); }));
    m_received->clear();
    m_log->take();
    QList<QByteArray> expected;
    for (const int size : { 0, 1, 20, 512, 4096, 0, 2 }) {
        QByteArray value(size, '\0');
        for (int i = 0; i < size; ++i)
            value[i] = static_cast<char>(i * 7);
        m_lights.order(QStringLiteral("notify"),
                       { QString(secured), QString::fromLatin1(value.toHex()) });
        if (size > 0)
            expected.append(value);
    }
    QVERIFY(waitFor([&] { return m_received->size() == expected.size(); }));
    for (int i = 0; i < expected.size(); ++i)
        QCOMPARE(m_received->at(i), QVariantList({ QString(secured), expected.at(i) }));
    QCOMPARE(m_log->take().size(), expected.size());
}

void TestMessages::authenticationServiceIsNotHeard()
{
    connectLight(secured);
    QVERIFY(waitFor([this] { return !m_received->isEmpty(); }));
    m_received->clear();
    const auto services = m_manager->findChildren<QLowEnergyService *>();
    for (QLowEnergyService *service : services) {
        const auto characteristics = service->characteristics();
        for (const QLowEnergyCharacteristic &characteristic : characteristics) {
            m_log->take();
            emit service->characteristicChanged(characteristic, "n");
            const bool isAuthentication = service->serviceUuid().toString().contains(
                    QLatin1String("f000ffc0"));
            QCOMPARE(m_log->take(),
                     QStringList(
                             { isAuthentication
                                       ? QStringLiteral("[BLEManager::slotCharacteristicChanged]"
                                                        " m_characteristicsMap not found")
                                       : QStringLiteral("Received data: \"6e\" , macAddr: "
                                                        "\"C0:FF:EE:00:00:03\" , "
                                                        "Characteristic.uuid: \"%1\"")
                                                 .arg(characteristic.uuid().toString()) }));
        }
    }
    // Any characteristic of the main service is heard, not just the one that notifies.
    QCOMPARE(m_received->size(), 2);
}

void TestMessages::writesKeepTheirOrder()
{
    connectLight(secured);
    connectLight(other);
    QStringList expected;
    for (int i = 0; i < 200; ++i) {
        const QByteArray data = QByteArray::number(i);
        m_manager->sendMessage(secured, data);
        m_manager->sendMessage(other, data);
        expected.append(QString::fromLatin1(data.toHex()));
    }
    m_manager->sendMessage(secured, QByteArray(4096, 'x'));
    QVERIFY(waitFor([this] { return m_received->size() == 2 * 201 + 1; }));
    for (const QLatin1String address : { secured, other }) {
        QStringList written = m_lights.payloads(address);
        for (QString &payload : written)
            payload = payload.section(QLatin1Char(' '), 1);
        const auto from = written.indexOf(QString::fromLatin1(QByteArray("ready").toHex())) + 1;
        written.removeAll(QStringLiteral("5c"));
        QCOMPARE(written.mid(written.size() - 200 - (address == secured ? 1 : 0), 200), expected);
        QVERIFY(from > 0);
    }
}

void TestMessages::writeModes_data()
{
    QTest::addColumn<QString>("flags");
    QTest::addColumn<QString>("mode"); // empty: nothing is written
    QTest::newRow("without response")
            << QStringLiteral("[\"write-without-response\"]") << QStringLiteral("command");
    QTest::newRow("with response") << QStringLiteral("[\"write\"]") << QStringLiteral("request");
    QTest::newRow("both") << QStringLiteral("[\"write\", \"write-without-response\"]")
                          << QStringLiteral("command");
    QTest::newRow("neither") << QStringLiteral("[\"indicate\"]") << QString();
}

void TestMessages::writeModes()
{
    QFETCH(QString, flags);
    QFETCH(QString, mode);
    m_lights.set(secured, QStringLiteral("writeFlags"), flags);
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([&] {
        return !connected.isEmpty()
               && !m_log->linesWith(QStringLiteral("checkAndSendAuthMsg")).isEmpty();
    }));
    m_log->take();
    m_manager->sendMessage(secured, QByteArray::fromHex("0f"));
    m_manager->sendMessage(secured, QByteArray());
    const QStringList lines = m_log->linesWith(QStringLiteral("sendMessage"));
    if (mode.isEmpty()) {
        QCOMPARE(lines, QStringList());
        QVERIFY(m_log->linesWith(QStringLiteral("sendAuthMessage")).isEmpty());
        // A read of the light's own is a write's match in the queue; none is there after it.
        QCOMPARE(m_lights.payloads(secured), QStringList());
        return;
    }
    const QString line = QStringLiteral(
            "[BLEManager::sendMessage] macAddr: \"C0:FF:EE:00:00:03\" , "
            "data: \"%1\" , characteristic uuid: "
            "\"{0000fff2-0000-1000-8000-00805f9b34fb}\"");
    QCOMPARE(lines, QStringList({ line.arg(QStringLiteral("0f")), line.arg(QString()) }));
    const QStringList expected { mode + QLatin1String(" 5c"), mode + QLatin1String(" 0f"),
                                 mode + QLatin1Char(' ') };
    QVERIFY(waitFor([&] { return m_lights.payloads(secured).size() == expected.size(); }));
    QCOMPARE(m_lights.payloads(secured), expected);
}

void TestMessages::silence()
{
    // Known but not connected, service there but not bound, gone, and never there at all.
    m_log->take();
    m_manager->sendMessage(secured, "x");
    m_manager->sendMessage(QStringLiteral("11:22:33:44:55:66"), "x");
    QCOMPARE(m_log->take(), QStringList());

    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] {
        return !m_log->linesWith(QStringLiteral("slotDiscoveryFinished")).isEmpty();
    }));
    m_log->take();
    m_manager->sendMessage(secured, "x");
    QCOMPARE(m_log->take(), QStringList());

    QVERIFY(waitFor(
            [this] { return m_log->linesWith(QStringLiteral("descriptorWritten")).size() == 1; }));
    m_log->take();
    m_manager->sendMessage(QString(secured).toLower(), "x");
    QCOMPARE(m_log->take(), QStringList());

    QSignalSpy disconnected(m_manager.get(), &BLEManager::sigDeviceDisconnected);
    m_lights.order(QStringLiteral("drop"), { QString(secured) });
    QVERIFY(waitFor([&] { return !disconnected.isEmpty(); }));
    m_log->take();
    m_manager->sendMessage(secured, "x");
    QCOMPARE(m_log->take(), QStringList());
    QVERIFY(m_received->isEmpty());
}

void TestMessages::authenticationMessage()
{
    const auto sendByName = [this](const QString &address, const QByteArray &data) {
        QVERIFY(QMetaObject::invokeMethod(m_manager.get(), "sendAuthMessage", Qt::DirectConnection,
                                          Q_ARG(QString, address), Q_ARG(QByteArray, data)));
    };
    m_log->take();
    sendByName(secured, "x");
    QCOMPARE(m_log->take(), QStringList({ QStringLiteral("[BLEManager::sendAuthMessage] not found "
                                                         "address.  address: \"%1\"")
                                                  .arg(secured) }));
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] {
        return !m_log->linesWith(QStringLiteral("slotDiscoveryFinished")).isEmpty();
    }));
    m_log->take();
    sendByName(secured, "x");
    QCOMPARE(m_log->take(),
             QStringList({ QStringLiteral("[BLEManager::sendAuthMessage] not contains "
                                          "characteristics. address: \"%1\"")
                                   .arg(secured) }));
    QVERIFY(waitFor([this] {
        return !m_log->linesWith(QStringLiteral("sendAuthMessage] macAddr:")).isEmpty();
    }));
    sendByName(secured, QByteArray::fromHex("00ff"));
    QVERIFY(waitFor([this] { return m_lights.payloads(secured).size() == 2; }));
    QCOMPARE(m_lights.payloads(secured),
             QStringList({ QStringLiteral("request 5c"), QStringLiteral("request 00ff") }));
}

QTEST_GUILESS_MAIN(TestMessages)
#include "tst_messages.moc"
