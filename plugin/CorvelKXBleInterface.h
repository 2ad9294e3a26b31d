#pragma once

#include <QBluetoothDeviceDiscoveryAgent>
#include <QByteArray>
#include <QObject>
#include <QString>

#define CORVELKX_BLE_INTERFACE_IID "org.example.CorvelKXBleInterface"

/*!
    The whole contract between a host application and the plugin.

    Get the object with QPluginLoader::instance() and qobject_cast<CorvelKXBleInterface *>(), connect
    to the signals, then call the commands. This header and Qt are all that a host needs to compile.
    The library CorvelKX::Host does for a host what this interface leaves to it.

    \b Thread. The object lives on the thread that first asked the loader for it; call the commands
    on that thread. Each one is queued to a worker thread and returns at once; they are carried out
    one at a time, in the order of the calls. Signals are emitted on the object's own thread, from
    its event loop and never from inside a command; any command may be called from a connected slot.

    \b Ownership. The loader owns it, or whoever deletes it first. Deleting it disconnects every
    light and emits nothing. The destructor waits for the worker thread, for at most 1000 ms; where
    the thread is still waiting for the Bluetooth service by then, Qt ends the process with
    "QThread: Destroyed while thread is still running". An object that still lives when the
    QCoreApplication is destroyed disconnects every light then, and does nothing more.

    \b Order. Nothing has to be called before start(). A light can be connected once
    sigDeviceDiscovered() reported it; sendMessage() reaches it once sigDeviceConnected() came.

    \b Failure. No command reports one. A scan that fails emits sigDeviceDiscoveredErrorOccurred().
    A light that is lost emits sigDeviceDisconnected(). A connection attempt has no time-out and may
    end without a signal. A payload for a light that is not ready is dropped without a signal; one
    that the light refuses makes the plugin drop the link, without a signal too. Use a time-out for
    every operation.

    A light is named everywhere by \c devAddr, the text that sigDeviceDiscovered() gave: six
    upper-case hexadecimal pairs separated by colons. Any other text names no light.
*/
class CorvelKXBleInterface : public QObject
{
    Q_OBJECT

public:
    CorvelKXBleInterface() : QObject(nullptr) { }
    ~CorvelKXBleInterface() override = default;

    /*!
        Prepares the Bluetooth side. The plugin object does this once when it is created; a host
        does not call it. A second call creates a second, idle scanner. Emits nothing.
    */
    virtual void bleInit() = 0;

    /*!
        Starts a low-energy scan that ends by itself after 20000 ms; a running scan is stopped and
        begun anew, without a signal for the stop. Emits sigDeviceDiscovered() for every
        advertisement of a supported light, then sigDeviceDiscoveredFinished(), preceded by
        sigDeviceDiscoveredErrorOccurred() where the scan failed (no adapter, adapter off, no
        permission).
    */
    virtual void start() = 0;

    /*!
        Stops the scan. Emits nothing, not even sigDeviceDiscoveredFinished(). Stop a scan before
        connecting: an adapter that scans takes far longer to connect.
    */
    virtual void stop() = 0;

    /*!
        Writes \a data, unchanged, to the light \a devAddr; without response where the light offers
        that, with response otherwise. Payloads for one light are written in the order of the calls.
        Emits nothing; nothing happens where the light is not ready.
    */
    virtual void sendMessage(const QString &devAddr, const QByteArray &data) = 0;

    /*!
        Connects to the announced light \a devAddr, finds its services and switches its
        notifications on; then emits sigDeviceConnected(). For an address that was never announced,
        or was removed, nothing happens. A light that is connected already loses its link and is
        connected anew: do not ask twice. Has no time-out.
    */
    virtual void connectToDevice(const QString &devAddr) = 0;

    /*!
        Connects to \a devAddr again, as connectToDevice() does. Does nothing while the plugin is
        reconnecting the light by itself; starts a scan where the light is unknown. Always returns
        \c true, which says nothing about the outcome.
    */
    virtual bool reconnectDevice(const QString &devAddr) = 0;

    /*!
        Drops the link to \a devAddr, if there is one, and forgets the light: it can be connected
        again only after a scan has announced it anew. Emits sigDeviceDisconnected() once the link
        is down, where the light was connected.
    */
    virtual void removeDevice(const QString &devAddr) = 0;

signals:
    /*!
        A supported light advertised. Emitted for every advertisement, so many times for one light,
        connected or not.

        \a protocolType is one of 1, 2, 3, 5, 6, 7, 162, 163 and 1001, \a devAddr the light's
        address and \a devName the name to show.
    */
    void sigDeviceDiscovered(int protocolType, const QString &devAddr, const QString &devName);

    /*!
        The scan failed with \a error: InputOutputError where there is no adapter,
        PoweredOffError where it is switched off. sigDeviceDiscoveredFinished() follows.
    */
    void sigDeviceDiscoveredErrorOccurred(QBluetoothDeviceDiscoveryAgent::Error error);

    /*! The scan ended: its 20000 ms ran out, or it failed. */
    void sigDeviceDiscoveredFinished();

    /*!
        The light \a devAddr is connected and takes messages. Comes again after each reconnection.
    */
    void sigDeviceConnected(const QString &devAddr);

    /*!
        The light \a devAddr was disconnected: by the light, because it is out of range, or by
        removeDevice(). Also emitted for each attempt to connect that failed because there is no
        adapter. The plugin may be reconnecting the light, in at most three attempts in a row;
        sigDeviceConnected() tells of success.
    */
    void sigDeviceDisconnected(const QString &devAddr);

    /*! The light \a devAddr sent \a data in one notification; never empty, and in order. */
    void sigMessageReceived(const QString &devAddr, const QByteArray &data);
};

Q_DECLARE_INTERFACE(CorvelKXBleInterface, CORVELKX_BLE_INTERFACE_IID)
