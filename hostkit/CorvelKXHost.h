#pragma once

#include "CorvelKXBleInterface.h"
#include "CorvelKXLight.h"

#include <QHash>
#include <QList>
#include <QPluginLoader>
#include <QPointer>
#include <QSet>
#include <QTimer>

#include <optional>

namespace CorvelKX {

/*!
    All lights of an application. Loads the plugin and does what the plugin's interface leaves to
    the host: stops the scan while lights are being connected, connects only a few at a time, none
    twice, and none before its old link is down; reconnects lights that are to be kept connected.

    \b Thread. Lives on the thread that creates it, which needs an event loop. Nothing blocks.
    \b Ownership. Owns the Light objects. Deleting it at any time, or the end of the application,
    disconnects all lights and emits nothing. The plugin library stays loaded. Do not delete it in a
    slot of its own signals; use deleteLater() there.
    \b Order. Call load() first; without it, commands only set an error. There can be one Host at a
    time: load() fails for a second one.
    \b Failure. error() tells what keeps Bluetooth from working, errorString() as a sentence for
    users. It becomes NoError as soon as a scan works.
*/
class Host : public QObject
{
    Q_OBJECT
    Q_PROPERTY(CorvelKX::Host::Error error READ error NOTIFY errorChanged)
    Q_PROPERTY(QString errorString READ errorString NOTIFY errorChanged)
    Q_PROPERTY(bool scanning READ isScanning NOTIFY scanningChanged)

public:
    /*! What keeps Bluetooth from working. */
    enum class Error {
        NoError,
        PluginError,   //!< the plugin cannot be loaded
        NoAdapter,     //!< there is no adapter, no bluetoothd or, on Linux, no permission
        AdapterOff,    //!< the adapter is switched off
        NoPermission,  //!< the program may not use Bluetooth; on Linux, this is NoAdapter
        NotSupported,  //!< Qt Bluetooth cannot scan on this platform
        ScanFailed,    //!< the scan failed for another reason
        NotResponding, //!< bluetoothd does not answer
    };
    Q_ENUM(Error)

    /*! The time limits and pauses. Those of the plugin itself cannot be changed. */
    struct Times
    {
        //! The limit of one connection attempt. From the second consecutive time-out on, each one
        //! doubles it, up to longestAttempt.
        std::chrono::milliseconds attempt { 6000 };
        std::chrono::milliseconds longestAttempt { 30000 }; //!< the maximum of attempt
        //! The limit of a disconnection.
        std::chrono::milliseconds disconnection { 2500 };
        //! From the start of one attempt to the next. Doubles with each consecutive failure, a
        //! missing answer included, up to longestPause.
        std::chrono::milliseconds pause { 500 };
        std::chrono::milliseconds longestPause { 8000 }; //!< the maximum of pause
        //! The limit for the answer to a payload; 0 if the lights need not answer.
        std::chrono::milliseconds answer { 0 };
        //! While an attempt is running, neither a scan nor another attempt begins for this time.
        std::chrono::milliseconds settling { 3000 };
        //! For how long a scan continues after it found a light to connect, to find others too.
        std::chrono::milliseconds gathering { 500 };
    };

    /*! Creates a host without a plugin. Call load() next. */
    explicit Host(QObject *parent = nullptr);
    ~Host() override;

    /*!
        Loads the plugin file \a fileName. If that is empty, searches beside the program, then in
        the directory "corvelkx" of each QCoreApplication::libraryPaths(). Returns false, and sets
        error() to PluginError, if it cannot be loaded.
    */
    bool load(const QString &fileName = {});
    /*! Whether the plugin is loaded; false again once close() is done. */
    bool isLoaded() const { return m_plugin; }

    /*! What currently keeps Bluetooth from working. */
    Error error() const { return m_error; }
    /*! The same as a sentence for users; empty for NoError. */
    QString errorString() const;

    /*! The time limits and pauses. Changes apply from the next attempt on. */
    const Times &times() const { return m_times; }
    /*! \copydoc times() */
    void setTimes(const Times &times) { m_times = times; }

    /*!
        Scans for \a duration; a running scan is restarted. The scan pauses while lights are being
        connected. Emits lightAdded() for each new light, and Light::seen().
    */
    void startScan(std::chrono::milliseconds duration = std::chrono::seconds(20));
    /*! Ends the scan of startScan(). Scans for lights that are to be connected continue. */
    void stopScan();
    /*! Whether the scan of startScan() is running. */
    bool isScanning() const { return m_isScanWanted; }
    /*! The remaining time of that scan in milliseconds. */
    qint64 remainingScanTime() const;

    /*! All lights, in the order in which they were added. */
    QList<Light *> lights() const { return m_lights; }
    /*! The light with \a address, added if it is unknown; null if that is not an address. */
    Light *light(const QString &address);
    /*! Whether \a text is an address: six upper-case hexadecimal pairs with colons. */
    static bool isAddress(const QString &text);

    /*!
        Stops the scan, disconnects all lights, waits for at most \a limit, and emits closed(). If
        bluetoothd answered, the plugin object is deleted then, otherwise at the end of the
        application. Afterwards this object cannot be used again, and load() fails.
    */
    void close(std::chrono::milliseconds limit = std::chrono::seconds(5));

signals:
    /*! error() or errorString() changed. */
    void errorChanged();
    /*! isScanning() changed. */
    void scanningChanged();
    /*! The scan of startScan() is over: its time is up, stopScan() was called, or it failed. */
    void scanFinished();
    /*! \a light was added, by a scan or by light(). */
    void lightAdded(CorvelKX::Light *light);
    /*! \a light was forgotten and is about to be deleted. */
    void lightRemoved(CorvelKX::Light *light);
    /*! \a light emitted Light::seen(). */
    void lightSeen(CorvelKX::Light *light);
    /*! \a light emitted Light::stateChanged(). */
    void lightStateChanged(CorvelKX::Light *light);
    /*! \a light emitted Light::messageReceived() with \a data. */
    void messageReceived(CorvelKX::Light *light, const QByteArray &data);
    /*!
        close() is done. The disconnection of the lights \a stillConnected was not confirmed in
        time; among them may be lights that were being connected and have no link.
    */
    void closed(const QStringList &stillConnected);

private slots:
    void onDiscovered(int protocolType, const QString &address, const QString &name);
    void onScanError(QBluetoothDeviceDiscoveryAgent::Error error);
    void onScanFinished();
    void onConnected(const QString &address);
    void onDisconnected(const QString &address);
    void onMessage(const QString &address, const QByteArray &data);

private:
    friend class Light;
    using Phase = Light::Phase;
    using Reason = Light::Reason;
    using Wish = Light::Wish;

    bool isUsable();
    void watchPlugin();
    void onScanFailed(QBluetoothDeviceDiscoveryAgent::Error error);

    // Called by Light.
    void want(Light *light, Wish wish, QDeadlineTimer giveUp);
    void unwant(Light *light);
    void setWish(Light *light, Wish wish);
    void forget(Light *light);
    bool send(Light *light, const QByteArray &data);

    // The transitions of a light from one phase to the next.
    void begin(Light *light, Reason reason);
    void queue(Light *light);
    void attempt(Light *light);
    void disconnectLight(Light *light, Reason reason);
    void onRemoved(Light *light);
    void fail(Light *light, Reason reason);
    void expire(Light *light);
    void enter(Light *light, Phase phase, QDeadlineTimer deadline = QDeadlineTimer::Forever,
               std::optional<Reason> reason = std::nullopt);
    static Light::State stateOf(const Light &light);
    static QDeadlineTimer deadlineOf(const Light &light);

    void advance();
    void connectQueued();
    void updateScan();
    bool isScanOverdue() const;
    void stopPluginScan();
    void schedule();
    void endScan();
    void failScan(Error error, const QString &text = {});
    void setError(Error error, const QString &text = {});
    void finishClose();
    Light *add(const QString &address);
    bool has(Phase phase) const;
    int unsettledCount() const;

    QPluginLoader m_loader;
    QPointer<CorvelKXBleInterface> m_plugin;
    Times m_times;
    Error m_error = Error::NoError;
    QString m_errorText;
    std::optional<QBluetoothDeviceDiscoveryAgent::Error> m_scanError;

    QList<Light *> m_lights;
    QHash<QString, Light *> m_byAddress;
    QList<Light *> m_queue;     //!< to be connected next
    QSet<QString> m_seenInScan; //!< addresses that the plugin's current scan reported
    QTimer m_timer;
    QDeadlineTimer m_scanEnd { QDeadlineTimer::Forever };
    QDeadlineTimer m_scanGuard { QDeadlineTimer::Forever }; //!< by when the plugin's scan must end
    QDeadlineTimer m_gathered;
    QDeadlineTimer m_closeEnd { QDeadlineTimer::Forever };
    bool m_isScanWanted = false;
    bool m_isPluginScanning = false;
    bool m_isClosing = false;
    bool m_isClosed = false;
    //! Whether the plugin emitted a signal since the last command that waits for bluetoothd.
    bool m_hasAnswered = true;
};

} // namespace CorvelKX
