#include "CorvelKXBleInterface.h"
#include "ManagerTest.h"

#include <QPluginLoader>
#include <QSignalSpy>
#include <QTest>

using Qt::StringLiterals::operator""_s;

// The plugin ends well at every step of the road, and takes the links with it.
class TestDestruction : public ManagerTest
{
    Q_OBJECT

private slots:
    void cleanup() { m_lights.restore(); }
    void pluginAtEachStep_data();
    void pluginAtEachStep();
    void managerWithTwoLights();
    void controllerThatTellsItsEnd();
};

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
    m_lights.set(secured, u"connect"_s, connect);
    if (line == QLatin1String("ClosingState"))
        m_lights.set(secured, u"disconnectDelay"_s, u"100"_s);

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
                         if (address == secured && line != QLatin1String("::sigDeviceDiscovered")) {
                             plugin->stop();
                             plugin->connectToDevice(secured);
                             plugin->connectToDevice(plain);
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
                         m_lights.order(u"burst"_s, { address, 500, 20, 0 });
                         if (line.contains(QLatin1String("Closing"))
                             || line.contains(QLatin1String("doDevice")))
                             plugin->removeDevice(address);
                     });
    QObject::connect(plugin, &CorvelKXBleInterface::sigDeviceDisconnected, &context, count);

    plugin->start();
    const QString expected = line == QLatin1String("::sigDeviceDiscovered")
                                     ? u"slotDeviceDiscovered] devAddr"_s
                                     : line;
    QVERIFY(waitFor([&] { return !log.linesWith(expected).isEmpty(); }));

    delete plugin;
    isDeleted = true;
    QVERIFY(waitFor([this] { return m_lights.order(u"connected"_s).isEmpty(); }));
    QCOMPARE(afterwards, 0);

    // There is a second life after it.
    auto *second = qobject_cast<CorvelKXBleInterface *>(loader.instance());
    QVERIFY(second);
    m_lights.set(secured, u"connect"_s, u"accept"_s);
    QSignalSpy connected(second, &CorvelKXBleInterface::sigDeviceConnected);
    QObject::connect(second, &CorvelKXBleInterface::sigDeviceDiscovered, &context,
                     [&](int, const QString &address, const QString &) {
                         if (address == secured) {
                             second->stop();
                             second->connectToDevice(address);
                         }
                     });
    second->start();
    QVERIFY(waitFor([&] { return !connected.isEmpty(); }));
    delete second;
}

void TestDestruction::managerWithTwoLights()
{
    createManager();
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_manager->connectToDevice(secured);
    m_manager->connectToDevice(plain);
    QVERIFY(waitFor([&] { return connected.size() == 2; }));

    QList<QObject *> children = m_manager->findChildren<QObject *>(Qt::FindDirectChildrenOnly);
    QVERIFY(children.size() >= 6); // a scanner, two controllers, three services
    QHash<QObject *, int> deaths;
    QObject context;
    for (QObject *child : std::as_const(children)) {
        deaths.insert(child, 0);
        connect(child, &QObject::destroyed, &context, [&deaths](QObject *dead) { ++deaths[dead]; });
    }
    int emitted = 0;
    connect(m_manager.get(), &BLEManager::sigDeviceDisconnected, &context, [&] { ++emitted; });
    m_manager.reset();
    QCOMPARE(deaths.values(), QList<int>(children.size(), 1));
    QCOMPARE(emitted, 0);
}

void TestDestruction::controllerThatTellsItsEnd()
{
    // As some platforms do it: the disconnection is reported from inside the controller's
    // destructor, here as soon as that begins to close the link.
    createManager();
    QSignalSpy connected(m_manager.get(), &BLEManager::sigDeviceConnected);
    m_manager->connectToDevice(secured);
    m_manager->connectToDevice(plain);
    QVERIFY(waitFor([&] { return connected.size() == 2; }));

    int told = 0;
    int emitted = 0;
    QObject context;
    connect(m_manager.get(), &BLEManager::sigDeviceDisconnected, &context, [&] { ++emitted; });
    const auto controllers = m_manager->findChildren<QLowEnergyController *>();
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
    m_manager.reset();
    QCOMPARE(told, 2);
    QCOMPARE(emitted, 0);
}

QTEST_GUILESS_MAIN(TestDestruction)
#include "tst_destruction.moc"
