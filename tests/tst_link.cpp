#include "ManagerTest.h"

#include <QPointer>

using Qt::StringLiterals::operator""_s;

using Error = QLowEnergyController::Error;

// How a link ends and what follows. Linux rarely reports the errors after which the manager
// reconnects, so the tests emit the controller's signals themselves.
class TestLink : public ManagerTest
{
    Q_OBJECT

private slots:
    void dropAndReconnect();
    void removal();
    void removalWhileReconnecting();
    void errorArmsOrEndsAnEpisode();
    void fourFailuresInARow();
    void bindingEndsTheEpisode();
    void adapterErrorReconnectsAtOnce();
    void serviceErrors();
    void destruction();

private:
    QStringList attempts() const { return m_log->linesWith(u"auto reconnect num: "_s); }
    void drop(const QString &address);
    void connectWithoutEnd();
    void fail(Error error) { emit controller()->errorOccurred(error); }
};

void TestLink::drop(const QString &address)
{
    const auto before = m_disconnected->size();
    m_lights.command(u"drop"_s, { address });
    QVERIFY(waitFor([&] { return m_disconnected->size() > before; }));
}

// Starts a connection attempt that never completes.
void TestLink::connectWithoutEnd()
{
    m_lights.set(secured, u"connect"_s, u"hang"_s);
    m_manager->connectToDevice(secured);
    clear();
}

void TestLink::dropAndReconnect()
{
    connectLight(secured);
    drop(secured);
    compareTrace(m_log->take().mid(2), u"drop.trace"_s); // without the two services' lines
    deleteReleased();
    QVERIFY(controllers().isEmpty());
    QCOMPARE(m_manager->reconnectDevice(secured), true);
    QVERIFY(waitFor([this] { return m_connected->size() == 1; }));
    // The authentication byte is sent on each link.
    QVERIFY(waitFor([this] { return m_lights.payloads(secured).count(u"request 5c"_s) == 2; }));

    // A request to reconnect is ignored while the manager reconnects by itself.
    m_lights.set(secured, u"connect"_s, u"hang"_s);
    fail(QLowEnergyController::ConnectionError);
    QVERIFY(waitFor([this] { return m_disconnected->size() == 2; }));
    deleteReleased();
    const QPointer<QLowEnergyController> trying = controller();
    QCOMPARE(m_manager->reconnectDevice(secured), true);
    deleteReleased();
    QVERIFY(trying);

    m_log->take();
    QCOMPARE(m_manager->reconnectDevice(u"00:11:22:33:44:55"_s), false);
    QCOMPARE(m_log->lines().constFirst(), u"[BLEManager::start] enter"_s);
}

void TestLink::removal()
{
    connectLight(secured);
    m_manager->removeDevice(secured);
    QVERIFY(waitFor([this] { return m_disconnected->size() == 1; }));
    QVERIFY(attempts().isEmpty());
    m_log->take();
    m_manager->connectToDevice(secured);
    m_manager->disconnectFromDevice(secured);
    m_manager->disconnectFromDevice(plain);
    QCOMPARE(m_log->take(),
             QStringList({ u"\"connectToDevice() error, device unsupported, mac address: "
                           "C0:FF:EE:00:00:03\""_s }));
    // After another discovery it can be connected again.
    findLights();
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] { return m_connected->size() == 1; }));
    QCOMPARE(m_disconnected->size(), 1);
}

void TestLink::removalWhileReconnecting()
{
    connectLight(secured);
    // Disconnecting takes a while; remove the light in the meantime.
    m_lights.set(secured, u"disconnectDelay"_s, u"50"_s);
    fail(QLowEnergyController::RemoteHostClosedError);
    m_manager->removeDevice(secured);
    QVERIFY(waitFor([this] { return m_disconnected->size() == 1; }));
    QVERIFY(attempts().isEmpty());
    deleteReleased();
    QVERIFY(controllers().isEmpty());
}

void TestLink::errorArmsOrEndsAnEpisode()
{
    QStringList errors;
    for (int number = 0; number <= QLowEnergyController::MissingPermissionsError; ++number) {
        const auto error = static_cast<Error>(number);
        if (error == QLowEnergyController::InvalidBluetoothAdapterError)
            continue;
        const bool arms = error == QLowEnergyController::ConnectionError
                          || error == QLowEnergyController::RemoteHostClosedError;
        connectWithoutEnd();
        if (!arms) // begin an episode, which the error then ends
            fail(QLowEnergyController::ConnectionError);
        fail(error);
        errors += m_log->linesWith(u"error with device"_s).constLast();
        const QPointer<QLowEnergyController> failed = controller();
        deleteReleased();
        QVERIFY(failed);
        // The error alone changes nothing for the host; the disconnection that follows does.
        QCOMPARE(m_disconnected->size(), 0);
        emit failed->disconnected();
        QCOMPARE(m_disconnected->size(), 1);
        QCOMPARE(attempts().size(), arms ? 1 : 0);
        m_manager->removeDevice(secured);
        findLights();
    }
    compareTrace(errors, u"controller-errors.trace"_s);
}

void TestLink::fourFailuresInARow()
{
    connectWithoutEnd();
    for (int failure = 1; failure <= 5; ++failure) {
        if (failure == 5) { // the first episode is over: a new one counts from 1
            m_manager->connectToDevice(secured);
            m_log->take();
        }
        QLowEnergyController *failing = controller();
        emit failing->errorOccurred(QLowEnergyController::ConnectionError);
        emit failing->disconnected();
        QCOMPARE(m_disconnected->size(), failure);
        // The failed controller is deleted later, not while it emits.
        QVERIFY(controllers().contains(failing));
        deleteReleased();
        QCOMPARE(controllers().size(), failure == 4 ? 0 : 1);
        if (failure == 4)
            compareTrace(m_log->linesWith(u"doDeviceDisconnected]"_s), u"four-failures.trace"_s);
    }
    QCOMPARE(attempts(),
             QStringList({ u"[BLEManager::doDeviceDisconnected], auto reconnect num:  1"_s }));
}

void TestLink::bindingEndsTheEpisode()
{
    for (int round = 1; round <= 2; ++round) {
        connectWithoutEnd();
        fail(QLowEnergyController::RemoteHostClosedError);
        m_lights.set(secured, u"connect"_s, u"accept"_s);
        emit controller()->disconnected();
        QCOMPARE(attempts(),
                 QStringList({ u"[BLEManager::doDeviceDisconnected], auto reconnect num:  1"_s }));
        QVERIFY(waitFor([this] { return m_connected->size() == 1; }));
        drop(secured);
        QVERIFY(m_log->lines().constLast().endsWith(u"m_reconnectDevMap = QMap()"_s));
    }
}

void TestLink::adapterErrorReconnectsAtOnce()
{
    connectWithoutEnd();
    const QPointer<QLowEnergyController> failed = controller();
    fail(QLowEnergyController::InvalidBluetoothAdapterError);
    QCOMPARE(m_disconnected->size(), 1);
    QCOMPARE(attempts().size(), 1);
    QVERIFY(controller() != failed);
    // A request of the host also replaces the attempt.
    const QPointer<QLowEnergyController> replaced = controller();
    m_manager->connectToDevice(secured);

    // Late signals of released controllers have no effect.
    m_log->take();
    for (QLowEnergyController *released : { failed.data(), replaced.data() }) {
        emit released->connected();
        emit released->disconnected();
        emit released->errorOccurred(QLowEnergyController::ConnectionError);
        emit released->errorOccurred(QLowEnergyController::UnknownError);
    }
    QCOMPARE(m_log->take().filter(u"\"\""_s).size(), 8);
    QCOMPARE(m_disconnected->size(), 1);
    deleteReleased();
    QVERIFY(!failed && !replaced);
    QCOMPARE(controllers().size(), 1);
}

void TestLink::serviceErrors()
{
    connectLight(secured);
    QLowEnergyService *main = service("0000fff0");
    emit service("f000ffc0")->errorOccurred(QLowEnergyService::CharacteristicWriteError);
    m_manager->sendMessage(secured, "x");
    QVERIFY(waitFor([this] { return m_received->size() == 1; }));
    fail(QLowEnergyController::ConnectionError);
    emit main->errorOccurred(QLowEnergyService::CharacteristicReadError);
    // The host gets no signal, but the reconnection begins.
    QCOMPARE(m_disconnected->size(), 0);
    QCOMPARE(attempts().size(), 1);
    // The service no longer belongs to a light: further errors have no effect.
    emit main->errorOccurred(QLowEnergyService::OperationError);
    QCOMPARE(m_log->lines().constLast(), u"[BLEManager::doDeviceDisconnected] \"\""_s);
    compareTrace(m_log->linesWith(u"service errorOccurred"_s), u"service-errors.trace"_s);
}

void TestLink::destruction()
{
    connectLight(plain);
    connectLight(secured);
    m_lights.command(u"drop"_s, { QString(plain) });
    QVERIFY(waitFor([this] { return m_disconnected->size() == 1; }));
    connectLight(plain); // the service object of its first link still exists
    const auto children = m_manager->findChildren<QObject *>(Qt::FindDirectChildrenOnly);
    QHash<QObject *, int> deaths;
    int told = 0;
    QObject context;
    for (QObject *child : children) {
        deaths.insert(child, 0);
        connect(child, &QObject::destroyed, &context, [&](QObject *dead) { ++deaths[dead]; });
    }
    // Some platforms report the disconnection from inside the controller's destructor. Emit the
    // same signals when the destructor changes the controller's state.
    const auto services = m_manager->findChildren<QLowEnergyService *>();
    for (QLowEnergyController *controller : controllers()) {
        connect(controller, &QLowEnergyController::stateChanged, &context, [&, controller] {
            ++told;
            emit controller->errorOccurred(QLowEnergyController::RemoteHostClosedError);
            emit controller->disconnected();
            for (QLowEnergyService *service : services)
                emit service->errorOccurred(QLowEnergyService::UnknownError);
        });
    }
    m_manager.reset();
    QCOMPARE(deaths.values(), QList<int>(children.size(), 1));
    QVERIFY(told >= 2);
    QCOMPARE(m_log->take(), QStringList());
}

QTEST_GUILESS_MAIN(TestLink)
#include "tst_link.moc"
