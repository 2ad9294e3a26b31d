#include "ManagerTest.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QtEndian>

using Qt::StringLiterals::operator""_s;

class TestMessages : public ManagerTest
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { deleteManager(); }
    void notificationsKeepTheirOrder();
    void notificationsOfAllSizes();
    void notificationsDuringTearDown();
    void payloadsOfAllSizes();
    void authenticationServiceIsNotHeard();
    void writesKeepTheirOrder();
    void writeModes_data();
    void writeModes();
    void silence();
    void authenticationMessage();

private:
    void connectLight(const QString &address);

    std::unique_ptr<QSignalSpy> m_received;
};

void TestMessages::init()
{
    createManager();
    m_received = std::make_unique<QSignalSpy>(m_manager.get(), &BLEManager::sigMessageReceived);
}

void TestMessages::connectLight(const QString &address)
{
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_manager->connectToDevice(address);
    QVERIFY(waitFor([&] { return !connected.isEmpty(); }));
    // The echo of the first payload tells that all the rest of the binding is done, too.
    const auto before = m_received->size();
    m_manager->sendMessage(address, "ready");
    QVERIFY(waitFor([&] { return m_received->size() > before; }));
}

void TestMessages::notificationsKeepTheirOrder()
{
    connectLight(secured);
    connectLight(plain);
    m_received->clear();
    constexpr quint32 count = 10000;
    for (const QLatin1String address : { secured, plain })
        m_lights.order(u"burst"_s, { QString(address), int(count), 20, 0 });
    QVERIFY(waitFor([this] { return m_received->size() >= int(2 * count); }));

    QMap<QString, quint32> next;
    for (const QVariantList &message : std::as_const(*m_received)) {
        const QByteArray value = message.at(1).toByteArray();
        QCOMPARE(value.size(), 20);
        QCOMPARE(qFromBigEndian<quint32>(value.constData()), next[message.at(0).toString()]++);
    }
    QCOMPARE(next, (QMap<QString, quint32> { { secured, count }, { plain, count } }));
}

void TestMessages::notificationsOfAllSizes()
{
    connectLight(secured);
    m_received->clear();
    m_log->take();
    QList<QByteArray> expected;
    for (const int size : { 0, 1, 20, 512, 4096, 0, 2 }) {
        QByteArray value(size, '\0');
        for (int i = 0; i < size; ++i)
            value[i] = static_cast<char>(i * 7);
        m_lights.order(u"notify"_s, { QString(secured), QString::fromLatin1(value.toHex()) });
        if (size > 0)
            expected.append(value);
    }
    QVERIFY(waitFor([&] { return m_received->size() == expected.size(); }));
    for (int i = 0; i < expected.size(); ++i)
        QCOMPARE(m_received->at(i), QVariantList({ QString(secured), expected.at(i) }));
    QCOMPARE(m_log->take().size(), expected.size());
}

void TestMessages::notificationsDuringTearDown()
{
    connectLight(secured);
    m_received->clear();
    m_lights.order(u"burst"_s, { QString(secured), 10000, 20, 0 });
    QSignalSpy disconnected(m_manager.get(), &BLEManager::sigDeviceDisconnected);
    QVERIFY(waitFor([this] { return m_received->size() >= 100; }));
    m_manager->removeDevice(secured);
    QVERIFY(waitFor([&] { return !disconnected.isEmpty(); }));
    const auto heard = m_received->size();
    // What came until then came in order; what is still on its way is nobody's.
    for (qsizetype i = 0; i < heard; ++i)
        QCOMPARE(qFromBigEndian<quint32>(m_received->at(i).at(1).toByteArray().constData()),
                 quint32(i));
    m_manager->sendMessage(secured, "x");
    findLights();
    QCOMPARE(m_received->size(), heard);
}

void TestMessages::payloadsOfAllSizes()
{
    for (const QLatin1String address : { secured, plain }) { // without response, and with
        connectLight(address);
        m_received->clear();
        QList<QByteArray> answers;
        for (const int size : { 0, 1, 20, 512, 4096, 0, 2 }) {
            const QByteArray data(size, static_cast<char>(size));
            m_manager->sendMessage(address, data);
            if (size > 0)
                answers.append(data);
        }
        QVERIFY(waitFor([&] { return m_received->size() == answers.size(); }));
        for (int i = 0; i < answers.size(); ++i)
            QCOMPARE(m_received->at(i), QVariantList({ QString(address), answers.at(i) }));
        QCOMPARE(m_lights.payloads(address).filter(QRegularExpression(u" $"_s)).size(), 2);
    }
}

void TestMessages::authenticationServiceIsNotHeard()
{
    connectLight(secured);
    m_received->clear();
    const auto services = m_manager->findChildren<QLowEnergyService *>();
    for (QLowEnergyService *service : services) {
        const auto characteristics = service->characteristics();
        for (const QLowEnergyCharacteristic &characteristic : characteristics) {
            m_log->take();
            emit service->characteristicChanged(characteristic, "n");
            const bool isAuthentication = service->serviceUuid().toString().contains(
                    QLatin1String("f000ffc0"));
            QCOMPARE(
                    m_log->take(),
                    QStringList(
                            { isAuthentication
                                      ? u"[BLEManager::slotCharacteristicChanged] "
                                        "m_characteristicsMap not found"_s
                                      : u"Received data: \"6e\" , macAddr: \"C0:FF:EE:00:00:03\" , "
                                        "Characteristic.uuid: \"%1\""_s.arg(
                                                characteristic.uuid().toString()) }));
        }
    }
    // Any characteristic of the main service is heard, not just the one that notifies.
    QCOMPARE(m_received->size(), 2);
}

void TestMessages::writesKeepTheirOrder()
{
    connectLight(secured);
    connectLight(plain);
    QVERIFY(waitFor([this] { return m_lights.payloads(secured).size() == 2; }));
    m_received->clear();
    QStringList expected;
    for (int i = 0; i < 200; ++i) {
        const QByteArray data = QByteArray::number(i);
        m_manager->sendMessage(secured, data);
        m_manager->sendMessage(plain, data);
        expected.append(QString::fromLatin1(data.toHex()));
    }
    QVERIFY(waitFor([this] { return m_received->size() == 400; }));
    for (const QLatin1String address : { secured, plain }) {
        QStringList written = m_lights.payloads(address).mid(address == secured ? 2 : 1);
        for (QString &payload : written)
            payload = payload.section(u' ', 1);
        QCOMPARE(written, expected);
    }
}

void TestMessages::writeModes_data()
{
    QTest::addColumn<QString>("flags");
    QTest::addColumn<QString>("mode"); // empty: nothing is written
    QTest::newRow("without response") << u"[\"write-without-response\"]"_s << u"command"_s;
    QTest::newRow("with response") << u"[\"write\"]"_s << u"request"_s;
    QTest::newRow("both") << u"[\"write\", \"write-without-response\"]"_s << u"command"_s;
    QTest::newRow("neither") << u"[\"indicate\"]"_s << QString();
}

void TestMessages::writeModes()
{
    QFETCH(QString, flags);
    QFETCH(QString, mode);
    m_lights.set(secured, u"writeFlags"_s, flags);
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([&] {
        return !connected.isEmpty() && !m_log->linesWith(u"checkAndSendAuthMsg"_s).isEmpty();
    }));
    m_log->take();
    m_manager->sendMessage(secured, QByteArray::fromHex("0f"));
    m_manager->sendMessage(secured, QByteArray());
    const QStringList lines = m_log->linesWith(u"sendMessage"_s);
    if (mode.isEmpty()) {
        QCOMPARE(lines, QStringList());
        QVERIFY(m_log->linesWith(u"sendAuthMessage"_s).isEmpty());
        // A read of the light's own is a write's match in the queue; none is there after it.
        QCOMPARE(m_lights.payloads(secured), QStringList());
        return;
    }
    const QString line =
            u"[BLEManager::sendMessage] macAddr: \"C0:FF:EE:00:00:03\" "
            ", data: \"%1\" , characteristic uuid: \"{0000fff2-0000-1000-8000-00805f9b34fb}\""_s;
    QCOMPARE(lines, QStringList({ line.arg(u"0f"_s), line.arg(QString()) }));
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
    m_manager->sendMessage(u"11:22:33:44:55:66"_s, "x");
    QCOMPARE(m_log->take(), QStringList());

    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"slotDiscoveryFinished"_s).isEmpty(); }));
    m_log->take();
    m_manager->sendMessage(secured, "x");
    QCOMPARE(m_log->take(), QStringList());

    QVERIFY(waitFor([this] { return m_log->linesWith(u"descriptorWritten"_s).size() == 1; }));
    m_log->take();
    m_manager->sendMessage(QString(secured).toLower(), "x");
    QCOMPARE(m_log->take(), QStringList());

    QSignalSpy disconnected(m_manager.get(), &BLEManager::sigDeviceDisconnected);
    m_lights.order(u"drop"_s, { QString(secured) });
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
    QCOMPARE(m_log->take(),
             QStringList(
                     { u"[BLEManager::sendAuthMessage] not found address.  address: \"%1\""_s.arg(
                             secured) }));
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"slotDiscoveryFinished"_s).isEmpty(); }));
    m_log->take();
    sendByName(secured, "x");
    QCOMPARE(m_log->take(),
             QStringList({ u"[BLEManager::sendAuthMessage] not contains characteristics. "
                           "address: \"%1\""_s.arg(secured) }));
    QVERIFY(waitFor(
            [this] { return !m_log->linesWith(u"sendAuthMessage] macAddr:"_s).isEmpty(); }));
    sendByName(secured, QByteArray::fromHex("00ff"));
    QVERIFY(waitFor([this] { return m_lights.payloads(secured).size() == 2; }));
    QCOMPARE(m_lights.payloads(secured), QStringList({ u"request 5c"_s, u"request 00ff"_s }));
}

QTEST_GUILESS_MAIN(TestMessages)
#include "tst_messages.moc"
