#pragma once

#include <QDBusContext>
#include <QObject>
#include <QStringList>

class QJsonValue;
class Backend;
class BluetoothDaemon;
struct Device;

/*!
    The orders that the virtual lights take while they run, exported on the private bus:

    service \c org.example.CorvelKXLights, object \c /org/example/CorvelKXLights, interface
    \c org.example.CorvelKXLights1.

    Every order that names a light takes its address; one that cannot be carried out is answered by
    the error \c org.example.CorvelKXLights1.Error with a sentence. What an order changes has been
    signalled on the bus before its answer comes.
*/
class Control : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.CorvelKXLights1")

public:
    static constexpr QLatin1String service { "org.example.CorvelKXLights" };
    static constexpr QLatin1String path { "/org/example/CorvelKXLights" };
    static constexpr QLatin1String interface {
        "org.example.CorvelKXLights1"
    };

    /*! Without \a daemon the lights are on the air, where some orders are refused. */
    explicit Control(Backend *lights, BluetoothDaemon *daemon = nullptr, QObject *parent = nullptr);

public slots:
    /*! The addresses of all lights and other devices. */
    QStringList lights();
    /*! Offers one more light, described by a JSON object as in a light file. */
    void add(const QString &json);
    /*! Takes the light out of the daemon's memory and off the air. */
    void forget(const QString &address);
    /*! Changes one key of the light's description; links that stand keep their services. */
    void set(const QString &address, const QString &key, const QString &value);
    /*! Advertises again, with the manufacturer bytes \a hex. */
    void advertise(const QString &address, const QString &hex);
    /*! Drops the link, as a light that is switched off does. */
    void drop(const QString &address);
    /*! Takes the light's services away while its link stands, as a restart of its firmware does. */
    void vanish(const QString &address);
    /*! Sends one notification of the bytes \a hex. */
    void notify(const QString &address, const QString &hex);
    /*!
        Sends \a count notifications of \a size bytes that begin with a big-endian 32-bit number,
        counting up from 0; \a perSecond of them in a second, or as fast as they go where it is 0.
    */
    void burst(const QString &address, int count, int size, int perSecond);
    /*! The adapter: "on", "off", "remove" or "return". */
    void adapter(const QString &state);
    /*!
        The daemon: "leave" ends it in good order, "kill" without a word, "return" starts it.
    */
    void daemon(const QString &state);
    /*! What the light was written last: characteristic, "command" or "request", bytes. */
    QStringList written(const QString &address);
    /*! The addresses of the lights that are connected. */
    QStringList connected();
    /*! How often each D-Bus method was called since the start or the last "reset". */
    QStringList calls();
    /*! Makes the lights what they were described as, and counts calls and payloads from zero. */
    void reset();
    /*! Everything above as one JSON object. */
    QString report();

private:
    Device *device(const QString &address);
    void fail(const QString &sentence);
    bool hasDaemon();
    QString change(Device *device, const QString &key, const QJsonValue &value);

    Backend *m_lights;
    BluetoothDaemon *m_daemon;
};
