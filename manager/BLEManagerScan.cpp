#include "BLEManager.h"

#include "DefaultLog.h"
#include "Recognition.h"

void BLEManager::start()
{
    qCDebug(defaultLog) << "[BLEManager::start] enter";
    if (m_discoveryAgent->isActive()) {
        qCDebug(defaultLog) << "[BLEManager::start] enter : stop curent, restart";
        m_discoveryAgent->stop();
    }
    m_discoveryAgent->start(QBluetoothDeviceDiscoveryAgent::LowEnergyMethod);
}

void BLEManager::stop()
{
    qCDebug(defaultLog) << "[BLEManager::stop] enter...";
    if (m_discoveryAgent->isActive()) {
        qCDebug(defaultLog) << "[BLEManager::stop] m_discoveryAgent->stop()";
        m_discoveryAgent->stop();
    }
}

void BLEManager::slotDevDiscoveryFinished()
{
    qCDebug(defaultLog) << "[BLEManager::slotDevDiscoveryFinished]";
    stop();
    emit sigDeviceDiscoveredFinished();
}

void BLEManager::slotDevDiscoveryErrOccurred(QBluetoothDeviceDiscoveryAgent::Error error)
{
    qCDebug(defaultLog) << "[BLEManager::slotDevDiscoveryErrOccurred], error: "
                        << static_cast<int>(error);
    stop();
    emit sigDeviceDiscoveredErrorOccurred(error);
    emit sigDeviceDiscoveredFinished();
}

int BLEManager::supportedBleDevice(const QBluetoothDeviceInfo &devInfo)
{
    return Recognition::protocolType(devInfo.manufacturerData().values());
}

void BLEManager::slotDeviceDiscovered(const QBluetoothDeviceInfo &devInfo)
{
    qCDebug(defaultLog) << "[BLEManager::slotDeviceDiscovered] device name:" << devInfo.name()
                        << " mac addr:" << devInfo.address().toString()
                        << " valid:" << devInfo.isValid();
    qCDebug(defaultLog) << "[BLEManager::slotDeviceDiscovered] " << devInfo.manufacturerIds()
                        << "manufactureData: " << devInfo.manufacturerData();

    const int protocolType = supportedBleDevice(devInfo);
    if (protocolType == -1)
        return;

    const QString advertisedName = devInfo.name();
    qCDebug(defaultLog) << "supportedBleDevice:" << advertisedName;

    QString macAddr = devInfo.address().toString();
    if (macAddr == Recognition::hiddenAddress)
        macAddr = Recognition::derivedAddress(devInfo.manufacturerData().values(), protocolType);
    qCDebug(defaultLog) << "[BLEManager::slotDeviceDiscovered] " << devInfo.manufacturerIds()
                        << "mac addr: " << macAddr;
    if (macAddr == Recognition::hiddenAddress) {
        qCDebug(defaultLog) << "[BLEManager::slotDeviceDiscovered] invalid macAddr:" << macAddr;
        return;
    }

    // Keep the first discovery: the data of a light must not change while it is in use.
    if (!m_deviceInfoMap.contains(macAddr))
        m_deviceInfoMap.insert(macAddr, devInfo);
    if (!m_devProtocolTypeHash.contains(macAddr))
        m_devProtocolTypeHash.insert(macAddr, static_cast<eDevProtocolType>(protocolType));

    emit sigDeviceDiscovered(protocolType, macAddr,
                             Recognition::displayName(protocolType, macAddr, advertisedName));
}
