#pragma once

#include "DevProtocolType.h"

#include <QBluetoothDeviceDiscoveryAgent>
#include <QBluetoothDeviceInfo>
#include <QBluetoothUuid>
#include <QByteArray>
#include <QHash>
#include <QList>
#include <QLowEnergyCharacteristic>
#include <QLowEnergyController>
#include <QLowEnergyService>
#include <QMap>
#include <QObject>
#include <QString>

/*!
    The GATT central for any number of lights: scans, recognises and connects lights, sets up their
    services, writes payloads, reports notifications and reconnects.

    \b Thread. Everything runs on the manager's thread; never call it directly from another one. The
    plugin object queues its commands.
    \b Ownership. Owns all Bluetooth objects that it creates. Destroying it disconnects all lights
    and emits nothing. Service objects live as long as the manager, even after their light is gone.
    \b Order. Call init() first, once; start() and stop() depend on it.
    \b Failure. A failed precondition is logged at debug level, or ignored where the documentation
    says so. A failed scan emits sigDeviceDiscoveredErrorOccurred(); a failed link or service leads
    to doDeviceDisconnected().

    The key of every per-device table is the address that sigDeviceDiscovered() reported.
*/
class BLEManager : public QObject
{
    Q_OBJECT

public:
    explicit BLEManager(QObject *parent = nullptr);
    ~BLEManager() override;

    /*!
        Fills the UUID tables and creates the discovery agent. Emits nothing. After a second call
        the first agent still exists, unused but connected.
    */
    Q_INVOKABLE void init();

    /*!
        Starts a Low Energy scan of 20000 ms; a running scan is restarted. Its end emits
        sigDeviceDiscoveredFinished(), after sigDeviceDiscoveredErrorOccurred() if it failed.
    */
    Q_INVOKABLE void start();

    /*! Stops a running scan. Emits nothing. */
    Q_INVOKABLE void stop();

    /*!
        Connects to the recognised light \a macAddr with a new controller; an existing controller is
        released. Emits sigDeviceConnected() once the characteristics are set up. An unknown address
        is only logged.
    */
    Q_INVOKABLE void connectToDevice(const QString &macAddr);

    /*!
        Asks the controller of \a macAddr, if any, to disconnect; sigDeviceDisconnected() follows
        when the link is down.
    */
    Q_INVOKABLE void disconnectFromDevice(const QString &macAddr);

    /*!
        Writes \a data, of any length and unchanged, to the write characteristic of \a macAddr.
        Emits nothing and does not wait. Does nothing, and logs nothing, if the light is unknown,
        not ready or not writable.
    */
    Q_INVOKABLE void sendMessage(const QString &macAddr, const QByteArray &data);

    /*!
        Writes \a data to the authentication characteristic of \a macAddr. Emits nothing. If the
        light has none, only logs that.
    */
    Q_INVOKABLE void sendAuthMessage(const QString &macAddr, const QByteArray &data);

    /*!
        Connects to \a macAddr again and returns \c true. While the light is being reconnected
        automatically, does nothing and returns \c true. For an unknown light, starts a scan and
        returns \c false.
    */
    Q_INVOKABLE bool reconnectDevice(const QString &macAddr);

    /*!
        Ends automatic reconnection of \a macAddr, disconnects the light and forgets it.
        sigDeviceDisconnected() follows if it was connected.
    */
    Q_INVOKABLE void removeDevice(const QString &macAddr);

signals:
    /*! Emitted for every advertisement of a supported light. */
    void sigDeviceDiscovered(int protocolType, const QString &macAddr, const QString &devName);
    /*! The scan failed; sigDeviceDiscoveredFinished() follows at once. */
    void sigDeviceDiscoveredErrorOccurred(QBluetoothDeviceDiscoveryAgent::Error error);
    /*! The scan ended after its time, or failed. */
    void sigDeviceDiscoveredFinished();
    /*! The light is subscribed to and takes payloads; a link alone does not emit this. */
    void sigDeviceConnected(const QString &macAddr);
    /*! The link is down; an automatic reconnection may begin right after. */
    void sigDeviceDisconnected(const QString &macAddr);
    /*! One notification of the light's main service, never empty. */
    void sigMessageReceived(const QString &macAddr, const QByteArray &data);

private slots:
    void slotDeviceDiscovered(const QBluetoothDeviceInfo &devInfo);
    void slotDeviceConnected();
    void slotDeviceDisconnected();
    void slotControllerErrOccurred(QLowEnergyController::Error error);
    void slotServiceDiscovered(const QBluetoothUuid &gatt);
    void slotDevDiscoveryFinished();
    void slotDevDiscoveryErrOccurred(QBluetoothDeviceDiscoveryAgent::Error error);
    void slotCharacteristicChanged(const QLowEnergyCharacteristic &characteristic,
                                   const QByteArray &value);
    void slotServiceStateChanged(QLowEnergyService::ServiceState state);
    void slotServiceErrorOccurred(QLowEnergyService::ServiceError error);

private:
    /*! Returns the protocol type of \a devInfo, or -1 if it is not supported. */
    int supportedBleDevice(const QBluetoothDeviceInfo &devInfo);
    /*!
        Releases the controller of \a macAddr and clears its tables, emits sigDeviceDisconnected()
        if \a notify, and reconnects if an automatic reconnection is active and has attempts left.
    */
    void doDeviceDisconnected(const QString &macAddr, bool notify);
    void checkAndSendAuthMsg(const QString &macAddr);

    QLowEnergyService *openService(QLowEnergyController *controller, const QBluetoothUuid &gatt,
                                   const QString &macAddr,
                                   QMap<QString, QLowEnergyService *> *services);
    void discoverMainService(QLowEnergyController *controller, const QBluetoothUuid &gatt,
                             const QString &uuidText);
    void discoverAuthService(QLowEnergyController *controller, const QBluetoothUuid &gatt,
                             const QString &uuidText);
    void setUpAuthService(QLowEnergyService *service);
    void setUpAuthCharacteristic(QLowEnergyService *service, const QString &macAddr,
                                 const QString &devName);
    enum class SetUp { Nothing, Write, Notify };
    void setUpMainService(QLowEnergyService *service);
    void setUpMainCharacteristics(QLowEnergyService *service, const QString &macAddr,
                                  const QString &devName);
    SetUp setUpMainCharacteristic(QLowEnergyService *service,
                                  const QLowEnergyCharacteristic &characteristic,
                                  const QString &macAddr, const QString &devName);

    QBluetoothDeviceDiscoveryAgent *m_discoveryAgent = nullptr;
    QMap<QString, QBluetoothDeviceInfo> m_deviceInfoMap;
    QMap<QString, QLowEnergyController *> m_controllerMap;
    QMap<QString, QLowEnergyService *> m_serviceMap;
    QMap<QString, QLowEnergyService *> m_authServiceMap;
    QMap<QString, QLowEnergyCharacteristic> m_characteristicsMap;
    QMap<QString, QLowEnergyCharacteristic> m_authCharacteristicsMap;
    QMap<QString, QList<QString>> m_serviceUuidMap;
    QMap<QString, QList<QString>> m_authServiceUuidMap;
    QMap<QString, int> m_reconnectDevMap;
    QHash<QString, eDevProtocolType> m_devProtocolTypeHash;
};
