#include "ManagerTest.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>

using Qt::StringLiterals::operator""_s;

class TestRoad : public ManagerTest
{
    Q_OBJECT

private slots:
    void init() { createManager(); }
    void cleanup() { deleteManager(); }
    void traceOfTwoLights();
    void allTypesAtOnce();
    void incompleteLight_data();
    void incompleteLight();
    void twoMainServices();
    void discoveredAgain();
    void withoutSender();
};

void TestRoad::traceOfTwoLights()
{
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    QSignalSpy received(m_manager.get(), &BLEManager::sigMessageReceived);
    m_manager->connectToDevice(plain);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([&] {
        return connected.size() == 2 && !m_log->linesWith(u"sendAuthMessage"_s).isEmpty();
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
    QCOMPARE(m_lights.payloads(plain), QStringList({ u"request 0102"_s }));
    QCOMPARE(m_lights.payloads(secured), QStringList({ u"request 5c"_s, u"command a0ff"_s }));
}

void TestRoad::allTypesAtOnce()
{
    const auto light = [](int type, const char *end, const char *name) {
        return QVariantList { type, QLatin1String("C0:FF:EE:00:00:") + QString::fromLatin1(end),
                              QString::fromLatin1(name) };
    };
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    findLights();
    const QList<QVariantList> announced = discovered.mid(0);
    QCOMPARE(announced, QList<QVariantList>({
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
    for (const QVariantList &announcement : announced)
        m_manager->connectToDevice(announcement.at(1).toString());
    QVERIFY(waitFor([&] { return connected.size() == 9; }));
    QMap<QString, QByteArray> sent;
    for (const QVariantList &announcement : announced) {
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
    row("no notify characteristic", "omit", "0000fff1", "uuid: \"0000fff2", false, 2);
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
    QSignalSpy received(m_manager.get(), &BLEManager::sigMessageReceived);
    m_manager->connectToDevice(secured);
    m_manager->connectToDevice(plain);
    QVERIFY(waitFor([&] { return !m_log->linesWith(lastLine).isEmpty(); }));
    // Whatever the one light lacks, the other one has its way.
    QVERIFY(waitFor([&] { return connected.contains(QVariantList { QString(plain) }); }));
    QCOMPARE(connected.contains(QVariantList { QString(secured) }), ready);
    m_manager->sendMessage(secured, "p");
    m_manager->sendMessage(plain, "y");
    QVERIFY(waitFor([&] {
        return received.contains(QVariantList { QString(plain), QByteArray("y") });
    }));
    QVERIFY(waitFor([&] { return m_lights.payloads(secured).size() == writes; }));
}

void TestRoad::twoMainServices()
{
    const QString both = u"C0:FF:EE:00:00:06"_s;
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    QSignalSpy received(m_manager.get(), &BLEManager::sigMessageReceived);
    m_manager->connectToDevice(both);
    QVERIFY(waitFor([&] { return !connected.isEmpty(); }));
    m_manager->sendMessage(both, "z");
    QVERIFY(waitFor([&] { return !received.isEmpty(); }));
    // Both are found and looked into; the one that was reported last serves the light.
    QCOMPARE(m_log->linesWith(u"contains uuid"_s).size(), 2);
    QCOMPARE(m_log->linesWith(u"[BLEManager::serviceStateChanged] not found service "_s).size(), 1);
    QCOMPARE(m_log->linesWith(u"{0000fff2-"_s).size(), 2);
    QVERIFY(m_log->linesWith(u"{0000c304-"_s).isEmpty());
    QCOMPARE(connected.size(), 1);
}

void TestRoad::discoveredAgain()
{
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([&] {
        return !connected.isEmpty() && !m_log->linesWith(u"sendAuthMessage"_s).isEmpty();
    }));
    m_log->take();
    const auto services = m_manager->findChildren<QLowEnergyService *>();
    QCOMPARE(services.size(), 2);
    for (QLowEnergyService *service : services)
        emit service->stateChanged(QLowEnergyService::RemoteServiceDiscovered);

    QCOMPARE(connected.size(), 2);
    const QStringList again = m_log->linesWith(u"serviceStateChanged]"_s);
    QCOMPARE(m_log->linesWith(u"is eixist = true"_s).size(), 1);
    QCOMPARE(m_log->linesWith(u"[Auth] send deviceDiscovered"_s).size(), 1);
    QVERIFY(m_log->linesWith(u"[Auth] characteristics"_s).isEmpty());
    QCOMPARE(again.size(), 11);
}

void TestRoad::withoutSender()
{
    const auto invoke = [this](const char *slot, auto... arguments) {
        QVERIFY(QMetaObject::invokeMethod(m_manager.get(), slot, Qt::DirectConnection,
                                          arguments...));
    };
    const QBluetoothUuid uuid(quint16(0xFFF0));
    const QString text = u"0000fff0-0000-1000-8000-00805f9b34fb"_s;
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
                     u"[BLEManager::slotDeviceConnected] enter..."_s,
                     u"[BLEManager::slotDeviceConnected] nullptr == controller"_s,
                     u"BLEManager::slotDeviceDisconnected, macAddr: \"\""_s,
                     u"[BLEManager::doDeviceDisconnected] \"\""_s,
                     u"controller connect error with device:  \"\" ,  "
                     "QLowEnergyController::ConnectionError"_s,
                     u"[BLEManager::slotServiceDiscovered] enter... uuid: \"{%1}\""_s.arg(text),
                     u"[BLEManager::slotServiceDiscovered] controller is empty. uuid: \"%1\""_s.arg(
                             text),
                     u"[BLEManager::slotCharacteristicChanged] qobject_cast fail."_s,
                     u"[BLEManager::serviceStateChanged] state: "
                     u"QLowEnergyService::RemoteServiceDiscovered "
                     ", is equal to QLowEnergyService::RemoteServiceDiscovered: true"_s,
                     u"[BLEManager::serviceStateChanged] qobject_cast fail."_s,
                     u"[BLEManager::slotServiceDiscovered] service errorOccurred: "
                     "QLowEnergyService::OperationError"_s,
             }));
}

QTEST_GUILESS_MAIN(TestRoad)
#include "tst_road.moc"
