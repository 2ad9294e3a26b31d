#pragma once

#include "Backend.h"
#include "Bluez.h"

#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>
#include <QTimer>

/*!
    Replaces bluetoothd on a private bus: an adapter and virtual lights as D-Bus objects of
    org.bluez, as far as Qt Bluetooth uses them.

    Needs the event loop of the thread that creates it. Must not run in the process that uses
    Qt Bluetooth, whose D-Bus calls block without an event loop.
*/
class BluetoothDaemon : public QDBusVirtualObject, public Backend
{
    Q_OBJECT

public:
    enum class Leaving { Clean, Silent };

    explicit BluetoothDaemon(QDBusConnection bus, QObject *parent = nullptr);
    ~BluetoothDaemon() override;

    /*! Takes the name org.bluez and shows an adapter that is switched on. */
    bool enterBus();
    /*! Releases the name. A clean end first closes the links and removes the objects. */
    void leaveBus(Leaving how);
    bool isOnBus() const { return m_onBus; }

    void add(const Light &light);
    void forget(Device *device);
    void advertise(Device *device) override;
    void dropLink(Device *device) override;
    void vanishServices(Device *device) override;

    void setPowered(bool powered);
    void setPresent(bool present);
    /*!
        Imitates what a real bluetoothd was seen to do: connections take ten seconds longer while a
        scan runs, and after a restart it knows the lights that had been connected, but not their
        manufacturer data. Off by default, because it makes tests slow.
    */
    void setRealistic(bool realistic) { m_isRealistic = realistic; }

    bool isPresent() const;
    bool isPowered() const;
    bool isScanning() const;
    QMap<QString, quint64> calls() const { return m_calls; }
    void resetCalls() { m_calls.clear(); }

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

private:
    using Handler = void (BluetoothDaemon::*)(const QDBusMessage &);

    void getProperty(const QDBusMessage &message);
    void getAllProperties(const QDBusMessage &message);
    void getManagedObjects(const QDBusMessage &message);
    void accept(const QDBusMessage &message);
    void startDiscovery(const QDBusMessage &message);
    void stopDiscovery(const QDBusMessage &message);
    void connectDevice(const QDBusMessage &message);
    void disconnectDevice(const QDBusMessage &message);
    void finishConnect(Device *device);
    void exportServices(Device *device);
    void removeServices(Device *device);
    void appear(Device *device);
    void showAdapter();
    void endScan();

    void exportObject(const QString &path, const Bluez::Interfaces &interfaces);
    void removeObject(const QString &path);
    void changeProperties(const QString &path, const QString &interface,
                          const QVariantMap &properties);
    QVariantMap deviceProperties(const Device &device) const;
    QString characteristicAt(const QString &path) const override;

    QDBusVirtualObject *m_root;
    QDBusServiceWatcher m_scanners;
    QTimer m_appearances;
    Bluez::ManagedObjects m_objects;
    QMap<QString, quint64> m_calls;
    bool m_isRealistic = false;
    bool m_onBus = false;
};
