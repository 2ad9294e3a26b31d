#pragma once

#include "CorvelKXBleInterface.h"

#include <QMap>
#include <QPluginLoader>
#include <QSet>
#include <QStringList>

#include <chrono>
#include <functional>
#include <optional>

/*! A wait without a limit: as long as a timer can be set. */
inline constexpr std::chrono::milliseconds unlimited = std::chrono::hours(24 * 20);

/*!
    The plugin, loaded as any host loads it, and what its signals have told so far.

    Commands are written as a row of calls and waits; a wait runs the event loop until the signals
    have brought what it waits for, its time is over, or the user interrupts.
*/
class Session : public QObject
{
    Q_OBJECT

public:
    enum class Wait { Done, TimedOut, Interrupted };
    struct Found
    {
        int type = 0;
        QString name;
    };

    explicit Session(QObject *parent = nullptr);
    ~Session() override;

    /*! Loads the plugin from \a fileName; returns what is wrong with it, or nothing. */
    QString load(const QString &fileName);
    CorvelKXBleInterface *plugin() const { return m_plugin; }

    /*! Starts a scan; scanError() and hasScanEnded() tell what became of it. */
    void startScan();
    void stopScan();
    /*! Asks for links to \a addresses, which close() drops again. */
    void connectTo(const QStringList &addresses);
    void reconnectTo(const QString &address);
    /*! Drops the link to \a address and forgets the light. */
    void forget(const QString &address);
    /*! Drops every link that was asked for and waits for it, for \a limit at the most. */
    void close(std::chrono::milliseconds limit);

    Wait waitUntil(const std::function<bool()> &done, std::chrono::milliseconds limit) const;
    /*! Ends the wait that is going on and those to come, until resume(). */
    void interrupt();
    void resume() { m_isInterrupted = false; }

    const QMap<QString, Found> &found() const { return m_found; }
    /*! How many lights were announced since the scan began. */
    qsizetype seenCount() const { return m_seenInScan.size(); }
    bool isReady(const QString &address) const { return m_ready.contains(address); }
    bool hasScanEnded() const { return m_hasScanEnded; }
    std::optional<QBluetoothDeviceDiscoveryAgent::Error> scanError() const { return m_scanError; }
    /*! How many messages came from all lights, and from \a address. */
    quint64 receivedCount() const { return m_receivedCount; }
    quint64 receivedFrom(const QString &address) const { return m_receivedFrom.value(address); }

signals:
    /*! A light was announced for the first time since the scan began. */
    void lightFound(const QString &address);
    /*! Some state changed. */
    void changed();

private:
    void watch();

    QPluginLoader m_loader;
    CorvelKXBleInterface *m_plugin = nullptr;
    QMap<QString, Found> m_found;
    QSet<QString> m_seenInScan;
    QSet<QString> m_asked;
    QSet<QString> m_open; //!< asked for, and not gone since
    QSet<QString> m_ready;
    std::optional<QBluetoothDeviceDiscoveryAgent::Error> m_scanError;
    QMap<QString, quint64> m_receivedFrom;
    quint64 m_receivedCount = 0;
    bool m_hasScanEnded = false;
    bool m_isInterrupted = false;
};
