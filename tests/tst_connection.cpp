#include "ManagerTest.h"

using Qt::StringLiterals::operator""_s;

// From the scan to the first answer of a light.
class TestConnection : public ManagerTest
{
    Q_OBJECT

private slots:
    void scan();
    void traceOfTwoLights();
    void allTypesAtOnce();
    void withoutAuthenticationCharacteristic();
    void twoMainServices();
    void discoveredAgain();
    void withoutSender();
};

void TestConnection::scan()
{
    auto *agent = m_manager->findChild<QBluetoothDeviceDiscoveryAgent *>();
    QCOMPARE(agent->lowEnergyDiscoveryTimeout(), 20000);
    QStringList emitted;
    connect(m_manager.get(), &BLEManager::sigDeviceDiscoveredErrorOccurred, this,
            [&](QBluetoothDeviceDiscoveryAgent::Error e) { emitted.append(QString::number(e)); });
    connect(m_manager.get(), &BLEManager::sigDeviceDiscoveredFinished, this,
            [&] { emitted.append(u"finished"_s); });

    m_manager->stop();
    m_manager->start();
    QVERIFY(waitFor([this] { return m_discovered->size() == 9; }));
    // Changed manufacturer data is reported again, with the new type.
    m_lights.command(u"advertise"_s, { QString(plain), u"3c050000a70000"_s });
    QVERIFY(waitFor([this] { return m_discovered->size() == 10; }));
    QCOMPARE(m_discovered->constLast().constFirst().toInt(), 1001);
    m_manager->start();
    QVERIFY(agent->isActive());
    m_manager->stop();
    QVERIFY(!agent->isActive());
    QCOMPARE(emitted, QStringList());

    agent->setLowEnergyDiscoveryTimeout(50);
    m_manager->start();
    QVERIFY(waitFor([&] { return emitted == QStringList { u"finished"_s }; }));
    agent->setLowEnergyDiscoveryTimeout(20000);
    for (const QString &fault : { u"off"_s, u"remove"_s }) {
        emitted.clear();
        m_lights.command(u"adapter"_s, { fault });
        m_manager->start();
        const auto error = fault == u"off"_s ? QBluetoothDeviceDiscoveryAgent::PoweredOffError
                                             : QBluetoothDeviceDiscoveryAgent::InputOutputError;
        const QStringList expected { QString::number(error), u"finished"_s };
        QVERIFY(waitFor([&] { return emitted == expected; }));
    }
    QStringList lines = m_log->take();
    lines.removeIf([](const QString &line) {
        return line.contains(u"slotDeviceDiscovered]"_s) || line.startsWith(u"supported"_s);
    });
    compareTrace(lines, u"scan.trace"_s);

    QCoreApplication::processEvents(); // Qt must see the removal before the adapter returns
    m_lights.command(u"adapter"_s, { u"return"_s });
    findLights();
}

void TestConnection::traceOfTwoLights()
{
    // The first discovery is kept: the name in the trace below stays the old one.
    QBluetoothDeviceInfo renamed(QBluetoothAddress(plain), u"Corvel light(New)"_s, 0);
    renamed.setManufacturerData(1, QByteArray::fromHex("3c010000020000"));
    QMetaObject::invokeMethod(m_manager.get(), "slotDeviceDiscovered",
                              Q_ARG(QBluetoothDeviceInfo, renamed));
    QCOMPARE(m_discovered->value(0), QVariantList({ 2, QString(plain), u"Corvel light(New)"_s }));
    clear();

    m_manager->connectToDevice(plain);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] {
        return m_connected->size() == 2 && !m_log->linesWith(u"sendAuthMessage"_s).isEmpty();
    }));
    m_manager->sendMessage(plain, QByteArray::fromHex("0102"));
    m_manager->sendMessage(secured, QByteArray::fromHex("a0ff"));
    QVERIFY(waitFor([this] { return m_received->size() == 2; }));
    compareTrace(m_log->take(), u"two-lights.trace"_s);
    QCOMPARE(m_lights.payloads(plain), QStringList({ u"request 0102"_s }));
    QCOMPARE(m_lights.payloads(secured), QStringList({ u"request 5c"_s, u"command a0ff"_s }));
}

void TestConnection::allTypesAtOnce()
{
    findLights();
    QList<QVariantList> expected;
    for (const QVariantList &discovery : std::as_const(*m_discovered)) {
        m_manager->connectToDevice(discovery.at(1).toString());
        expected.append({ discovery.at(1), discovery.at(1).toByteArray() });
    }
    QVERIFY(waitFor([this] { return m_connected->size() == 9; }));
    for (const QVariantList &message : std::as_const(expected))
        m_manager->sendMessage(message.at(0).toString(), message.at(1).toByteArray());
    QVERIFY(waitFor([this] { return m_received->size() == 9; }));
    for (const QVariantList &message : std::as_const(expected))
        QVERIFY(m_received->contains(message));
}

void TestConnection::withoutAuthenticationCharacteristic()
{
    m_lights.set(secured, u"omit"_s, u"f000ffc1"_s);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"[Auth]  m_auth"_s).isEmpty(); }));
    QCOMPARE(m_log->linesWith(u"[Auth]  m_auth"_s),
             QStringList { u"[BLEManager::serviceStateChanged][Auth]  m_authCharacteristicsMap not "
                           "found. mac addr: \"C0:FF:EE:00:00:03\"  device name "
                           "\"Corvel light(DM41)\""_s });
    QCOMPARE(m_connected->size(), 1);
    QVERIFY(m_log->linesWith(u"AuthM"_s).isEmpty());
}

void TestConnection::twoMainServices()
{
    const QString both = u"C0:FF:EE:00:00:06"_s;
    m_manager->connectToDevice(both);
    QVERIFY(waitFor([this] { return !m_connected->isEmpty(); }));
    m_manager->sendMessage(both, "z");
    QVERIFY(waitFor([this] { return !m_received->isEmpty(); }));
    // Details of both are discovered; the service that was reported last is used.
    QCOMPARE(m_log->linesWith(u"contains uuid"_s).size(), 2);
    QCOMPARE(m_lights.command(u"written"_s, { both }).value(0).left(8), u"0000fff2"_s);
    QCOMPARE(m_connected->size(), 1);
}

void TestConnection::discoveredAgain()
{
    connectLight(secured);
    for (const char *prefix : { "f000ffc0", "0000fff0" })
        emit service(prefix)->stateChanged(QLowEnergyService::RemoteServiceDiscovered);
    // The main service is set up again, the authentication service is not.
    QCOMPARE(m_connected->size(), 1);
    QCOMPARE(m_log->linesWith(u"is eixist = true"_s).size(), 1);
    QCOMPARE(m_log->linesWith(u"[Auth] send deviceDiscovered"_s).size(), 1);
    QVERIFY(m_log->linesWith(u"[Auth] characteristics"_s).isEmpty());
    QCOMPARE(m_log->linesWith(u"serviceStateChanged]"_s).size(), 11);
}

void TestConnection::withoutSender()
{
    const auto invoke = [this](const char *slot, auto... arguments) {
        QVERIFY(QMetaObject::invokeMethod(m_manager.get(), slot, arguments...));
    };
    invoke("slotDeviceConnected");
    invoke("slotDeviceDisconnected");
    invoke("slotControllerErrOccurred",
           Q_ARG(QLowEnergyController::Error, QLowEnergyController::ConnectionError));
    invoke("slotServiceDiscovered", Q_ARG(QBluetoothUuid, QBluetoothUuid(quint16(0xFFF0))));
    for (const char *value : { "", "x" }) // an empty value is dropped before the log line
        invoke("slotCharacteristicChanged",
               Q_ARG(QLowEnergyCharacteristic, QLowEnergyCharacteristic()),
               Q_ARG(QByteArray, QByteArray(value)));
    invoke("slotServiceStateChanged",
           Q_ARG(QLowEnergyService::ServiceState, QLowEnergyService::RemoteServiceDiscovered));
    invoke("slotServiceErrorOccurred",
           Q_ARG(QLowEnergyService::ServiceError, QLowEnergyService::OperationError));
    compareTrace(m_log->take(), u"without-sender.trace"_s);
}

QTEST_GUILESS_MAIN(TestConnection)
#include "tst_connection.moc"
