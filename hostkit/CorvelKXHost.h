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
    The lights altogether: loads the plugin and does for a host what the plugin's contract leaves to
    it. The scan is stopped while lights are being connected, no more than a few are connected at a
    time, none twice, and none before its last link is down; a light that is to be kept connected is
    brought back after whatever happened to it.

    \b Thread. The thread that creates it, which needs an event loop. Nothing blocks.
    \b Ownership. Owns the Light objects. Deleting it at any moment disconnects all lights and
    emits nothing; so does the end of the application. The library stays loaded. Do not delete it
    from a slot of its own signals; deleteLater() may be called there.
    \b Order. load() comes first; without it, nothing happens but an error. Only one Host at a time:
    load() fails for a second one.
    \b Failure. error() tells what keeps the host from its lights, errorString() as a sentence for
    people. It is NoError again as soon as a scan works.
*/
class Host : public QObject
{
    Q_OBJECT
    Q_PROPERTY(CorvelKX::Host::Error error READ error NOTIFY errorChanged)
    Q_PROPERTY(QString errorString READ errorString NOTIFY errorChanged)
    Q_PROPERTY(bool scanning READ isScanning NOTIFY scanningChanged)

public:
    /*! What keeps the host from its lights. */
    enum class Error {
        NoError,
        PluginError,   //!< the plugin cannot be loaded
        NoAdapter,     //!< there is no adapter, no Bluetooth service or, on Linux, no permission
        AdapterOff,    //!< the adapter is switched off
        NoPermission,  //!< the program may not use Bluetooth; on Linux, this is NoAdapter
        NotSupported,  //!< Qt Bluetooth cannot scan on this platform
        ScanFailed,    //!< the scan failed for another reason
        NotResponding, //!< the Bluetooth service does not answer
    };
    Q_ENUM(Error)

    /*! Times for everything that may take too long. The plugin's own are not among them. */
    struct Times
    {
        //! The limit of one attempt to connect a light; from the second attempt in a row that took
        //! too long, doubled for each one, up to the longest.
        std::chrono::milliseconds attempt { 6000 };
        std::chrono::milliseconds longestAttempt { 30000 }; //!< to which an attempt's limit grows
        //! How long a light may take to disconnect.
        std::chrono::milliseconds disconnection { 2500 };
        //! From one try to the next one; doubled for each failure in a row, up to the longest.
        std::chrono::milliseconds pause { 500 };
        std::chrono::milliseconds longestPause { 8000 }; //!< to which a pause grows
        //! The limit for an answer to a payload; without one, none is expected.
        std::chrono::milliseconds answer { 0 };
        //! How long an attempt that is under way holds up scans and other attempts.
        std::chrono::milliseconds settling { 3000 };
        //! How long a scan goes on for more lights, once one was found that is to be connected.
        std::chrono::milliseconds gathering { 500 };
    };

    /*! Makes a host without a plugin; load() comes next. */
    explicit Host(QObject *parent = nullptr);
    ~Host() override;

    /*!
        Loads the plugin from \a fileName; without one, looks beside the program, then in the
        library paths of the application, in the directory "corvelkx". Returns whether it is
        loaded; if not, error() is PluginError.
    */
    bool load(const QString &fileName = {});
    /*! Whether the plugin is loaded, and close() has not deleted its object. */
    bool isLoaded() const { return m_plugin; }

    /*! What keeps the host from its lights at the moment. */
    Error error() const { return m_error; }
    /*! The same as a sentence for people; empty for NoError. */
    QString errorString() const;

    /*! The limits and pauses; changed ones count from the next attempt on. */
    const Times &times() const { return m_times; }
    /*! \copydoc times() */
    void setTimes(const Times &times) { m_times = times; }

    /*!
        Scans for \a duration, anew if a scan is going on; it is interrupted while lights are being
        connected. Emits lightAdded() for each light that is new, and Light::seen().
    */
    void startScan(std::chrono::milliseconds duration = std::chrono::seconds(20));
    /*! Ends the scan that startScan() started. Lights that are looked for are still scanned for. */
    void stopScan();
    /*! Whether a scan was started and is not over. */
    bool isScanning() const { return m_isScanWanted; }
    /*! How long the scan still lasts, in milliseconds. */
    qint64 remainingScanTime() const;

    /*! The lights in the order in which they were first seen or asked for. */
    QList<Light *> lights() const { return m_lights; }
    /*! The light \a address, which is added if it is not known; null if that is no address. */
    Light *light(const QString &address);
    /*! Whether \a text is an address as the plugin gives them. */
    static bool isAddress(const QString &text);

    /*!
        Stops scanning, disconnects all lights and waits for at most \a limit; then emits closed().
        The plugin object is deleted where the plugin answered, else it is left to the end of the
        application. Nothing else can be asked for afterwards.
    */
    void close(std::chrono::milliseconds limit = std::chrono::seconds(5));

signals:
    /*! error() or errorString() changed. */
    void errorChanged();
    /*! isScanning() changed. */
    void scanningChanged();
    /*! A scan that was started is over: by its time, stopScan() or an error. */
    void scanFinished();
    /*! \a light is new, by a scan or by light(). */
    void lightAdded(CorvelKX::Light *light);
    /*! \a light was forgotten and is about to be deleted. */
    void lightRemoved(CorvelKX::Light *light);
    /*! \a light emitted Light::seen(). */
    void lightSeen(CorvelKX::Light *light);
    /*! \a light emitted Light::stateChanged(). */
    void lightStateChanged(CorvelKX::Light *light);
    /*! \a light emitted Light::messageReceived() with \a data. */
    void messageReceived(CorvelKX::Light *light, const QByteArray &data);
    /*! close() is done; \a stillConnected are the addresses of those that did not go in time. */
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

    // What a Light asks for.
    void want(Light *light, Wish wish, QDeadlineTimer giveUp);
    void unwant(Light *light);
    void setWish(Light *light, Wish wish);
    void forget(Light *light);
    bool send(Light *light, const QByteArray &data);

    // The steps of a light, from one phase to the next one.
    void begin(Light *light, Reason reason);
    void queue(Light *light);
    void attempt(Light *light);
    void letGo(Light *light, Reason reason);
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
    QSet<QString> m_seenInScan; //!< since the plugin's scan began
    QTimer m_timer;
    QDeadlineTimer m_scanEnd { QDeadlineTimer::Forever };
    QDeadlineTimer m_scanGuard { QDeadlineTimer::Forever }; //!< when the plugin's scan must be over
    QDeadlineTimer m_gathered;
    QDeadlineTimer m_closeEnd { QDeadlineTimer::Forever };
    bool m_isScanWanted = false;
    bool m_isPluginScanning = false;
    bool m_isClosing = false;
    bool m_isClosed = false;
    bool m_hasAnswered =
            true; //!< the plugin, since the last command that makes it wait for Bluetooth
};

} // namespace CorvelKX
