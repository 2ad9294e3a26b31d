#pragma once

#include <QBluetoothDeviceDiscoveryAgent>
#include <QBluetoothDeviceInfo>
#include <QBluetoothUuid>
#include <QByteArray>
#include <QLowEnergyCharacteristic>
#include <QLowEnergyController>
#include <QLowEnergyService>
#include <QObject>

/*!
    A client for one light: the one that advertises itself as "Corvel light(DM41)", exactly so.

    Constructing it starts a scan; the first light of that name is connected, both vendor services
    are looked for, and what the light notifies comes as dataReceived(). It knows nothing of the
    plugin or its manager.

    \b Thread. Lives on the thread that creates it, which needs an event loop; call it there only.
    The UUID accessors may be called on any thread.

    \b Ownership. Owned by its parent, or by whoever creates it without one. It may be destroyed at
    any moment; that drops the link, and nothing is emitted any more.

    \b Order. Nothing has to be called first. A write succeeds only once the characteristic is bound
    \e and its service's details are known. There is no signal for that, and earlier writes are lost
    without a word: where the platform lists characteristics at once (Linux), they are bound when
    the scan for services ends, while the details are still being read, and Qt refuses
    (OperationError) and forgets a write in that time. The log line that tells of the discovered
    state of the service is the sign.

    \b Failure. None is reported: a scan without success, a connection that fails, a refused write
    and a lost link all end without a signal, and nothing is tried again. Destroy the client and
    create a new one. A light that lacks one of the services serves with the other one.

    \b What \b never \b comes. The client subscribes to no notifications: where the platform needs
    that (Linux), dataReceived() is emitted only if somebody else did. The identification byte is
    sent only where the main characteristic is bound by a change of its service's state, so not where
    the end of the scan for services has bound it (Linux).
*/
class MYBLE : public QObject
{
    Q_OBJECT

public:
    /*! Creates the client and starts scanning. */
    explicit MYBLE(QObject *parent = nullptr);
    /*! Drops the link, if there is one. */
    ~MYBLE() override;

    /*!
        Writes \a data to the main service's characteristic, always with response. Nothing happens
        where that is not bound or takes no writes.
    */
    void sendMessage(const QByteArray &data);
    /*!
        Writes \a data to the order service's characteristic, always without response. Nothing
        happens where that is not bound or takes no writes.
    */
    void sendMessageOrder(const QByteArray &data);

    /*! The main vendor service. */
    static const QBluetoothUuid &getKxServiceUuid();
    /*! The order service. */
    static const QBluetoothUuid &getKxServiceOrderUuid();
    /*! The main service's characteristic, which sendMessage() writes. */
    static const QBluetoothUuid &getKxIDCharUuid();
    /*! The order service's characteristic, which sendMessageOrder() writes. */
    static const QBluetoothUuid &getKxIDOrderCharUuid();
    /*! The main service's block characteristic, which the client does not use. */
    static const QBluetoothUuid &getKxBlockCharUuid();

signals:
    /*! The light notified \a data, on any characteristic of either service. */
    void dataReceived(const QByteArray &data);

public slots:
    // The steps of the connection sequence, connected to Qt's objects; a user of the class calls none of them.

    /*! Stops the scan and connects, if \a device has the light's name. */
    void deviceDiscovered(const QBluetoothDeviceInfo &device);
    /*! Looks for the light's services. */
    void deviceConnected();
    /*! Opens the service \a gatt, if it is one of the two. */
    void serviceDiscovered(const QBluetoothUuid &gatt);
    /*! Binds what is not bound yet, once a service's details are known. */
    void serviceStateChanged(QLowEnergyService::ServiceState);
    /*! Binds what is known already. */
    void serviceScanDone();
    /*! Emits dataReceived() with \a value. */
    void updateCharacteristicValue(const QLowEnergyCharacteristic &, const QByteArray &value);
    /*! Logs that \a characteristic was written \a newValue. */
    void characteristicWritten(const QLowEnergyCharacteristic &characteristic,
                               const QByteArray &newValue);
    /*! Logs that \a value was read from \a info. */
    void characteristicRead(const QLowEnergyCharacteristic &info, const QByteArray &value);
    /*! Logs \a newError. */
    void handleError(QLowEnergyController::Error newError);

private:
    QLowEnergyService *openService(const QBluetoothUuid &gatt);
    void bindMain();
    void bindOrder();

    QByteArray dataRecvd;
    QLowEnergyCharacteristic writeCharacteristic;
    QLowEnergyCharacteristic writeCharacteristicOrder;
    QByteArray OrderdataRecvd;
    QBluetoothDeviceDiscoveryAgent *discoveryAgent;
    QLowEnergyController *controller = nullptr;
    QLowEnergyService *service = nullptr;
    QLowEnergyService *serviceOrder = nullptr;
};
