#pragma once

#include "CorvelKXBleInterface.h"

class BLEManager;
class QThread;

/*!
    The plugin object: a façade that hands each command to a BLEManager on a worker thread and each
    of the manager's signals to the host.

    \b Thread. Lives on the thread that creates it; so do its slots.
    \b Ownership. Owned by the host or Qt's plugin loader. Owns the worker thread; the manager dies
    with that thread.
    \b Order. The constructor starts the thread and queues the manager's init() before anything
    that the host can send.
    \b Failure. None is reported here. Where the thread does not end within 1000 ms, because the
    Bluetooth service does not answer it, the destructor deletes the running QThread, and Qt ends the
    process. An object that still lives when the application ends has its thread ended by then.
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
    // Each logs one line, messages excepted, and emits the interface signal of the same meaning.
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
