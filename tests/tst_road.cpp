#include "BLEManager.h"
#include "TestSupport.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

constexpr QLatin1String plain("C0:FF:EE:00:00:02");   // services a002, a name of its own
constexpr QLatin1String secured("C0:FF:EE:00:00:03"); // services fff0 and f000ffc0

} // namespace

class TestRoad : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void traceOfTwoLights();
    void allTypesAtOnce();
    void incompleteLight_data();
    void incompleteLight();
    void twoMainServices();
    void discoveredAgain();
    void withoutSender();

private:
    Lights m_lights;
    std::unique_ptr<BLEManager> m_manager;
    std::unique_ptr<LogRecorder> m_log;
    QList<QVariantList> m_announced;
};

void TestRoad::init()
{
    m_manager = std::make_unique<BLEManager>();
    m_log = std::make_unique<LogRecorder>();
    m_manager->init();
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    m_manager->start();
    QVERIFY(waitFor([&] { return discovered.size() == 9; }));
    m_manager->stop();
    m_announced = discovered.mid(0);
    m_log->take();
}

void TestRoad::cleanup()
{
    m_manager.reset();
    m_log.reset();
    QVERIFY(waitFor([this] { return m_lights.order(QStringLiteral("connected")).isEmpty(); }));
    m_lights.order(QStringLiteral("reset"));
}

void TestRoad::traceOfTwoLights()
{
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    QSignalSpy received(m_manager.get(), &BLEManager::sigMessageReceived);
    m_manager->connectToDevice(plain);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([&] {
        return connected.size() == 2
               && !m_log->linesWith(QStringLiteral("sendAuthMessage")).isEmpty();
    }));
    m_manager->sendMessage(plain, QByteArray::fromHex("0102"));
    m_manager->sendMessage(secured, QByteArray::fromHex("a0ff"));
    QVERIFY(waitFor([&] { return received.size() == 2; }));

    QFile file(QStringLiteral(TRACE_FILE));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QStringList expected =
            QString::fromUtf8(file.readAll()).trimmed().split(QLatin1Char('\n'));
    const QStringList trace = m_log->take();
    for (int i = 0; i < qMin(trace.size(), expected.size()); ++i)
        QCOMPARE(trace.at(i), expected.at(i));
    QCOMPARE(trace.size(), expected.size());
    QCOMPARE(m_lights.payloads(plain), QStringList({ QStringLiteral("request 0102") }));
    QCOMPARE(m_lights.payloads(secured),
             QStringList({ QStringLiteral("request 5c"), QStringLiteral("command a0ff") }));
}

void TestRoad::allTypesAtOnce()
{
    const auto light = [](int type, const char *end, const char *name) {
        return QVariantList { type, QLatin1String("C0:FF:EE:00:00:") + QString::fromLatin1(end),
                              QString::fromLatin1(name) };
    };
    QCOMPARE(m_announced, QList<QVariantList>({
                                  light(1, "01", "Corvel light(0001)"),
                                  light(2, "02", "Corvel light(0002)"),
                                  light(3, "03", "Corvel light(DM41)"),
                                  light(5, "05", "Corvel light(Hall)"),
                                  light(6, "06", "Corvel light(0006)"),
                                  light(7, "07", "Corvel light(Studio)"),
                                  light(162, "A2", "Corvel light(00A2)"),
                                  light(163, "A3", "Corvel light(Roof)"),
                                  light(1001, "A7", "Corvel J7300(00A7)"),
                          }));

    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    QSignalSpy received(m_manager.get(), &BLEManager::sigMessageReceived);
    for (const QVariantList &announcement : std::as_const(m_announced))
        m_manager->connectToDevice(announcement.at(1).toString());
    QVERIFY(waitFor([&] { return connected.size() == 9; }));
    QMap<QString, QByteArray> sent;
    for (const QVariantList &announcement : std::as_const(m_announced)) {
        const QString address = announcement.at(1).toString();
        sent.insert(address, address.toLatin1());
        m_manager->sendMessage(address, sent.value(address));
    }
    QVERIFY(waitFor([&] { return received.size() == 9; }));
    QMap<QString, QByteArray> echoed;
    for (const QVariantList &message : received)
        echoed.insert(message.at(0).toString(), message.at(1).toByteArray());
    QCOMPARE(echoed, sent);
}

void TestRoad::incompleteLight_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("lastLine"); // part of the line that ends the road
    QTest::addColumn<bool>("ready");
    QTest::addColumn<int>("writes"); // of the authentication byte and one payload

    const auto row = [](const char *title, const char *key, const char *value, const char *lastLine,
                        bool ready, int writes) {
        QTest::newRow(title) << QString::fromLatin1(key) << QString::fromLatin1(value)
                             << QString::fromLatin1(lastLine) << ready << writes;
    };
    row("no write characteristic", "omit", "0000fff2",
        "[BLEManager::serviceStateChanged] m_characteristicsMap not found. mac addr: "
        "\"C0:FF:EE:00:00:03\"",
        false, 1);
    row("no notify characteristic", "omit", "0000fff1", "uuid:\" \"0000fff2", false, 2);
    row("no configuration descriptor", "omit", "00002902", "open subscription notifications", false,
        2);
    row("no authentication characteristic", "omit", "f000ffc1",
        "[Auth]  m_authCharacteristicsMap not found. mac addr: \"C0:FF:EE:00:00:03\"  device name "
        "\"Corvel light(DM41)\"",
        true, 1);
    row("no authentication service", "omit", "f000ffc0", "descriptorWritten", true, 1);
    row("no main service", "omit", "0000fff0", "sendAuthMessage", false, 1);
    row("services never resolved", "resolve", "false", "ConnectingState", false, 0);
    row("reads refused", "reads", "refuse", "slotDiscoveryFinished", false, 0);
}

void TestRoad::incompleteLight()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(QString, lastLine);
    QFETCH(bool, ready);
    QFETCH(int, writes);
    m_lights.set(secured, key, value);

    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    QSignalSpy others(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_manager->connectToDevice(secured);
    m_manager->connectToDevice(plain);
    lastLine.replace(QLatin1String("uuid:\" \""), QLatin1String("uuid: \""));
    QVERIFY(waitFor([&] { return !m_log->linesWith(lastLine).isEmpty(); }));
    // Whatever the one light lacks, the other one has its way; by then the first is through, too.
    QSignalSpy received(m_manager.get(), &BLEManager::sigMessageReceived);
    QVERIFY(waitFor([&] {
        m_manager->sendMessage(plain, "x");
        return !received.isEmpty();
    }));
    QCOMPARE(connected.contains(QVariantList { QString(secured) }), ready);
    m_manager->sendMessage(secured, "p");
    m_manager->sendMessage(plain, "y");
    QVERIFY(waitFor([&] { return received.constLast().at(1).toByteArray() == "y"; }));
    QCOMPARE(m_lights.payloads(secured).size(), writes);

    if (key == QLatin1String("omit"))
        m_lights.set(secured, key, QStringLiteral("[]"));
    else
        m_lights.set(secured, key,
                     key == QLatin1String("reads") ? QStringLiteral("accept")
                                                   : QStringLiteral("true"));
}

void TestRoad::twoMainServices()
{
    const QString both = QStringLiteral("C0:FF:EE:00:00:06");
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    QSignalSpy received(m_manager.get(), &BLEManager::sigMessageReceived);
    m_manager->connectToDevice(both);
    QVERIFY(waitFor([&] { return !connected.isEmpty(); }));
    m_manager->sendMessage(both, "z");
    QVERIFY(waitFor([&] { return !received.isEmpty(); }));
    // Both are found and looked into; the one that was reported last serves the light.
    QCOMPARE(m_log->linesWith(QStringLiteral("contains uuid")).size(), 2);
    QCOMPARE(m_log->linesWith(
                          QStringLiteral("[BLEManager::serviceStateChanged] not found service "))
                     .size(),
             1);
    QCOMPARE(m_log->linesWith(QStringLiteral("{0000fff2-")).size(), 2);
    QVERIFY(m_log->linesWith(QStringLiteral("{0000c304-")).isEmpty());
    QCOMPARE(connected.size(), 1);
}

void TestRoad::discoveredAgain()
{
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([&] {
        return !connected.isEmpty()
               && !m_log->linesWith(QStringLiteral("sendAuthMessage")).isEmpty();
    }));
    m_log->take();
    const auto services = m_manager->findChildren<QLowEnergyService *>();
    QCOMPARE(services.size(), 2);
    for (QLowEnergyService *service : services)
        emit service->stateChanged(QLowEnergyService::RemoteServiceDiscovered);

    QCOMPARE(connected.size(), 2);
    const QStringList again = m_log->linesWith(QStringLiteral("serviceStateChanged]"));
    QCOMPARE(m_log->linesWith(QStringLiteral("is eixist = true")).size(), 1);
    QCOMPARE(m_log->linesWith(QStringLiteral("[Auth] send deviceDiscovered")).size(), 1);
    QVERIFY(m_log->linesWith(QStringLiteral("[Auth] characteristics")).isEmpty());
    QCOMPARE(again.size(), 11);
}

void TestRoad::withoutSender()
{
    const auto invoke = [this](const char *slot, auto... arguments) {
        QVERIFY(QMetaObject::invokeMethod(m_manager.get(), slot, Qt::DirectConnection,
                                          arguments...));
    };
    const QBluetoothUuid uuid(quint16(0xFFF0));
    const QString text = QStringLiteral("0000fff0-0000-1000-8000-00805f9b34fb");
    invoke("slotDeviceConnected");
    invoke("slotDeviceDisconnected");
    invoke("slotControllerErrOccurred",
           Q_ARG(QLowEnergyController::Error, QLowEnergyController::ConnectionError));
    invoke("slotServiceDiscovered", Q_ARG(QBluetoothUuid, uuid));
    invoke("slotCharacteristicChanged", Q_ARG(QLowEnergyCharacteristic, QLowEnergyCharacteristic()),
           Q_ARG(QByteArray, QByteArray()));
    invoke("slotCharacteristicChanged", Q_ARG(QLowEnergyCharacteristic, QLowEnergyCharacteristic()),
           Q_ARG(QByteArray, QByteArray("x")));
    invoke("slotServiceStateChanged",
           Q_ARG(QLowEnergyService::ServiceState, QLowEnergyService::RemoteServiceDiscovered));
    invoke("slotServiceErrorOccurred",
           Q_ARG(QLowEnergyService::ServiceError, QLowEnergyService::OperationError));
    QCOMPARE(m_log->take(),
             QStringList({
                     QStringLiteral("[BLEManager::slotDeviceConnected] enter..."),
                     QStringLiteral("[BLEManager::slotDeviceConnected] nullptr == controller"),
                     QStringLiteral("BLEManager::slotDeviceDisconnected, macAddr: \"\""),
                     QStringLiteral("[BLEManager::doDeviceDisconnected] \"\""),
                     QStringLiteral("controller connect error with device:  \"\" ,  "
                                    "QLowEnergyController::ConnectionError"),
                     QStringLiteral("[BLEManager::slotServiceDiscovered] enter... uuid: \"{%1}\"")
                             .arg(text),
                     QStringLiteral("[BLEManager::slotServiceDiscovered] controller is empty. "
                                    "uuid: \"%1\"")
                             .arg(text),
                     QStringLiteral("[BLEManager::slotCharacteristicChanged] qobject_cast fail."),
                     QStringLiteral("[BLEManager::serviceStateChanged] state: "
                                    "QLowEnergyService::RemoteServiceDiscovered , is equal to "
                                    "QLowEnergyService::RemoteServiceDiscovered: true"),
                     QStringLiteral("[BLEManager::serviceStateChanged] qobject_cast fail."),
                     QStringLiteral("[BLEManager::slotServiceDiscovered] service errorOccurred: "
                                    "QLowEnergyService::OperationError"),
             }));
}

QTEST_GUILESS_MAIN(TestRoad)
#include "tst_road.moc"
