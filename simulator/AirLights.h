#pragma once

#include "Backend.h"
#include "Bluez.h"

#include <QDBusVirtualObject>
#include <QHash>

#include <functional>

class QDBusError;
class QDBusPendingCall;

/*!
    Virtual lights over the air: each is a peripheral on a real adapter, through the machine's
    bluetoothd.

    Needs the event loop of the thread that creates it: bluetoothd reads the services while they are
    being registered. Call start() first. failed() reports later errors. A light whose adapter or
    bluetoothd disappears returns with it. The destructor unregisters everything.
*/
class AirLights : public QDBusVirtualObject, public Backend
{
    Q_OBJECT

public:
    explicit AirLights(const QDBusConnection &bus, QObject *parent = nullptr);
    ~AirLights() override;

    /*!
        Plays \a lights on \a adapters, or on any adapters if the list is empty, and waits until all
        are advertised. Returns an empty text, or one sentence about what is wrong.
    */
    QString start(const QList<Light> &lights, QStringList adapters);

    /*! The name of the light's adapter, such as hci0. */
    QString adapterOf(const Device *device) const
    {
        return m_adapters[device].path.section(QLatin1Char('/'), -1);
    }

    QString check(const Light &light) const override;
    void change(Device *device) override;
    void advertise(Device *device) override;
    void dropLink(Device *device) override;
    void vanishServices(Device *device) override;

    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

signals:
    void started(Device *device);
    void failed(const QString &sentence);

private slots:
    void onInterfacesAdded(const QDBusMessage &signal);
    void onInterfacesRemoved(const QDBusMessage &signal);
    void onPropertiesChanged(const QDBusMessage &signal);

private:
    struct Adapter
    {
        QString path;
        QString alias;                  //!< the original alias, to be restored
        QString central;                //!< the object path of the connected central
        Bluez::ManagedObjects services; //!< as registered
        QVariantMap advertisement;      //!< as registered
    };

    QString examineAdapter(const QString &name, const Bluez::ManagedObjects &objects) const;
    void play(Device *device);
    void setServices(Device *device, const Bluez::ManagedObjects &services);
    void setAdvertisement(Device *device, const QVariantMap &advertisement);
    void watch(Device *device, const QDBusPendingCall &reply, const std::function<void()> &onDone);
    QString refusal(const Device &device, const QDBusError &error) const;
    void lose(Device *device);
    void onLink(const QString &path, bool isConnected);
    void onInterfaces(const QString &path, const Bluez::Interfaces &interfaces);
    void setAlias(const Adapter &adapter, const QString &alias);
    Device *deviceOn(const QString &path) const;
    QString characteristicAt(const QString &path) const override;
    QDBusPendingCall call(const QString &path, QLatin1String interface, const char *method,
                          const QVariantList &arguments);

    QHash<const Device *, Adapter> m_adapters;
};
