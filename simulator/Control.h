#pragma once

#include <QDBusContext>
#include <QObject>
#include <QStringList>

class QJsonValue;
class Backend;
class BluetoothDaemon;
struct Device;

/*!
    The commands that change virtual lights while they run, exported on the private bus:

    service \c org.example.CorvelKXLights, object \c /org/example/CorvelKXLights, interface
    \c org.example.CorvelKXLights1.

    A command that names a light takes its address. One that cannot be carried out is answered by
    the error \c org.example.CorvelKXLights1.Error with a sentence. The answer comes after all D-Bus
    signals about what the command changed.

    The class infos are what `corvelkx-lights --help` says about each command.
*/
class Control : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.CorvelKXLights1")
    Q_CLASSINFO("lights", "print the addresses of all lights and other devices")
    Q_CLASSINFO("add", "add the light that a JSON object describes")
    Q_CLASSINFO("forget", "remove the light")
    Q_CLASSINFO("set", "change one key of its description")
    Q_CLASSINFO("advertise", "advertise other manufacturer data")
    Q_CLASSINFO("drop", "end the link, as if it were switched off")
    Q_CLASSINFO("vanish", "remove its services while the link stays up")
    Q_CLASSINFO("notify", "send one notification")
    Q_CLASSINFO("burst", "send numbered notifications; PERSECOND 0: at full speed")
    Q_CLASSINFO("adapter", "the adapter: on, off, remove or return")
    Q_CLASSINFO("daemon", "bluetoothd: leave (end cleanly), kill or return")
    Q_CLASSINFO("written", "print the payloads that it was written last")
    Q_CLASSINFO("connected", "print the addresses of the connected lights")
    Q_CLASSINFO("calls", "print how often each D-Bus method was called")
    Q_CLASSINFO("reset", "restore all lights and set the counts to 0")
    Q_CLASSINFO("report", "print lights, calls and adapter as JSON")

public:
    static constexpr QLatin1String service { "org.example.CorvelKXLights" };
    static constexpr QLatin1String path { "/org/example/CorvelKXLights" };
    static constexpr QLatin1String interface {
        "org.example.CorvelKXLights1"
    };

    /*! Without \a daemon the lights are on real adapters, and some commands are refused. */
    explicit Control(Backend *lights, BluetoothDaemon *daemon = nullptr, QObject *parent = nullptr);

public slots:
    /*! The addresses of all lights, and of the foreign devices among them. */
    QStringList lights();
    /*! Adds a light, described by a JSON object as in a light file. */
    void add(const QString &json);
    /*! Removes the light; bluetoothd forgets it too. */
    void forget(const QString &address);
    /*! Changes one key of the light's description. A link that is up keeps its services. */
    void set(const QString &address, const QString &key, const QString &value);
    /*! Changes the manufacturer data to \a hex and advertises it. */
    void advertise(const QString &address, const QString &hex);
    /*! Ends the link, like a light that is switched off. */
    void drop(const QString &address);
    /*! Removes the light's services while the link stays up, like a restart of its firmware. */
    void vanish(const QString &address);
    /*! Sends one notification of the bytes \a hex. */
    void notify(const QString &address, const QString &hex);
    /*!
        Sends \a count notifications of \a size bytes, \a perSecond each second, or at full speed
        if that is 0. Each begins with its number, from 0, as a big-endian 32-bit integer.
    */
    void burst(const QString &address, int count, int size, int perSecond);
    /*! The adapter: "on", "off", "remove" or "return". */
    void adapter(const QString &state);
    /*! bluetoothd: "leave" ends it cleanly, "kill" without any signal, "return" starts it. */
    void daemon(const QString &state);
    /*!
        The latest payloads: characteristic, "command" (without response) or "request" (with
        response), bytes.
    */
    QStringList written(const QString &address);
    /*! The addresses of the lights that are connected. */
    QStringList connected();
    /*! How often each D-Bus method was called since the start or the last "reset". */
    QStringList calls();
    /*! Restores each light's description, and sets the counts of calls and payloads to 0. */
    void reset();
    /*! The lights, their payloads, the calls and the adapter as one JSON object. */
    QString report();

private:
    Device *device(const QString &address);
    void fail(const QString &sentence);
    bool hasDaemon();
    QString change(Device *device, const QString &key, const QJsonValue &value);

    Backend *m_lights;
    BluetoothDaemon *m_daemon;
};
