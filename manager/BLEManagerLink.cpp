#include "BLEManager.h"

#include "DefaultLog.h"

#include <QThread>

namespace {

constexpr int maximumReconnects = 3;

// Each step of a connection blocks until bluetoothd answers, but the thread must end within a
// second.
bool isThreadEnding()
{
    return QThread::currentThread()->isInterruptionRequested();
}

} // namespace

void BLEManager::connectToDevice(const QString &macAddr)
{
    if (!m_deviceInfoMap.contains(macAddr)) {
        qCDebug(defaultLog) << QStringLiteral("connectToDevice() error, device unsupported, "
                                              "mac address: %1")
                                       .arg(macAddr);
        return;
    }
    if (isThreadEnding())
        return;
    const QBluetoothDeviceInfo info = m_deviceInfoMap.value(macAddr);
    if (QLowEnergyController *replaced = m_controllerMap.take(macAddr))
        replaced->deleteLater();

    QLowEnergyController *controller = QLowEnergyController::createCentral(info, this);
    m_controllerMap.insert(macAddr, controller);

    connect(controller, &QLowEnergyController::connected, this, &BLEManager::slotDeviceConnected);
    connect(controller, &QLowEnergyController::disconnected, this,
            &BLEManager::slotDeviceDisconnected);
    connect(controller, &QLowEnergyController::serviceDiscovered, this,
            &BLEManager::slotServiceDiscovered);
    connect(controller, &QLowEnergyController::errorOccurred, this,
            &BLEManager::slotControllerErrOccurred);
    connect(controller, &QObject::destroyed, this,
            [controller, this] { QObject::disconnect(controller, nullptr, this, nullptr); });
    connect(controller, &QLowEnergyController::stateChanged, this,
            [](QLowEnergyController::ControllerState state) {
                qCDebug(defaultLog) << "BLEManager::slotControllerState" << state;
            });
    connect(controller, &QLowEnergyController::discoveryFinished, this,
            [] { qCDebug(defaultLog) << "BLEManager::slotDiscoveryFinished"; });

    // May fail synchronously, and then the controller is released before this returns.
    controller->connectToDevice();
}

void BLEManager::disconnectFromDevice(const QString &macAddr)
{
    if (QLowEnergyController *controller = m_controllerMap.value(macAddr))
        controller->disconnectFromDevice();
}

void BLEManager::slotDeviceConnected()
{
    qCDebug(defaultLog) << "[BLEManager::slotDeviceConnected] enter...";
    auto *controller = qobject_cast<QLowEnergyController *>(sender());
    if (!controller) {
        qCDebug(defaultLog) << "[BLEManager::slotDeviceConnected] nullptr == controller";
        return;
    }
    if (!isThreadEnding())
        controller->discoverServices();
}

void BLEManager::slotDeviceDisconnected()
{
    const QString macAddr = m_controllerMap.key(qobject_cast<QLowEnergyController *>(sender()));
    qCDebug(defaultLog) << "BLEManager::slotDeviceDisconnected, macAddr:" << macAddr;
    doDeviceDisconnected(macAddr, true);
}

void BLEManager::doDeviceDisconnected(const QString &macAddr, bool notify)
{
    qCDebug(defaultLog) << "[BLEManager::doDeviceDisconnected]" << macAddr;
    // A late signal of a controller that was released before.
    if (macAddr.isEmpty())
        return;

    // Not delete: this may run in a slot of the controller.
    if (QLowEnergyController *controller = m_controllerMap.take(macAddr))
        controller->deleteLater();
    m_serviceMap.remove(macAddr);
    m_authServiceMap.remove(macAddr);
    m_characteristicsMap.remove(macAddr);
    m_authCharacteristicsMap.remove(macAddr);

    if (notify)
        emit sigDeviceDisconnected(macAddr);

    qCDebug(defaultLog) << "[BLEManager::doDeviceDisconnected] m_reconnectDevMap ="
                        << m_reconnectDevMap;
    if (!m_reconnectDevMap.contains(macAddr))
        return;
    const int number = m_reconnectDevMap.value(macAddr) + 1;
    if (number > maximumReconnects) {
        m_reconnectDevMap.remove(macAddr);
        return;
    }
    m_reconnectDevMap.insert(macAddr, number);
    qCDebug(defaultLog) << "[BLEManager::doDeviceDisconnected], auto reconnect num: " << number;
    connectToDevice(macAddr);
}

void BLEManager::slotControllerErrOccurred(QLowEnergyController::Error error)
{
    auto *controller = qobject_cast<QLowEnergyController *>(sender());
    const QString macAddr = m_controllerMap.key(controller);
    qCDebug(defaultLog) << "controller connect error with device: " << macAddr << ", " << error;

    switch (error) {
    case QLowEnergyController::InvalidBluetoothAdapterError:
    case QLowEnergyController::ConnectionError:
    case QLowEnergyController::RemoteHostClosedError:
        if (!m_reconnectDevMap.contains(macAddr))
            m_reconnectDevMap.insert(macAddr, 0);
        if (controller)
            controller->disconnectFromDevice();
        // Without an adapter, disconnected() never follows, so clean up here.
        if (error == QLowEnergyController::InvalidBluetoothAdapterError)
            doDeviceDisconnected(macAddr, true);
        break;
    default:
        m_reconnectDevMap.remove(macAddr);
        break;
    }
}

bool BLEManager::reconnectDevice(const QString &macAddr)
{
    if (m_reconnectDevMap.contains(macAddr))
        return true;
    if (m_deviceInfoMap.contains(macAddr)) {
        connectToDevice(macAddr);
        return true;
    }
    start();
    return false;
}

void BLEManager::removeDevice(const QString &macAddr)
{
    m_reconnectDevMap.remove(macAddr);
    disconnectFromDevice(macAddr);
    m_deviceInfoMap.remove(macAddr);
    m_devProtocolTypeHash.remove(macAddr);
}
