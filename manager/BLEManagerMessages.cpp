#include "BLEManager.h"

#include "AddressLookup.h"
#include "DefaultLog.h"
#include "WriteMode.h"

#include <QStringBuilder>

namespace {

// Returns false if the characteristic is not writable.
bool write(QLowEnergyService *service, const QLowEnergyCharacteristic &characteristic,
           const QByteArray &data)
{
    const auto mode = writeModeFor(characteristic.properties());
    if (!mode)
        return false;
    service->writeCharacteristic(characteristic, data, *mode);
    return true;
}

// Builds the line exactly as QDebug's operators would, at a third of their cost, because every
// notification logs it.
QString receivedLine(const QByteArray &value, const QString &macAddr, const QBluetoothUuid &uuid)
{
    return QLatin1String("Received data: \"") % QLatin1String(value.toHex())
           % QLatin1String("\" , macAddr: \"") % macAddr
           % QLatin1String("\" , Characteristic.uuid: \"") % uuid.toString() % QLatin1Char('"');
}

} // namespace

void BLEManager::sendMessage(const QString &macAddr, const QByteArray &data)
{
    // Logs nothing on purpose: hosts commonly send to lights that are not ready or disconnecting.
    if (!m_serviceMap.contains(macAddr) || !m_characteristicsMap.contains(macAddr))
        return;
    QLowEnergyService *service = m_serviceMap.value(macAddr);
    if (!service) {
        qCDebug(defaultLog) << "[BLEManager::sendMessage] service empty. mac address:" << macAddr;
        return;
    }
    // A copy, because a write can fail synchronously, and the clean-up then clears the tables.
    const QLowEnergyCharacteristic characteristic = m_characteristicsMap.value(macAddr);
    if (!characteristic.isValid()) {
        qCDebug(defaultLog) << "[BLEManager::sendMessage] characteristic faild. mac address:"
                            << macAddr;
        return;
    }
    if (!write(service, characteristic, data))
        return;
    qCDebug(defaultLog) << "[BLEManager::sendMessage] macAddr:" << macAddr
                        << ", data:" << data.toHex() << ", characteristic uuid:"
                        << characteristic.uuid().toString(QUuid::WithBraces);
}

void BLEManager::checkAndSendAuthMsg(const QString &macAddr)
{
    qCDebug(defaultLog) << "[BLEManager::checkAndSendAuthMsg] send auth msg.  mac addr:" << macAddr;
    sendAuthMessage(macAddr, QByteArray(1, '\x5C'));
}

void BLEManager::sendAuthMessage(const QString &macAddr, const QByteArray &data)
{
    if (!m_authServiceMap.contains(macAddr)) {
        qCDebug(defaultLog) << "[BLEManager::sendAuthMessage] not found address.  address:"
                            << macAddr;
        return;
    }
    QLowEnergyService *service = m_authServiceMap.value(macAddr);
    if (!service) {
        qCDebug(defaultLog) << "[BLEManager::sendAuthMessage] not found authService.  address:"
                            << macAddr;
        return;
    }
    if (!m_authCharacteristicsMap.contains(macAddr)) {
        qCDebug(defaultLog) << "[BLEManager::sendAuthMessage] not contains characteristics. "
                               "address:"
                            << macAddr;
        return;
    }
    const QLowEnergyCharacteristic characteristic = m_authCharacteristicsMap.value(macAddr);
    if (!characteristic.isValid()) {
        qCDebug(defaultLog) << "[BLEManager::sendAuthMessage] authCharacteristic not valid. "
                               "address:"
                            << macAddr;
        return;
    }
    if (!write(service, characteristic, data))
        return;
    qCDebug(defaultLog) << "[BLEManager::sendAuthMessage] macAddr:" << macAddr
                        << ", data:" << data.toHex()
                        << ", authCharacteristic uuid:" << characteristic.uuid();
}

void BLEManager::slotCharacteristicChanged(const QLowEnergyCharacteristic &characteristic,
                                           const QByteArray &value)
{
    if (value.isEmpty())
        return;
    const auto *service = qobject_cast<QLowEnergyService *>(sender());
    if (!service) {
        qCDebug(defaultLog) << "[BLEManager::slotCharacteristicChanged] qobject_cast fail.";
        return;
    }
    const auto macAddr = addressOf(m_serviceMap, service);
    if (!macAddr) {
        qCDebug(defaultLog)
                << "[BLEManager::slotCharacteristicChanged] m_characteristicsMap not found";
        return;
    }
    qCDebug(defaultLog).noquote() << receivedLine(value, *macAddr, characteristic.uuid());
    emit sigMessageReceived(*macAddr, value);
}
