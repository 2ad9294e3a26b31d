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
    A client for one light: the one whose advertised name is exactly "Corvel light(DM41)".

    The constructor starts a scan. The client connects the first light with that name, discovers its
    two vendor services, and emits dataReceived() for each notification. It is independent of the
    plugin.

    \b Thread. Lives on the thread that creates it, which needs an event loop; call it only there.
    The UUID accessors may be called on any thread.

    \b Ownership. Owned by its parent, or by the caller if it has none. It may be destroyed at any
    time; that disconnects the light, and nothing is emitted afterwards.

    \b Order. Nothing has to be called first. Writes succeed only after the service's details are
    discovered. No signal tells that, and earlier writes are lost: on Linux the characteristics are
    known when service discovery ends, while the details are still being read, and Qt refuses writes
    until then (OperationError). The log line with the state RemoteServiceDiscovered shows that the
    service is ready.

    \b Failure. None is reported: an unsuccessful scan, a failed connection, a refused write and a
    lost link all end without a signal, and nothing is tried again. Destroy the client and create a
    new one. A light with only one of the services can be used through that one.

    \b Limits. The client does not subscribe to notifications. On platforms that require it (Linux),
    dataReceived() is emitted only if another program has subscribed. The identification byte is
    sent only if serviceStateChanged() finds the main characteristic first; on Linux
    serviceScanDone() does, so it is not sent.
*/
class MYBLE : public QObject
{
    Q_OBJECT

public:
    /*! Creates the client and starts scanning. */
    explicit MYBLE(QObject *parent = nullptr);
    /*! Disconnects the light if it is connected. */
    ~MYBLE() override;

    /*!
        Writes \a data to the main service's characteristic, always with response. Does nothing if
        that is not known yet or not writable.
    */
    void sendMessage(const QByteArray &data);
    /*!
        Writes \a data to the order service's characteristic, always without response. Does nothing
        if that is not known yet or not writable.
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
    /*! The light sent \a data in a notification of any characteristic of either service. */
    void dataReceived(const QByteArray &data);

public slots:
    // The steps of the connection sequence, connected to signals of Qt's objects. Do not call them.

    /*! Stops the scan and connects, if \a device has the light's name. */
    void deviceDiscovered(const QBluetoothDeviceInfo &device);
    /*! Starts service discovery. */
    void deviceConnected();
    /*! Discovers the details of the service \a gatt if it is one of the two. */
    void serviceDiscovered(const QBluetoothUuid &gatt);
    /*! When a service's details are discovered, looks for the missing characteristics. */
    void serviceStateChanged(QLowEnergyService::ServiceState);
    /*! Looks for the characteristics at the end of service discovery. */
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
    void findMainCharacteristic();
    void findOrderCharacteristic();

    QByteArray dataRecvd;
    QLowEnergyCharacteristic writeCharacteristic;
    QLowEnergyCharacteristic writeCharacteristicOrder;
    QByteArray OrderdataRecvd;
    QBluetoothDeviceDiscoveryAgent *discoveryAgent;
    QLowEnergyController *controller = nullptr;
    QLowEnergyService *service = nullptr;
    QLowEnergyService *serviceOrder = nullptr;
};
