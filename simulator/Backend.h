#pragma once

#include "Light.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>

#include <deque>
#include <functional>
#include <memory>
#include <vector>

/*! One payload that was written to a light. */
struct Written
{
    QString characteristic;
    QString mode; //!< "command" (without response), "request" (with response) or "unknown"
    QByteArray data;

    QString toString() const;
};

/*! A running light: its description and the state of its link. */
struct Device
{
    Light light;
    Light original; //!< the first description, for the command "reset"
    QString path;   //!< its D-Bus object path, the prefix of its services' paths
    bool connected = false;
    bool wasConnected = false;
    bool isHeard = false; //!< has advertised since the scan began
    //! Exists while the light is connected or being connected; the context of pending timers.
    std::unique_ptr<QObject> link;
    QList<QDBusMessage> pendingConnects;
    QList<QDBusMessage> pendingDisconnects;
    QStringList notifying;       //!< paths of the characteristics that the central subscribed to
    std::deque<Written> written; //!< the latest payloads
    quint64 writtenCount = 0;

    void remember(const Written &payload);
};

/*!
    The lights that Control commands: in the replacement of bluetoothd, or on real adapters. Used on
    one thread only.
*/
class Backend
{
public:
    explicit Backend(QDBusConnection bus) : m_bus(std::move(bus)) { }
    virtual ~Backend() = default;
    Q_DISABLE_COPY_MOVE(Backend)

    QList<Device *> devices() const;
    Device *find(const QString &address) const;

    /*! Returns why this backend cannot play \a light, or an empty text. */
    virtual QString check([[maybe_unused]] const Light &light) const { return {}; }
    /*! Called after the light's description was changed. */
    virtual void change(Device *) { }
    /*! Advertises the light as its description now says. */
    virtual void advertise(Device *device) = 0;
    virtual void dropLink(Device *device) = 0;
    virtual void vanishServices(Device *device) = 0;
    /*!
        Sends one notification, from the service at \a servicePath if one is given. Returns false if
        the central has not subscribed.
    */
    bool notify(Device *device, const QByteArray &value, const QString &servicePath = {});

    /*!
        If set, called for the events "subscribed" and "written" of a light; on a real adapter also
        for "connected" and "gone".
    */
    std::function<void(const Device &device, const QString &event, const QString &detail)> happened;

protected:
    /*! The light that the object at \a path belongs to. */
    Device *deviceAt(const QString &path) const;
    /*! The UUID of the characteristic at \a path. */
    virtual QString characteristicAt(const QString &path) const = 0;

    // The methods of characteristics and descriptors.
    void readValue(const QDBusMessage &message);
    void writeValue(const QDBusMessage &message);
    void setNotifying(const QDBusMessage &message);

    void reply(const QDBusMessage &message, const QVariantList &arguments = {});
    void refuse(const QDBusMessage &message, const QString &name, const QString &text);

    QDBusConnection m_bus;
    std::vector<std::unique_ptr<Device>> m_devices;
};
