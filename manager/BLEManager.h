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
    The GATT central for any number of lights: scans, recognises, connects, binds, writes, reports
    notifications and reconnects.

    \b Thread. Everything runs on the thread that the manager lives on; never call it directly from
    another one. The plugin object queues its commands.
    \b Ownership. Owns every Bluetooth object that it creates. Destroying it drops all links and
    emits nothing. Service objects live as long as the manager, also those of lights that are gone.
    \b Order. init() comes first, once; start() and stop() rely on it.
    \b Failure. A failed precondition is written to the debug log, or is silent where that is said;
    a failed scan becomes sigDeviceDiscoveredErrorOccurred(), a failed link or service leads to the
    disconnect and reconnect path.

    Every per-device table is keyed by the address text that sigDeviceDiscovered() announced.
*/
class BLEManager : public QObject
{
    Q_OBJECT

public:
    explicit BLEManager(QObject *parent = nullptr);
    ~BLEManager() override;

    /*!
        Fills the UUID tables and creates the scanner. Emits nothing. A second call leaves the first
        scanner behind, idle and connected.
    */
    Q_INVOKABLE void init();

    /*!
        Starts a low-energy scan of 20000 ms, anew if one is running; the end of it emits
        sigDeviceDiscoveredFinished(), a failure sigDeviceDiscoveredErrorOccurred() before that.
    */
    Q_INVOKABLE void start();

    /*! Stops a running scan. Emits nothing. */
    Q_INVOKABLE void stop();

    /*!
        Connects to the recognised light \a macAddr with a new controller; one that it already has
        is released. sigDeviceConnected() follows once the light is bound. An unknown address is only
        logged.
    */
    Q_INVOKABLE void connectToDevice(const QString &macAddr);

    /*!
        Asks the controller of \a macAddr, if any, to drop the link; sigDeviceDisconnected() follows
        when it is down.
    */
    Q_INVOKABLE void disconnectFromDevice(const QString &macAddr);

    /*!
        Writes \a data, of any length and unchanged, to the bound characteristic of \a macAddr.
        Emits nothing and does not wait; silent where the light is unknown, not yet bound or cannot
        be written.
    */
    Q_INVOKABLE void sendMessage(const QString &macAddr, const QByteArray &data);

    /*!
        Writes \a data to the authentication characteristic of \a macAddr. Emits nothing; a light
        without one is logged.
    */
    Q_INVOKABLE void sendAuthMessage(const QString &macAddr, const QByteArray &data);

    /*!
        Connects to \a macAddr again and returns \c true; only returns \c true while it is being
        reconnected automatically. For an unknown light, starts a scan and returns \c false.
    */
    Q_INVOKABLE bool reconnectDevice(const QString &macAddr);

    /*!
        Ends automatic reconnection of \a macAddr, drops its link and forgets it.
        sigDeviceDisconnected() follows where there was a link.
    */
    Q_INVOKABLE void removeDevice(const QString &macAddr);

signals:
    /*! Emitted for every advertisement of a supported light. */
    void sigDeviceDiscovered(int protocolType, const QString &macAddr, const QString &devName);
    /*! The scan failed; sigDeviceDiscoveredFinished() follows at once. */
    void sigDeviceDiscoveredErrorOccurred(QBluetoothDeviceDiscoveryAgent::Error error);
    /*! The scan ended by its time-out or by a failure. */
    void sigDeviceDiscoveredFinished();
    /*! The light is bound and takes messages; a bare link does not emit this. */
    void sigDeviceConnected(const QString &macAddr);
    /*! The link is gone; an automatic reconnection may begin right after. */
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
    /*! Returns the protocol type of \a devInfo, or -1 where it is not supported. */
    int supportedBleDevice(const QBluetoothDeviceInfo &devInfo);
    /*!
        Forgets the link of \a macAddr, emits sigDeviceDisconnected() if \a notify, and reconnects
        while an automatic episode has attempts left.
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
    void bindAuthService(QLowEnergyService *service);
    void bindAuthCharacteristic(QLowEnergyService *service, const QString &macAddr,
                                const QString &devName);
    enum class Bound { Nothing, Write, Notify };
    void bindMainService(QLowEnergyService *service);
    void bindMainCharacteristics(QLowEnergyService *service, const QString &macAddr,
                                 const QString &devName);
    Bound bindMainCharacteristic(QLowEnergyService *service,
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
