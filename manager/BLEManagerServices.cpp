#include "BLEManager.h"

#include "AddressLookup.h"
#include "DefaultLog.h"

#include <QLowEnergyDescriptor>

#include <algorithm>
#include <utility>

namespace {

// Indexes into a row of the UUID tables.
enum { WriteUuid, NotifyUuid };

bool hasPrefix(const QString &uuidText, const QString &shortUuid)
{
    return uuidText.startsWith(shortUuid, Qt::CaseInsensitive);
}

bool namesService(const QMap<QString, QList<QString>> &table, const QString &uuidText)
{
    return std::any_of(table.keyBegin(), table.keyEnd(), [&uuidText](const QString &shortUuid) {
        return hasPrefix(uuidText, shortUuid);
    });
}

} // namespace

void BLEManager::slotServiceDiscovered(const QBluetoothUuid &gatt)
{
    qCDebug(defaultLog) << "[BLEManager::slotServiceDiscovered] enter... uuid:"
                        << gatt.toString(QUuid::WithBraces);
    const QString uuidText = gatt.toString(QUuid::WithoutBraces);
    auto *controller = qobject_cast<QLowEnergyController *>(sender());
    if (!controller) {
        qCDebug(defaultLog) << "[BLEManager::slotServiceDiscovered] controller is empty. uuid:"
                            << uuidText;
        return;
    }
    qCDebug(defaultLog) << "[BLEManager::slotServiceDiscovered]" << controller->error()
                        << controller->errorString();

    if (namesService(m_serviceUuidMap, uuidText))
        discoverMainService(controller, gatt, uuidText);
    else if (namesService(m_authServiceUuidMap, uuidText))
        discoverAuthService(controller, gatt, uuidText);
}

QLowEnergyService *BLEManager::openService(QLowEnergyController *controller,
                                           const QBluetoothUuid &gatt, const QString &macAddr,
                                           QMap<QString, QLowEnergyService *> *services)
{
    QLowEnergyService *service = controller->createServiceObject(gatt, this);
    if (!service)
        return nullptr;
    services->insert(macAddr, service);
    connect(service, &QLowEnergyService::stateChanged, this, &BLEManager::slotServiceStateChanged);
    connect(service, &QLowEnergyService::characteristicChanged, this,
            &BLEManager::slotCharacteristicChanged);
    return service;
}

void BLEManager::discoverMainService(QLowEnergyController *controller, const QBluetoothUuid &gatt,
                                     const QString &uuidText)
{
    const QString macAddr = m_controllerMap.key(controller);
    qCDebug(defaultLog) << "[BLEManager::slotServiceDiscovered] contains uuid. uuid:" << uuidText
                        << macAddr;
    QLowEnergyService *service = openService(controller, gatt, macAddr, &m_serviceMap);
    if (!service)
        return;
    connect(service, &QLowEnergyService::errorOccurred, this,
            &BLEManager::slotServiceErrorOccurred);
    connect(service, &QLowEnergyService::descriptorRead, this,
            [](const QLowEnergyDescriptor &, const QByteArray &value) {
                qCDebug(defaultLog) << "======================== descriptorRead" << value;
            });
    connect(service, &QLowEnergyService::descriptorWritten, this,
            [](const QLowEnergyDescriptor &, const QByteArray &value) {
                qCDebug(defaultLog) << "======================== descriptorWritten" << value;
            });
    service->discoverDetails(QLowEnergyService::FullDiscovery);
}

void BLEManager::discoverAuthService(QLowEnergyController *controller, const QBluetoothUuid &gatt,
                                     const QString &uuidText)
{
    qCDebug(defaultLog) << "[BLEManager::slotServiceDiscovered][Author] contains uuid. uuid:"
                        << uuidText;
    QLowEnergyService *service = openService(controller, gatt, m_controllerMap.key(controller),
                                             &m_authServiceMap);
    if (!service)
        return;
    connect(service, &QLowEnergyService::errorOccurred, this,
            [](QLowEnergyService::ServiceError error) {
                qCDebug(defaultLog)
                        << "[BLEManager::slotServiceDiscovered][Author] service errorOccurred:"
                        << error;
            });
    service->discoverDetails(QLowEnergyService::FullDiscovery);
}

void BLEManager::slotServiceErrorOccurred(QLowEnergyService::ServiceError error)
{
    qCDebug(defaultLog) << "[BLEManager::slotServiceDiscovered] service errorOccurred:" << error;
    auto *service = qobject_cast<QLowEnergyService *>(sender());
    if (!service)
        return;
    doDeviceDisconnected(m_serviceMap.key(service), false);
}

void BLEManager::slotServiceStateChanged(QLowEnergyService::ServiceState state)
{
    qCDebug(defaultLog) << "[BLEManager::serviceStateChanged] state:" << state
                        << ", is equal to QLowEnergyService::RemoteServiceDiscovered:"
                        << (state == QLowEnergyService::RemoteServiceDiscovered);
    auto *service = qobject_cast<QLowEnergyService *>(sender());
    if (!service) {
        qCDebug(defaultLog) << "[BLEManager::serviceStateChanged] qobject_cast fail.";
        return;
    }
    if (state != QLowEnergyService::RemoteServiceDiscovered)
        return;

    // Every service is passed to both; the one that does not know it logs "not found service".
    setUpAuthService(service);
    setUpMainService(service);
}

void BLEManager::setUpAuthService(QLowEnergyService *service)
{
    const auto found = addressOf(m_authServiceMap, service);
    if (!found) {
        qCDebug(defaultLog) << "[BLEManager::serviceStateChanged][Auth]  not found service ";
        return;
    }
    const QString &macAddr = *found;
    const QString devName = m_deviceInfoMap.value(macAddr).name();
    qCDebug(defaultLog) << "[BLEManager::serviceStateChanged][Auth] send deviceDiscovered && "
                           "deviceConnected mac address:"
                        << macAddr << ", device name:" << devName;
    if (m_authCharacteristicsMap.contains(macAddr))
        return;

    setUpAuthCharacteristic(service, macAddr, devName);
    if (!m_authCharacteristicsMap.contains(macAddr)) {
        qCDebug(defaultLog) << "[BLEManager::serviceStateChanged][Auth]  m_authCharacteristicsMap "
                               "not found. mac addr:"
                            << macAddr << " device name" << devName;
    }
}

void BLEManager::setUpAuthCharacteristic(QLowEnergyService *service, const QString &macAddr,
                                         const QString &devName)
{
    const QList<QLowEnergyCharacteristic> characteristics = service->characteristics();
    for (const QLowEnergyCharacteristic &characteristic : characteristics) {
        qCDebug(defaultLog) << "[BLEManager::serviceStateChanged][Auth] characteristics, uuid:"
                            << characteristic.uuid().toString(QUuid::WithBraces)
                            << ", valid: " << characteristic.isValid();
        if (!characteristic.isValid())
            continue;

        const QString uuidText = characteristic.uuid().toString(QUuid::WithoutBraces);
        const bool matches = std::any_of(m_authServiceUuidMap.cbegin(), m_authServiceUuidMap.cend(),
                                         [&uuidText](const QList<QString> &row) {
                                             return hasPrefix(uuidText, row.at(WriteUuid));
                                         });
        if (!matches)
            continue;

        qCDebug(defaultLog) << "[BLEManager::serviceStateChanged][Auth] update "
                               "m_authCharacteristicsMap. mac addr:"
                            << macAddr << ", device name:" << devName
                            << ", characteristics uuid:" << uuidText;
        m_authCharacteristicsMap.insert(macAddr, characteristic);
        checkAndSendAuthMsg(macAddr);
        return;
    }
}

void BLEManager::setUpMainService(QLowEnergyService *service)
{
    const auto found = addressOf(m_serviceMap, service);
    if (!found) {
        qCDebug(defaultLog) << "[BLEManager::serviceStateChanged] not found service ";
        return;
    }
    const QString &macAddr = *found;
    const QString devName = m_deviceInfoMap.value(macAddr).name();
    qCDebug(defaultLog) << "[BLEManager::serviceStateChanged] send deviceDiscovered && "
                           "deviceConnected mac address:"
                        << macAddr << ", device name:" << devName;
    qCDebug(defaultLog) << "[BLEManager::serviceStateChanged] send deviceDiscovered && "
                           "deviceConnected is eixist ="
                        << m_characteristicsMap.contains(macAddr);
    m_characteristicsMap.remove(macAddr);

    setUpMainCharacteristics(service, macAddr, devName);
    if (!m_characteristicsMap.contains(macAddr)) {
        qCDebug(defaultLog) << "[BLEManager::serviceStateChanged] m_characteristicsMap not found. "
                               "mac addr:"
                            << macAddr;
    }
}

void BLEManager::setUpMainCharacteristics(QLowEnergyService *service, const QString &macAddr,
                                          const QString &devName)
{
    bool writeBound = false;
    bool notifyEnabled = false;
    const QList<QLowEnergyCharacteristic> characteristics = service->characteristics();
    for (const QLowEnergyCharacteristic &characteristic : characteristics) {
        qCDebug(defaultLog) << "[BLEManager::serviceStateChanged] characteristics, uuid:"
                            << characteristic.uuid().toString(QUuid::WithBraces)
                            << ", valid: " << characteristic.isValid();
        if (characteristic.isValid()) {
            const SetUp done = setUpMainCharacteristic(service, characteristic, macAddr, devName);
            writeBound = writeBound || done == SetUp::Write;
            notifyEnabled = notifyEnabled || done == SetUp::Notify;
        }
        if (writeBound && notifyEnabled) {
            emit sigDeviceConnected(macAddr);
            return;
        }
    }
}

BLEManager::SetUp BLEManager::setUpMainCharacteristic(
        QLowEnergyService *service, const QLowEnergyCharacteristic &characteristic,
        const QString &macAddr, const QString &devName)
{
    const QString uuidText = characteristic.uuid().toString(QUuid::WithoutBraces);
    for (const QList<QString> &row : std::as_const(m_serviceUuidMap)) {
        if (hasPrefix(uuidText, row.at(WriteUuid))) {
            qCDebug(defaultLog) << "[BLEManager::serviceStateChanged] update "
                                   "m_characteristicsMap. mac addr:"
                                << macAddr << ", device name:" << devName
                                << ", characteristics uuid:" << uuidText;
            if (!m_characteristicsMap.contains(macAddr)) {
                m_characteristicsMap.insert(macAddr, characteristic);
                m_reconnectDevMap.remove(macAddr);
                return SetUp::Write;
            }
        }
        if (hasPrefix(uuidText, row.at(NotifyUuid))) {
            qCDebug(defaultLog) << "[BLEManager::serviceStateChanged] update "
                                   "m_characteristicsMap. open subscription notifications, "
                                   "mac addr:"
                                << macAddr << ", device name:" << devName
                                << ", characteristics uuid:" << uuidText;
            const QLowEnergyDescriptor descriptor = characteristic
                                                            .clientCharacteristicConfiguration();
            if (!descriptor.isValid())
                return SetUp::Nothing;
            service->writeDescriptor(descriptor, QByteArray::fromHex("0100"));
            return SetUp::Notify;
        }
    }
    return SetUp::Nothing;
}
