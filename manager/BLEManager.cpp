#include "BLEManager.h"

BLEManager::BLEManager(QObject *parent) : QObject(parent) { }

BLEManager::~BLEManager()
{
    // Some platforms report the disconnection from inside the controller's destructor. Disconnect
    // all signals first, because a slot would change the maps during the loop and start a
    // reconnection.
    const QObjectList all = children();
    for (QObject *child : all)
        child->disconnect(this);
    qDeleteAll(m_controllerMap);
    qDeleteAll(m_serviceMap);
    m_controllerMap.clear();
    m_serviceMap.clear();
}

void BLEManager::init()
{
    m_serviceUuidMap.insert(QStringLiteral("0000fff0"),
                            { QStringLiteral("0000fff2"), QStringLiteral("0000fff1") });
    m_serviceUuidMap.insert(QStringLiteral("0000a002"),
                            { QStringLiteral("0000c304"), QStringLiteral("0000c305") });
    // The same characteristic is written and notifies.
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
