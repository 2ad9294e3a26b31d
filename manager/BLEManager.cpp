#include "BLEManager.h"

#include <utility>

BLEManager::BLEManager(QObject *parent) : QObject(parent) { }

BLEManager::~BLEManager()
{
    // Some platforms report the disconnection from inside the controller's destructor. Nobody may
    // listen by then: a slot would change the maps and even start a reconnection.
    const auto controllers = std::exchange(m_controllerMap, {});
    const auto services = std::exchange(m_serviceMap, {});
    for (QLowEnergyController *controller : controllers)
        controller->disconnect(this);
    for (QLowEnergyService *service : services)
        service->disconnect(this);
    qDeleteAll(controllers);
    qDeleteAll(services);
}

void BLEManager::init()
{
    m_serviceUuidMap.insert(QStringLiteral("0000fff0"),
                            { QStringLiteral("0000fff2"), QStringLiteral("0000fff1") });
    m_serviceUuidMap.insert(QStringLiteral("0000a002"),
                            { QStringLiteral("0000c304"), QStringLiteral("0000c305") });
    // The same characteristic twice: the rows have a place for writing and one for notifications.
    m_authServiceUuidMap.insert(QStringLiteral("f000ffc0"),
                                { QStringLiteral("f000ffc1"), QStringLiteral("f000ffc1") });

    m_discoveryAgent = new QBluetoothDeviceDiscoveryAgent(this);
    m_discoveryAgent->setLowEnergyDiscoveryTimeout(20000);
    connect(m_discoveryAgent, &QBluetoothDeviceDiscoveryAgent::deviceDiscovered, this,
            &BLEManager::slotDeviceDiscovered);
    connect(m_discoveryAgent, &QBluetoothDeviceDiscoveryAgent::finished, this,
            &BLEManager::slotDevDiscoveryFinished);
    connect(m_discoveryAgent, &QBluetoothDeviceDiscoveryAgent::errorOccurred, this,
            &BLEManager::slotDevDiscoveryErrOccurred);
}
