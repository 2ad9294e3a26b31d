#pragma once

#include "CorvelKXBleInterface.h"

class BLEManager;
class QThread;

/*!
    The plugin object: forwards each command to a BLEManager on a worker thread, and each of the
    manager's signals to the host.

    \b Thread. Lives on the thread that creates it; its slots run there.
    \b Ownership. Owned by the host or Qt's plugin loader. Owns the worker thread; the manager is
    deleted when that thread finishes.
    \b Order. The constructor starts the thread and queues the manager's init(), so that it runs
    before any command of the host.
    \b Failure. Reports none. If the thread does not finish within 1000 ms, because bluetoothd does
    not answer, the destructor deletes the running QThread, and Qt ends the process. If the object
    still exists when the application ends, its thread is ended then.
*/
class CorvelKXBleDLL : public CorvelKXBleInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID CORVELKX_BLE_INTERFACE_IID)
    Q_INTERFACES(CorvelKXBleInterface)

public:
    CorvelKXBleDLL();
    ~CorvelKXBleDLL() override;

    void bleInit() override;
    void start() override;
    void stop() override;
    void sendMessage(const QString &devAddr, const QByteArray &data) override;
    void connectToDevice(const QString &devAddr) override;
    bool reconnectDevice(const QString &devAddr) override;
    void removeDevice(const QString &devAddr) override;

public slots:
    // Each emits the corresponding signal of the interface, and logs a line except for messages.
    void slotDeviceDiscovered(int protocolType, const QString &devAddr, const QString &devName);
    void slotDeviceDiscoveredErrorOccurred(QBluetoothDeviceDiscoveryAgent::Error error);
    void slotDeviceDiscvoeredFinished();
    void slotDeviceConnected(const QString &devAddr);
    void slotDeviceDisconnected(const QString &devAddr);
    void slotMessageReceived(const QString &devAddr, const QByteArray &data);

private:
    static void endThreads();

    BLEManager *m_bleMgr;
    QThread *m_bleThread;
};
