#include "ManagerTest.h"

#include <QPointer>

using Qt::StringLiterals::operator""_s;

using Error = QLowEnergyController::Error;

// How a link ends and what follows. Linux rarely reports the errors that arm a reconnection, so
// that they are emitted here in the controller's name.
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
    m_lights.order(u"drop"_s, { address });
    QVERIFY(waitFor([&] { return m_disconnected->size() > before; }));
}

// A connection that is under way for as long as the test wants.
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
    compareTrace(m_log->take().mid(2), u"drop.trace"_s); // after what the services say
    deleteReleased();
    QVERIFY(controllers().isEmpty());
    QCOMPARE(m_manager->reconnectDevice(secured), true);
    QVERIFY(waitFor([this] { return m_connected->size() == 1; }));
    // Each link begins with the authentication byte.
    QVERIFY(waitFor([this] { return m_lights.payloads(secured).count(u"request 5c"_s) == 2; }));

    // While the manager is reconnecting by itself, it is left alone.
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
    // Seen again, it is as new.
    findLights();
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] { return m_connected->size() == 1; }));
    QCOMPARE(m_disconnected->size(), 1);
}

void TestLink::removalWhileReconnecting()
{
    connectLight(secured);
    // The link ends a moment after it was asked to; the removal comes in between.
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
        if (!arms) // there is an episode to end
            fail(QLowEnergyController::ConnectionError);
        fail(error);
        errors += m_log->linesWith(u"error with device"_s).constLast();
        const QPointer<QLowEnergyController> failed = controller();
        deleteReleased();
        QVERIFY(failed);
        // The disconnection decides.
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
        if (failure == 5) { // a new episode begins from nothing
            m_manager->connectToDevice(secured);
            m_log->take();
        }
        QLowEnergyController *failing = controller();
        emit failing->errorOccurred(QLowEnergyController::ConnectionError);
        emit failing->disconnected();
        QCOMPARE(m_disconnected->size(), failure);
        // The failed one is still there, to be deleted later.
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
    // The host's own request replaces the attempt, too.
    const QPointer<QLowEnergyController> replaced = controller();
    m_manager->connectToDevice(secured);

    // What released controllers report late leads nowhere.
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
    // The host is not told, but an armed episode goes on.
    QCOMPARE(m_disconnected->size(), 0);
    QCOMPARE(attempts().size(), 1);
    // By now the service belongs to no light: its errors lead nowhere.
    emit main->errorOccurred(QLowEnergyService::OperationError);
    QCOMPARE(m_log->lines().constLast(), u"[BLEManager::doDeviceDisconnected] \"\""_s);
    compareTrace(m_log->linesWith(u"service errorOccurred"_s), u"service-errors.trace"_s);
}

void TestLink::destruction()
{
    connectLight(plain);
    connectLight(secured);
    m_lights.order(u"drop"_s, { QString(plain) });
    QVERIFY(waitFor([this] { return m_disconnected->size() == 1; }));
    connectLight(plain); // a service object of the first link is still there
    const auto children = m_manager->findChildren<QObject *>(Qt::FindDirectChildrenOnly);
    QHash<QObject *, int> deaths;
    int told = 0;
    QObject context;
    for (QObject *child : children) {
        deaths.insert(child, 0);
        connect(child, &QObject::destroyed, &context, [&](QObject *dead) { ++deaths[dead]; });
    }
    // As some platforms do it: the end of the link is reported from inside the controller's
    // destructor, here as soon as that begins to close the link.
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
