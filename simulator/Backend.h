#pragma once

#include "Light.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>

#include <deque>
#include <functional>
#include <memory>
#include <vector>

/*! One payload that a light was written. */
struct Written
{
    QString characteristic;
    QString mode; //!< "command" (without response), "request" (with response) or "unknown"
    QByteArray data;

    QString toString() const;
};

/*! A light at work: what it is, and the state of its link. */
struct Device
{
    Light light;
    Light original; //!< as the light was described at first
    QString path;   //!< its object path; those of its services begin with it
    bool connected = false;
    bool wasConnected = false;
    bool isHeard = false; //!< since the scan began
    //! Lives as long as the link, or the attempt at one: what is pending on it ends with it.
    std::unique_ptr<QObject> link;
    QList<QDBusMessage> pendingConnects;
    QList<QDBusMessage> pendingDisconnects;
    QStringList notifying;       //!< paths of the characteristics that the central subscribed to
    std::deque<Written> written; //!< the latest ones
    quint64 writtenCount = 0;

    void remember(const Written &payload);
};

/*!
    The lights that the orders work on, wherever they are: in the stand-in for bluetoothd, or on the
    air. Lives on one thread, as everything here does.
*/
class Backend
{
public:
    explicit Backend(QDBusConnection bus) : m_bus(std::move(bus)) { }
    virtual ~Backend() = default;
    Q_DISABLE_COPY_MOVE(Backend)

    QList<Device *> devices() const;
    Device *find(const QString &address) const;

    /*! Returns why there cannot be such a light here, or nothing. */
    virtual QString check(const Light &) const { return {}; }
    /*! Carries out what was changed in the description of the light. */
    virtual void change(Device *) { }
    /*! Advertises what the light's description says now. */
    virtual void advertise(Device *device) = 0;
    virtual void dropLink(Device *device) = 0;
    virtual void vanishServices(Device *device) = 0;
    /*!
        Sends one notification, from the service at \a servicePath where that is given; returns
        whether the central subscribed to one.
    */
    bool notify(Device *device, const QByteArray &value, const QString &servicePath = {});

    /*!
        Called, where it is set, for what happens to a light: "subscribed" or "written"; on the air
        "connected" and "gone", too.
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
