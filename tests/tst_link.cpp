#include "ManagerTest.h"

#include <QPointer>
#include <QSignalSpy>
#include <QTest>

using Qt::StringLiterals::operator""_s;

using Error = QLowEnergyController::Error;

// How a link ends and what follows. Linux rarely reports the errors that arm a reconnection, so
// that they are emitted here in the controller's name.
class TestLink : public ManagerTest
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { deleteManager(); }
    void plainDrop();
    void errorArms_data();
    void errorArms();
    void fourFailuresInARow();
    void bindingEndsTheEpisode();
    void otherErrorEndsTheEpisode();
    void adapterErrorReconnectsAtOnce();
    void adapterSwitchedOff();
    void replacedController();
    void mainServiceError();
    void vanishedServices();
    void authenticationServiceError();
    void reconnectOnRequest();
    void removal();
    void removalInAnEpisode();

private:
    QList<QLowEnergyController *> controllers() const
    {
        return m_manager->findChildren<QLowEnergyController *>();
    }
    //! The controller that was made last.
    QLowEnergyController *controller() const { return controllers().constLast(); }
    QStringList attempts() const { return m_log->linesWith(u"auto reconnect num: "_s); }
    int disconnections() const { return int(m_disconnected->size()); }
    void connectLight();
    void attempt();
    void settle();

    std::unique_ptr<QSignalSpy> m_connected;
    std::unique_ptr<QSignalSpy> m_disconnected;
};

void TestLink::init()
{
    createManager();
    m_connected = std::make_unique<QSignalSpy>(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_disconnected = std::make_unique<QSignalSpy>(m_manager.get(),
                                                  &BLEManager::sigDeviceDisconnected);
}

// The secured light is ready, with everything behind it that a connection sets off.
void TestLink::connectLight()
{
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] {
        return !m_connected->isEmpty() && !m_log->linesWith(u"sendAuthMessage"_s).isEmpty()
               && m_log->linesWith(u"descriptorWritten"_s).size() == 1;
    }));
    m_log->take();
}

// A connection that is under way for as long as the test wants.
void TestLink::attempt()
{
    m_lights.set(secured, u"connect"_s, u"hang"_s);
    m_manager->connectToDevice(secured);
    m_log->take();
}

// Deletes what was released to be deleted later.
void TestLink::settle()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

void TestLink::plainDrop()
{
    connectLight();
    m_lights.order(u"drop"_s, { QString(secured) });
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    const QStringList end = m_log->lines().mid(m_log->lines().size() - 4);
    QCOMPARE(end,
             QStringList({
                     u"BLEManager::slotControllerState QLowEnergyController::UnconnectedState"_s,
                     u"BLEManager::slotDeviceDisconnected, macAddr: \"C0:FF:EE:00:00:03\""_s,
                     u"[BLEManager::doDeviceDisconnected] \"C0:FF:EE:00:00:03\""_s,
                     u"[BLEManager::doDeviceDisconnected] m_reconnectDevMap = QMap()"_s,
             }));
    settle();
    QVERIFY(controllers().isEmpty());
    QVERIFY(attempts().isEmpty());
}

void TestLink::errorArms_data()
{
    QTest::addColumn<Error>("error");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("arms");
    const auto row = [](Error error, const char *name, bool arms) {
        QTest::newRow(name) << error << QString::fromLatin1(name) << arms;
    };
    row(QLowEnergyController::UnknownError, "UnknownError", false);
    row(QLowEnergyController::UnknownRemoteDeviceError, "UnknownRemoteDeviceError", false);
    row(QLowEnergyController::NetworkError, "NetworkError", false);
    row(QLowEnergyController::ConnectionError, "ConnectionError", true);
    row(QLowEnergyController::AdvertisingError, "AdvertisingError", false);
    row(QLowEnergyController::RemoteHostClosedError, "RemoteHostClosedError", true);
    row(QLowEnergyController::AuthorizationError, "AuthorizationError", false);
}

void TestLink::errorArms()
{
    QFETCH(Error, error);
    QFETCH(QString, name);
    QFETCH(bool, arms);
    connectLight();
    m_lights.set(secured, u"connect"_s, u"hang"_s);
    emit controller()->errorOccurred(error);
    QCOMPARE(m_log->lines().constFirst(),
             u"controller connect error with device:  \"C0:FF:EE:00:00:03\" "
             ",  QLowEnergyController::%1"_s.arg(name));
    if (!arms) {
        QCOMPARE(m_log->take().size(), 1);
        QVERIFY(m_lights.isConnected(secured));
        m_lights.order(u"drop"_s, { QString(secured) });
    }
    // The disconnection that the error, or the light, brings about decides.
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    QCOMPARE(attempts(),
             arms ? QStringList({ u"[BLEManager::doDeviceDisconnected], auto reconnect num:  1"_s })
                  : QStringList());
    settle();
    QCOMPARE(controllers().size(), arms ? 1 : 0);
}

void TestLink::fourFailuresInARow()
{
    attempt();
    for (int failure = 1; failure <= 4; ++failure) {
        QLowEnergyController *failing = controller();
        emit failing->errorOccurred(QLowEnergyController::ConnectionError);
        QCOMPARE(m_log->linesWith(u"m_reconnectDevMap ="_s).size(), failure - 1);
        emit failing->disconnected();
        QCOMPARE(disconnections(), failure);
        QCOMPARE(attempts().size(), qMin(failure, 3));
        // The failed one is still there, to be deleted later.
        QCOMPARE(controllers().contains(failing), true);
        settle();
        QCOMPARE(controllers().size(), failure < 4 ? 1 : 0);
    }
    QCOMPARE(m_log->linesWith(u"m_reconnectDevMap ="_s),
             QStringList({
                     u"[BLEManager::doDeviceDisconnected] m_reconnectDevMap = "
                     u"QMap((\"C0:FF:EE:00:00:03\", "
                     "0))"_s,
                     u"[BLEManager::doDeviceDisconnected] m_reconnectDevMap = "
                     u"QMap((\"C0:FF:EE:00:00:03\", "
                     "1))"_s,
                     u"[BLEManager::doDeviceDisconnected] m_reconnectDevMap = "
                     u"QMap((\"C0:FF:EE:00:00:03\", "
                     "2))"_s,
                     u"[BLEManager::doDeviceDisconnected] m_reconnectDevMap = "
                     u"QMap((\"C0:FF:EE:00:00:03\", "
                     "3))"_s,
             }));
    // A new episode begins from nothing.
    m_manager->connectToDevice(secured);
    emit controller()->errorOccurred(QLowEnergyController::ConnectionError);
    emit controller()->disconnected();
    QCOMPARE(attempts().constLast(),
             u"[BLEManager::doDeviceDisconnected], auto reconnect num:  1"_s);
}

void TestLink::bindingEndsTheEpisode()
{
    for (int round = 1; round <= 2; ++round) {
        attempt();
        emit controller()->errorOccurred(QLowEnergyController::RemoteHostClosedError);
        m_lights.set(secured, u"connect"_s, u"accept"_s);
        emit controller()->disconnected();
        QCOMPARE(attempts(),
                 QStringList({ u"[BLEManager::doDeviceDisconnected], auto reconnect num:  1"_s }));
        QVERIFY(waitFor([&] { return m_connected->size() == round; }));
        m_lights.order(u"drop"_s, { QString(secured) });
        QVERIFY(waitFor([&] { return disconnections() == 2 * round; }));
        QVERIFY(m_log->lines().constLast().endsWith(QLatin1String("m_reconnectDevMap = QMap()")));
    }
}

void TestLink::otherErrorEndsTheEpisode()
{
    attempt();
    emit controller()->errorOccurred(QLowEnergyController::ConnectionError);
    QPointer<QLowEnergyController> kept = controller();
    emit kept->errorOccurred(QLowEnergyController::AuthorizationError);
    settle();
    QVERIFY(kept);
    QCOMPARE(disconnections(), 0);
    emit kept->disconnected();
    QCOMPARE(disconnections(), 1);
    QVERIFY(attempts().isEmpty());
}

void TestLink::adapterErrorReconnectsAtOnce()
{
    attempt();
    QPointer<QLowEnergyController> failed = controller();
    emit failed->errorOccurred(QLowEnergyController::InvalidBluetoothAdapterError);
    QCOMPARE(disconnections(), 1);
    QCOMPARE(attempts().size(), 1);
    QVERIFY(controller() != failed);

    // Late words of the released one are nobody's.
    m_log->take();
    emit failed->disconnected();
    emit failed->errorOccurred(QLowEnergyController::ConnectionError);
    emit failed->errorOccurred(QLowEnergyController::UnknownError);
    QCOMPARE(m_log->take().filter(u"\"\""_s).size(), 4);
    QCOMPARE(disconnections(), 1);
    settle();
    QVERIFY(!failed);
    QCOMPARE(controllers().size(), 1);
}

void TestLink::adapterSwitchedOff()
{
    connectLight();
    m_lights.order(u"adapter"_s, { u"off"_s });
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    m_log->take();
    // Qt calls this a failed connection, without a disconnection after it: the episode stays armed,
    // and the host's wish waits for a disconnection that may never come.
    m_manager->connectToDevice(secured);
    QVERIFY(m_log->lines().contains(u"controller connect error with device:  \"C0:FF:EE:00:00:03\" "
                                    ",  QLowEnergyController::ConnectionError"_s));
    QCOMPARE(m_manager->reconnectDevice(secured), true);
    settle();
    QCOMPARE(controllers().size(), 1);
    m_lights.order(u"adapter"_s, { u"on"_s });
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] { return m_connected->size() == 2; }));
}

void TestLink::replacedController()
{
    attempt();
    QPointer<QLowEnergyController> first = controller();
    m_manager->connectToDevice(secured);
    QVERIFY(first && controller() != first);
    m_log->take();
    emit first->connected();
    emit first->disconnected();
    QCOMPARE(disconnections(), 0);
    QVERIFY(m_log->lines().contains(u"[BLEManager::doDeviceDisconnected] \"\""_s));
    settle();
    QVERIFY(!first);
    QCOMPARE(controllers().size(), 1);
}

void TestLink::mainServiceError()
{
    connectLight();
    const auto services = m_manager->findChildren<QLowEnergyService *>();
    const auto main = std::find_if(services.cbegin(), services.cend(), [](const auto *service) {
        return service->serviceUuid().toString().contains(QLatin1String("fff0"));
    });
    QVERIFY(main != services.cend());
    emit controller()->errorOccurred(QLowEnergyController::ConnectionError);
    m_log->take();
    emit(*main)->errorOccurred(QLowEnergyService::CharacteristicReadError);
    QCOMPARE(m_log->lines().constFirst(),
             u"[BLEManager::slotServiceDiscovered] service errorOccurred: "
             "QLowEnergyService::CharacteristicReadError"_s);
    // The host is not told, but an armed episode goes on.
    QCOMPARE(disconnections(), 0);
    QCOMPARE(attempts().size(), 1);

    // By now the service is nobody's: its errors lead nowhere.
    m_log->take();
    emit(*main)->errorOccurred(QLowEnergyService::OperationError);
    QCOMPARE(m_log->take().constLast(), u"[BLEManager::doDeviceDisconnected] \"\""_s);
}

void TestLink::vanishedServices()
{
    connectLight();
    m_lights.order(u"vanish"_s, { QString(secured) });
    QVERIFY(waitFor([this] { return m_log->linesWith(u"InvalidService"_s).size() == 2; }));
    QCOMPARE(disconnections(), 0);
    m_manager->sendMessage(secured, "x");
    QCOMPARE(m_log->lines().constLast(),
             u"[BLEManager::sendMessage] characteristic faild. mac address: "
             "\"C0:FF:EE:00:00:03\""_s);
    QVERIFY(m_lights.isConnected(secured));
    // Letting it go and finding it anew is what helps.
    m_manager->removeDevice(secured);
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
}

void TestLink::authenticationServiceError()
{
    connectLight();
    for (QLowEnergyService *service : m_manager->findChildren<QLowEnergyService *>()) {
        if (service->serviceUuid().toString().contains(QLatin1String("f000ffc0")))
            emit service->errorOccurred(QLowEnergyService::CharacteristicWriteError);
    }
    QCOMPARE(m_log->take(),
             QStringList({ u"[BLEManager::slotServiceDiscovered][Author] service errorOccurred: "
                           "QLowEnergyService::CharacteristicWriteError"_s }));
    m_manager->sendMessage(secured, "x");
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"Received data:"_s).isEmpty(); }));
}

void TestLink::reconnectOnRequest()
{
    connectLight();
    m_lights.order(u"drop"_s, { QString(secured) });
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    QCOMPARE(m_manager->reconnectDevice(secured), true);
    QVERIFY(waitFor([this] { return m_connected->size() == 2; }));

    // While the manager is at it by itself, it is left alone.
    m_lights.set(secured, u"connect"_s, u"hang"_s);
    emit controller()->errorOccurred(QLowEnergyController::ConnectionError);
    QVERIFY(waitFor([this] { return disconnections() == 2; }));
    settle();
    const QPointer<QLowEnergyController> trying = controller();
    QCOMPARE(m_manager->reconnectDevice(secured), true);
    settle();
    QVERIFY(trying);
    QCOMPARE(controllers().size(), 1);

    m_log->take();
    QCOMPARE(m_manager->reconnectDevice(u"00:11:22:33:44:55"_s), false);
    QCOMPARE(m_log->lines().constFirst(), u"[BLEManager::start] enter"_s);
}

void TestLink::removal()
{
    connectLight();
    m_manager->removeDevice(secured);
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    QVERIFY(attempts().isEmpty());
    m_log->take();
    m_manager->connectToDevice(secured);
    m_manager->disconnectFromDevice(secured);
    m_manager->disconnectFromDevice(plain);
    QCOMPARE(m_log->take(),
             QStringList({ u"\"connectToDevice() error, device unsupported, mac address: "
                           "C0:FF:EE:00:00:03\""_s }));

    // Seen again, it is as new.
    findLights();
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] { return m_connected->size() == 2; }));
    QCOMPARE(disconnections(), 1);
}

void TestLink::removalInAnEpisode()
{
    connectLight();
    // The link goes a moment after it was asked to; the removal comes in between.
    m_lights.set(secured, u"disconnectDelay"_s, u"50"_s);
    emit controller()->errorOccurred(QLowEnergyController::RemoteHostClosedError);
    m_manager->removeDevice(secured);
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    QVERIFY(attempts().isEmpty());
    settle();
    QVERIFY(controllers().isEmpty());
    QCOMPARE(disconnections(), 1);
}

QTEST_GUILESS_MAIN(TestLink)
#include "tst_link.moc"
