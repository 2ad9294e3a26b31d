#pragma once

#include <QBluetoothDeviceDiscoveryAgent>
#include <QByteArray>
#include <QObject>
#include <QString>

#define CORVELKX_BLE_INTERFACE_IID "org.example.CorvelKXBleInterface"

/*!
    The complete interface between a host application and the plugin.

    Get the object with QPluginLoader::instance() and qobject_cast<CorvelKXBleInterface *>(),
    connect to its signals, then call its commands. A host needs only this header and Qt to compile.
    The library CorvelKX::Host adds time-outs, reconnections and more.

    \b Thread. The object lives on the thread that first called QPluginLoader::instance(); call the
    commands on that thread. Each command is queued to a worker thread and returns at once; the
    worker thread runs them one at a time, in the order of the calls. Signals are emitted on the
    object's own thread, from its event loop, never inside a command. Slots may call any command.

    \b Ownership. The plugin loader owns the object, unless the host deletes it first. Deleting it
    disconnects every light and emits nothing. The destructor waits for the worker thread for at
    most 1000 ms. If that thread is still waiting for bluetoothd then, Qt ends the process with
    "QThread: Destroyed while thread is still running". If the object still exists when the
    QCoreApplication is destroyed, all lights are disconnected then.

    \b Order. Nothing has to be called before start(). A light can be connected after
    sigDeviceDiscovered(), and can be sent payloads after sigDeviceConnected().

    \b Failure. Commands report no errors. A failed scan emits sigDeviceDiscoveredErrorOccurred(). A
    lost light emits sigDeviceDisconnected(). A connection attempt has no time-out and may fail
    without a signal. A payload for a light that is not ready is dropped without a signal. If the
    light refuses a payload, the plugin ends the link, also without a signal. Use a time-out for
    every operation.

    \c devAddr always identifies a light. It is the address from sigDeviceDiscovered(): six
    upper-case hexadecimal pairs separated by colons. Any other text identifies no light.
*/
class CorvelKXBleInterface : public QObject
{
    Q_OBJECT

public:
    CorvelKXBleInterface() : QObject(nullptr) { }
    ~CorvelKXBleInterface() override = default;

    /*!
        Initialises Bluetooth. The plugin object does this when it is created; hosts need not call
        it. A second call creates a second discovery agent, which then serves start() and stop().
        Emits nothing.
    */
    virtual void bleInit() = 0;

    /*!
        Starts a Low Energy scan that ends after 20000 ms; a running scan is restarted. Emits
        sigDeviceDiscovered() for every advertisement of a supported light, then
        sigDeviceDiscoveredFinished(). If the scan fails (no adapter, adapter off, no permission),
        emits sigDeviceDiscoveredErrorOccurred() before sigDeviceDiscoveredFinished().
    */
    virtual void start() = 0;

    /*!
        Stops the scan. Emits nothing, not even sigDeviceDiscoveredFinished(). Stop a scan before
        connecting: a scanning adapter takes far longer to connect.
    */
    virtual void stop() = 0;

    /*!
        Writes \a data, unchanged, to the light \a devAddr: without response if the light supports
        that, otherwise with response. Payloads for one light are written in the order of the calls.
        Emits nothing. Does nothing if the light is not ready.
    */
    virtual void sendMessage(const QString &devAddr, const QByteArray &data) = 0;

    /*!
        Connects to the discovered light \a devAddr, discovers its services, subscribes to its
        notifications and emits sigDeviceConnected(). Does nothing if the address was never
        discovered, or was removed. If the light is already connected, its link ends and a new one
        is made; so do not connect twice. Has no time-out.
    */
    virtual void connectToDevice(const QString &devAddr) = 0;

    /*!
        Connects to \a devAddr again, like connectToDevice(). Does nothing while the plugin is
        reconnecting the light by itself; starts a scan if the light is unknown. Always returns
        \c true, which says nothing about success.
    */
    virtual bool reconnectDevice(const QString &devAddr) = 0;

    /*!
        Disconnects the light \a devAddr and forgets it: it can be connected again only after a scan
        has discovered it again. If it was connected, emits sigDeviceDisconnected() once the link is
        down.
    */
    virtual void removeDevice(const QString &devAddr) = 0;

signals:
    /*!
        A supported light advertised. Emitted for every advertisement that the platform reports, so
        usually many times for one light, connected or not.

        \a protocolType is 1, 2, 3, 5, 6, 7, 162, 163 or 1001, \a devAddr the light's address, and
        \a devName the name to display.
    */
    void sigDeviceDiscovered(int protocolType, const QString &devAddr, const QString &devName);

    /*!
        The scan failed with \a error, on Linux for example InputOutputError if there is no adapter,
        or PoweredOffError if it is switched off. sigDeviceDiscoveredFinished() follows.
    */
    void sigDeviceDiscoveredErrorOccurred(QBluetoothDeviceDiscoveryAgent::Error error);

    /*! The scan ended after 20000 ms, or failed. */
    void sigDeviceDiscoveredFinished();

    /*!
        The light \a devAddr is ready: connected and subscribed to. Emitted after each reconnection
        too.
    */
    void sigDeviceConnected(const QString &devAddr);

    /*!
        The light \a devAddr was disconnected: by itself, because it is out of range, or by
        removeDevice(). Also emitted for each connection attempt, of the host or of the plugin, that
        failed because there is no adapter. The plugin may be reconnecting the light, in up to three
        consecutive attempts; sigDeviceConnected() then reports success.
    */
    void sigDeviceDisconnected(const QString &devAddr);

    /*! The light \a devAddr sent \a data in one notification; never empty, and in order. */
    void sigMessageReceived(const QString &devAddr, const QByteArray &data);
};

Q_DECLARE_INTERFACE(CorvelKXBleInterface, CORVELKX_BLE_INTERFACE_IID)
