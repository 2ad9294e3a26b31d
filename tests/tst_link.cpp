#include "BLEManager.h"
#include "TestSupport.h"

#include <QPointer>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using Error = QLowEnergyController::Error;

namespace {

constexpr QLatin1String light("C0:FF:EE:00:00:03");
constexpr QLatin1String other("C0:FF:EE:00:00:02");

} // namespace

// How a link ends and what follows. Linux rarely reports the errors that arm a reconnection, so
// that they are emitted here in the controller's name.
class TestLink : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void plainDrop();
    void errorArms_data();
    void errorArms();
    void fourFailuresInARow();
    void bindingEndsTheEpisode();
    void otherErrorEndsTheEpisode();
    void adapterErrorReconnectsAtOnce();
    void adapterPulled();
    void adapterSwitchedOff();
    void connectFails_data();
    void connectFails();
    void replacedController();
    void mainServiceError();
    void refusedWrite();
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
    QStringList attempts() const
    {
        return m_log->linesWith(QStringLiteral("auto reconnect num: "));
    }
    int disconnections() const { return int(m_disconnected->size()); }
    void connectLight();
    void attempt();
    void settle();

    Lights m_lights;
    std::unique_ptr<BLEManager> m_manager;
    std::unique_ptr<LogRecorder> m_log;
    std::unique_ptr<QSignalSpy> m_connected;
    std::unique_ptr<QSignalSpy> m_disconnected;
};

void TestLink::init()
{
    m_manager = std::make_unique<BLEManager>();
    m_log = std::make_unique<LogRecorder>();
    m_connected = std::make_unique<QSignalSpy>(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_disconnected = std::make_unique<QSignalSpy>(m_manager.get(),
                                                  &BLEManager::sigDeviceDisconnected);
    m_manager->init();
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    m_manager->start();
    QVERIFY(waitFor([&] { return discovered.size() == 9; }));
    m_manager->stop();
    m_log->take();
}

void TestLink::cleanup()
{
    m_manager->stop();
    m_manager.reset();
    m_log.reset();
    for (const char *state : { "return", "on" })
        m_lights.order(QStringLiteral("adapter"), { QString::fromLatin1(state) });
    m_lights.set(light, QStringLiteral("connect"), QStringLiteral("accept"));
    m_lights.set(light, QStringLiteral("writes"), QStringLiteral("accept"));
    QVERIFY(waitFor([this] { return m_lights.order(QStringLiteral("connected")).isEmpty(); }));
    m_lights.order(QStringLiteral("reset"));
}

// A light that is ready, with everything behind it that a connection sets off.
void TestLink::connectLight()
{
    m_manager->connectToDevice(light);
    QVERIFY(waitFor([this] {
        return !m_connected->isEmpty()
               && !m_log->linesWith(QStringLiteral("sendAuthMessage")).isEmpty()
               && m_log->linesWith(QStringLiteral("descriptorWritten")).size() == 1;
    }));
    m_log->take();
}

// A connection that is under way for as long as the test wants.
void TestLink::attempt()
{
    m_lights.set(light, QStringLiteral("connect"), QStringLiteral("hang"));
    m_manager->connectToDevice(light);
    m_log->take();
}

// Lets go what was released, and waits until nothing of it is under way any more.
void TestLink::settle() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }

void TestLink::plainDrop()
{
    connectLight();
    m_lights.order(QStringLiteral("drop"), { QString(light) });
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    const QStringList end = m_log->lines().mid(m_log->lines().size() - 4);
    QCOMPARE(end, QStringList({
                          QStringLiteral("BLEManager::slotControllerState "
                                         "QLowEnergyController::UnconnectedState"),
                          QStringLiteral("BLEManager::slotDeviceDisconnected, macAddr: "
                                         "\"C0:FF:EE:00:00:03\""),
                          QStringLiteral("[BLEManager::doDeviceDisconnected] "
                                         "\"C0:FF:EE:00:00:03\""),
                          QStringLiteral("[BLEManager::doDeviceDisconnected] m_reconnectDevMap = "
                                         "QMap()"),
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
    m_lights.set(light, QStringLiteral("connect"), QStringLiteral("hang"));
    emit controller()->errorOccurred(error);
    QCOMPARE(m_log->lines().constFirst(),
             QStringLiteral("controller connect error with device:  \"C0:FF:EE:00:00:03\" ,  "
                            "QLowEnergyController::%1")
                     .arg(name));
    if (!arms) {
        QCOMPARE(m_log->take().size(), 1);
        QVERIFY(m_lights.isConnected(light));
        m_lights.order(QStringLiteral("drop"), { QString(light) });
    }
    // The disconnection that the error, or the light, brings about decides.
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    QCOMPARE(attempts(), arms ? QStringList({ QStringLiteral("[BLEManager::doDeviceDisconnected], "
                                                             "auto reconnect num:  1") })
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
        QCOMPARE(m_log->linesWith(QStringLiteral("m_reconnectDevMap =")).size(), failure - 1);
        emit failing->disconnected();
        QCOMPARE(disconnections(), failure);
        QCOMPARE(attempts().size(), qMin(failure, 3));
        // The failed one is still there, to be deleted later.
        QCOMPARE(controllers().contains(failing), true);
        settle();
        QCOMPARE(controllers().size(), failure < 4 ? 1 : 0);
    }
    QCOMPARE(m_log->linesWith(QStringLiteral("m_reconnectDevMap =")),
             QStringList({
                     QStringLiteral("[BLEManager::doDeviceDisconnected] m_reconnectDevMap = "
                                    "QMap((\"C0:FF:EE:00:00:03\", 0))"),
                     QStringLiteral("[BLEManager::doDeviceDisconnected] m_reconnectDevMap = "
                                    "QMap((\"C0:FF:EE:00:00:03\", 1))"),
                     QStringLiteral("[BLEManager::doDeviceDisconnected] m_reconnectDevMap = "
                                    "QMap((\"C0:FF:EE:00:00:03\", 2))"),
                     QStringLiteral("[BLEManager::doDeviceDisconnected] m_reconnectDevMap = "
                                    "QMap((\"C0:FF:EE:00:00:03\", 3))"),
             }));
    // A new episode begins from nothing.
    m_manager->connectToDevice(light);
    emit controller()->errorOccurred(QLowEnergyController::ConnectionError);
    emit controller()->disconnected();
    QCOMPARE(attempts().constLast(), QStringLiteral("[BLEManager::doDeviceDisconnected], auto "
                                                    "reconnect num:  1"));
}

void TestLink::bindingEndsTheEpisode()
{
    for (int round = 1; round <= 2; ++round) {
        attempt();
        emit controller()->errorOccurred(QLowEnergyController::RemoteHostClosedError);
        m_lights.set(light, QStringLiteral("connect"), QStringLiteral("accept"));
        emit controller()->disconnected();
        QCOMPARE(attempts(),
                 QStringList({ QStringLiteral("[BLEManager::doDeviceDisconnected], auto "
                                              "reconnect num:  1") }));
        QVERIFY(waitFor([&] { return m_connected->size() == round; }));
        m_lights.order(QStringLiteral("drop"), { QString(light) });
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
    QCOMPARE(m_log->take().filter(QStringLiteral("\"\"")).size(), 4);
    QCOMPARE(disconnections(), 1);
    settle();
    QVERIFY(!failed);
    QCOMPARE(controllers().size(), 1);
}

void TestLink::adapterPulled()
{
    connectLight();
    m_lights.order(QStringLiteral("adapter"), { QStringLiteral("remove") });
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    QVERIFY(attempts().isEmpty());

    // Nothing to connect with: the failures nest, and end.
    m_manager->connectToDevice(light);
    QCOMPARE(disconnections(), 5);
    QCOMPARE(attempts().size(), 3);
    settle();
    QVERIFY(controllers().isEmpty());

    m_lights.order(QStringLiteral("adapter"), { QStringLiteral("return") });
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    m_manager->start();
    QVERIFY(waitFor([&] { return discovered.size() == 9; }));
    m_manager->connectToDevice(light);
    QVERIFY(waitFor([this] { return m_connected->size() == 2; }));
}

void TestLink::adapterSwitchedOff()
{
    connectLight();
    m_lights.order(QStringLiteral("adapter"), { QStringLiteral("off") });
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    m_log->take();
    // Qt calls this a failed connection, without a disconnection after it: the episode stays armed,
    // and the host's wish waits for a disconnection that may never come.
    m_manager->connectToDevice(light);
    QVERIFY(m_log->lines().contains(QStringLiteral("controller connect error with device:  "
                                                   "\"C0:FF:EE:00:00:03\" ,  "
                                                   "QLowEnergyController::ConnectionError")));
    QCOMPARE(m_manager->reconnectDevice(light), true);
    settle();
    QCOMPARE(controllers().size(), 1);
    m_lights.order(QStringLiteral("adapter"), { QStringLiteral("on") });
    m_manager->connectToDevice(light);
    QVERIFY(waitFor([this] { return m_connected->size() == 2; }));
}

void TestLink::connectFails_data()
{
    QTest::addColumn<QString>("connect");
    QTest::addColumn<QString>("error");
    QTest::newRow("refused") << QStringLiteral("refuse") << QStringLiteral("UnknownError");
    QTest::newRow("aborted") << QStringLiteral("abort") << QStringLiteral("ConnectionError");
}

void TestLink::connectFails()
{
    QFETCH(QString, connect);
    QFETCH(QString, error);
    m_lights.set(light, QStringLiteral("connect"), connect);
    m_manager->connectToDevice(light);
    QVERIFY(waitFor([&] { return !m_log->linesWith(error).isEmpty(); }));
    QCOMPARE(disconnections(), 0);
    m_lights.set(light, QStringLiteral("connect"), QStringLiteral("accept"));
    m_manager->connectToDevice(light);
    QVERIFY(waitFor([this] { return m_connected->size() == 1; }));
}

void TestLink::replacedController()
{
    attempt();
    QPointer<QLowEnergyController> first = controller();
    m_manager->connectToDevice(light);
    QVERIFY(first && controller() != first);
    m_log->take();
    emit first->connected();
    emit first->disconnected();
    QCOMPARE(disconnections(), 0);
    QVERIFY(m_log->lines().contains(QStringLiteral("[BLEManager::doDeviceDisconnected] \"\"")));
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
             QStringLiteral("[BLEManager::slotServiceDiscovered] service errorOccurred: "
                            "QLowEnergyService::CharacteristicReadError"));
    // The host is not told, but an armed episode goes on.
    QCOMPARE(disconnections(), 0);
    QCOMPARE(attempts().size(), 1);

    // By now the service is nobody's: its errors lead nowhere.
    m_log->take();
    emit(*main)->errorOccurred(QLowEnergyService::OperationError);
    QCOMPARE(m_log->take().constLast(), QStringLiteral("[BLEManager::doDeviceDisconnected] \"\""));
}

void TestLink::refusedWrite()
{
    connectLight();
    m_lights.set(light, QStringLiteral("writes"), QStringLiteral("refuse"));
    m_manager->sendMessage(light, "x");
    QVERIFY(waitFor([this] {
        return !m_log->linesWith(QStringLiteral("CharacteristicWriteError")).isEmpty();
    }));
    QVERIFY(waitFor([this] { return !m_lights.isConnected(light); }));
    QCOMPARE(disconnections(), 0);
    m_lights.set(light, QStringLiteral("writes"), QStringLiteral("accept"));
    QCOMPARE(m_manager->reconnectDevice(light), true);
    QVERIFY(waitFor([this] { return m_connected->size() == 2; }));
}

void TestLink::vanishedServices()
{
    connectLight();
    m_lights.order(QStringLiteral("vanish"), { QString(light) });
    QVERIFY(waitFor(
            [this] { return m_log->linesWith(QStringLiteral("InvalidService")).size() == 2; }));
    QCOMPARE(disconnections(), 0);
    m_manager->sendMessage(light, "x");
    QCOMPARE(m_log->lines().constLast(),
             QStringLiteral("[BLEManager::sendMessage] characteristic faild. mac address: "
                            "\"C0:FF:EE:00:00:03\""));
    QVERIFY(m_lights.isConnected(light));
    // Letting it go and finding it anew is what helps.
    m_manager->removeDevice(light);
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
             QStringList({ QStringLiteral("[BLEManager::slotServiceDiscovered][Author] service "
                                          "errorOccurred: "
                                          "QLowEnergyService::CharacteristicWriteError") }));
    m_manager->sendMessage(light, "x");
    QVERIFY(waitFor(
            [this] { return !m_log->linesWith(QStringLiteral("Received data:")).isEmpty(); }));
}

void TestLink::reconnectOnRequest()
{
    connectLight();
    m_lights.order(QStringLiteral("drop"), { QString(light) });
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    QCOMPARE(m_manager->reconnectDevice(light), true);
    QVERIFY(waitFor([this] { return m_connected->size() == 2; }));

    // While the manager is at it by itself, it is left alone.
    m_lights.set(light, QStringLiteral("connect"), QStringLiteral("hang"));
    emit controller()->errorOccurred(QLowEnergyController::ConnectionError);
    QVERIFY(waitFor([this] { return disconnections() == 2; }));
    settle();
    const QPointer<QLowEnergyController> trying = controller();
    QCOMPARE(m_manager->reconnectDevice(light), true);
    settle();
    QVERIFY(trying);
    QCOMPARE(controllers().size(), 1);

    m_log->take();
    QCOMPARE(m_manager->reconnectDevice(QStringLiteral("00:11:22:33:44:55")), false);
    QCOMPARE(m_log->lines().constFirst(), QStringLiteral("[BLEManager::start] enter"));
}

void TestLink::removal()
{
    connectLight();
    m_manager->removeDevice(light);
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    QVERIFY(attempts().isEmpty());
    m_log->take();
    m_manager->connectToDevice(light);
    m_manager->disconnectFromDevice(light);
    m_manager->disconnectFromDevice(other);
    QCOMPARE(m_log->take(), QStringList({ QStringLiteral("\"connectToDevice() error, device "
                                                         "unsupported, mac address: "
                                                         "C0:FF:EE:00:00:03\"") }));

    // Seen again, it is as new.
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    m_manager->start();
    QVERIFY(waitFor([&] { return discovered.size() == 9; }));
    m_manager->connectToDevice(light);
    QVERIFY(waitFor([this] { return m_connected->size() == 2; }));
    QCOMPARE(disconnections(), 1);
}

void TestLink::removalInAnEpisode()
{
    connectLight();
    // The link goes a moment after it was asked to; the removal comes in between.
    m_lights.set(light, QStringLiteral("disconnectDelay"), QStringLiteral("50"));
    emit controller()->errorOccurred(QLowEnergyController::RemoteHostClosedError);
    m_manager->removeDevice(light);
    QVERIFY(waitFor([this] { return disconnections() == 1; }));
    QVERIFY(attempts().isEmpty());
    settle();
    QVERIFY(controllers().isEmpty());
    QCOMPARE(disconnections(), 1);
    m_lights.set(light, QStringLiteral("disconnectDelay"), QStringLiteral("0"));
}

QTEST_GUILESS_MAIN(TestLink)
#include "tst_link.moc"
