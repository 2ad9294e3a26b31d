#pragma once

#include "Backend.h"
#include "Bluez.h"

#include <QDBusVirtualObject>
#include <QHash>

#include <functional>

class QDBusError;
class QDBusPendingCall;

/*!
    Virtual lights on the air: each is played on an adapter of its own, through the bluetoothd of
    the machine.

    Lives on the thread that creates it and needs its event loop: bluetoothd asks for the services
    while they are registered. start() comes first; its answer is empty or one sentence for people.
    What fails later is told by failed(). A light whose adapter or bluetoothd goes comes back with
    it. The destructor leaves nothing in bluetoothd.
*/
class AirLights : public QDBusVirtualObject, public Backend
{
    Q_OBJECT

public:
    explicit AirLights(const QDBusConnection &bus, QObject *parent = nullptr);
    ~AirLights() override;

    /*!
        Plays \a lights on \a adapters, or on those that there are where the list is empty, and
        waits until they are advertised. Returns what is wrong, or nothing.
    */
    QString start(const QList<Light> &lights, QStringList adapters);

    /*! The name of the adapter that plays the light. */
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
        QString alias;                  //!< as it was before, to be put back
        QString central;                //!< the device that is connected
        Bluez::ManagedObjects services; //!< that are registered
        QVariantMap advertisement;      //!< that is registered
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
