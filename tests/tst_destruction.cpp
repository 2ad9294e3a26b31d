#include "BLEManager.h"
#include "CorvelKXBleInterface.h"
#include "TestSupport.h"

#include <QPluginLoader>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

constexpr QLatin1String light("C0:FF:EE:00:00:03");
constexpr QLatin1String other("C0:FF:EE:00:00:02");

} // namespace

// The plugin ends well at every step of the road, and takes the links with it.
class TestDestruction : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();
    void pluginAtEachStep_data();
    void pluginAtEachStep();
    void managerWithTwoLights();
    void controllerThatTellsItsEnd();

private:
    static std::unique_ptr<BLEManager> discoveringManager();

    Lights m_lights;
};

void TestDestruction::cleanup()
{
    for (const QLatin1String address : { light, other }) {
        m_lights.set(address, QStringLiteral("connect"), QStringLiteral("accept"));
        m_lights.set(address, QStringLiteral("disconnectDelay"), QStringLiteral("0"));
    }
    QVERIFY(waitFor([this] { return m_lights.order(QStringLiteral("connected")).isEmpty(); }));
    m_lights.order(QStringLiteral("reset"));
}

void TestDestruction::pluginAtEachStep_data()
{
    QTest::addColumn<QString>("line"); // what the log says at the step
    QTest::addColumn<QString>("connect");
    const auto row = [](const char *title, const char *line, const char *connect = "accept") {
        QTest::newRow(title) << QString::fromLatin1(line) << QString::fromLatin1(connect);
    };
    row("created", "Plugin thread ID");
    row("scanning", "::sigDeviceDiscovered");
    row("connecting", "ConnectingState", "hang");
    row("refused", "UnknownError", "refuse");
    row("linked", "slotDeviceConnected] enter");
    row("discovering services", "DiscoveringState");
    row("discovering details", "RemoteServiceDiscovering");
    row("services known", "slotDiscoveryFinished");
    row("binding", "update m_characteristicsMap");
    row("authenticating", "checkAndSendAuthMsg");
    row("bound", "descriptorWritten");
    row("talking", "Received data");
    row("closing", "ClosingState");
    row("closed", "doDeviceDisconnected] m_reconnectDevMap");
}

void TestDestruction::pluginAtEachStep()
{
    QFETCH(QString, line);
    QFETCH(QString, connect);
    m_lights.set(light, QStringLiteral("connect"), connect);
    if (line == QLatin1String("ClosingState"))
        m_lights.set(light, QStringLiteral("disconnectDelay"), QStringLiteral("100"));

    LogRecorder log;
    QPluginLoader loader(QStringLiteral(PLUGIN_FILE));
    auto *plugin = qobject_cast<CorvelKXBleInterface *>(loader.instance());
    QVERIFY(plugin);
    bool isDeleted = false;
    int afterwards = 0;
    QSet<QString> answered;
    const auto count = [&] { afterwards += isDeleted; };
    QObject context;
    QObject::connect(plugin, &CorvelKXBleInterface::sigDeviceDiscovered, &context,
                     [&](int, const QString &address, const QString &) {
                         count();
                         if (address == light && line != QLatin1String("::sigDeviceDiscovered")) {
                             plugin->stop();
                             plugin->connectToDevice(light);
                             plugin->connectToDevice(other);
                         }
                     });
    QObject::connect(plugin, &CorvelKXBleInterface::sigDeviceConnected, &context,
                     [&](const QString &address) {
                         count();
                         plugin->sendMessage(address, "x");
                     });
    QObject::connect(plugin, &CorvelKXBleInterface::sigMessageReceived, &context,
                     [&](const QString &address) {
                         count();
                         if (answered.contains(address))
                             return;
                         answered.insert(address);
                         m_lights.order(QStringLiteral("burst"), { address, 500, 20, 0 });
                         if (line.contains(QLatin1String("Closing"))
                             || line.contains(QLatin1String("doDevice")))
                             plugin->removeDevice(address);
                     });
    QObject::connect(plugin, &CorvelKXBleInterface::sigDeviceDisconnected, &context, count);

    plugin->start();
    const QString expected = line == QLatin1String("::sigDeviceDiscovered")
                                     ? QStringLiteral("slotDeviceDiscovered] devAddr")
                                     : line;
    QVERIFY(waitFor([&] { return !log.linesWith(expected).isEmpty(); }));

    delete plugin;
    isDeleted = true;
    QVERIFY(waitFor([this] { return m_lights.order(QStringLiteral("connected")).isEmpty(); }));
    QCOMPARE(afterwards, 0);

    // There is a second life after it.
    auto *second = qobject_cast<CorvelKXBleInterface *>(loader.instance());
    QVERIFY(second);
    m_lights.set(light, QStringLiteral("connect"), QStringLiteral("accept"));
    QSignalSpy connected(second, &CorvelKXBleInterface::sigDeviceConnected);
    QObject::connect(second, &CorvelKXBleInterface::sigDeviceDiscovered, &context,
                     [&](int, const QString &address, const QString &) {
                         if (address == light) {
                             second->stop();
                             second->connectToDevice(address);
                         }
                     });
    second->start();
    QVERIFY(waitFor([&] { return !connected.isEmpty(); }));
    delete second;
}

std::unique_ptr<BLEManager> TestDestruction::discoveringManager()
{
    auto manager = std::make_unique<BLEManager>();
    manager->init();
    QSignalSpy discovered(manager.get(), &BLEManager::sigDeviceDiscovered);
    manager->start();
    waitFor([&] { return discovered.size() == 9; });
    manager->stop();
    return manager;
}

void TestDestruction::managerWithTwoLights()
{
    auto manager = discoveringManager();
    QSignalSpy connected(manager.get(), &BLEManager::sigDeviceConnected);
    manager->connectToDevice(light);
    manager->connectToDevice(other);
    QVERIFY(waitFor([&] { return connected.size() == 2; }));

    QList<QObject *> children = manager->findChildren<QObject *>(Qt::FindDirectChildrenOnly);
    QVERIFY(children.size() >= 6); // a scanner, two controllers, three services
    QHash<QObject *, int> deaths;
    QObject context;
    for (QObject *child : std::as_const(children)) {
        deaths.insert(child, 0);
        connect(child, &QObject::destroyed, &context, [&deaths](QObject *dead) { ++deaths[dead]; });
    }
    int emitted = 0;
    connect(manager.get(), &BLEManager::sigDeviceDisconnected, &context, [&] { ++emitted; });
    manager.reset();
    QCOMPARE(deaths.values(), QList<int>(children.size(), 1));
    QCOMPARE(emitted, 0);
}

void TestDestruction::controllerThatTellsItsEnd()
{
    // As some platforms do it: the disconnection is reported from inside the controller's
    // destructor, here as soon as that begins to close the link.
    auto manager = discoveringManager();
    QSignalSpy connected(manager.get(), &BLEManager::sigDeviceConnected);
    manager->connectToDevice(light);
    manager->connectToDevice(other);
    QVERIFY(waitFor([&] { return connected.size() == 2; }));

    int told = 0;
    int emitted = 0;
    QObject context;
    connect(manager.get(), &BLEManager::sigDeviceDisconnected, &context, [&] { ++emitted; });
    const auto controllers = manager->findChildren<QLowEnergyController *>();
    for (QLowEnergyController *controller : controllers) {
        connect(controller, &QLowEnergyController::stateChanged, &context,
                [&, controller](QLowEnergyController::ControllerState state) {
                    if (state != QLowEnergyController::ClosingState)
                        return;
                    ++told;
                    emit controller->errorOccurred(QLowEnergyController::RemoteHostClosedError);
                    emit controller->disconnected();
                });
    }
    manager.reset();
    QCOMPARE(told, 2);
    QCOMPARE(emitted, 0);
}

QTEST_GUILESS_MAIN(TestDestruction)
#include "tst_destruction.moc"
