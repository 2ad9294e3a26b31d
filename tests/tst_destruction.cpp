#include "ManagerTest.h"

#include <QSignalSpy>
#include <QTest>

using Qt::StringLiterals::operator""_s;

// The manager takes with it what it made, once, and says nothing more.
class TestDestruction : public ManagerTest
{
    Q_OBJECT

private slots:
    void cleanup() { m_lights.restore(); }
    void managerWithTwoLights();
    void controllerThatTellsItsEnd();
};

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
