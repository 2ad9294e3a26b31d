#pragma once

#include "Backend.h"
#include "Bluez.h"

#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>
#include <QTimer>

/*!
    Stands in for bluetoothd on a bus: an adapter and virtual lights as D-Bus objects of org.bluez,
    to the extent that Qt Bluetooth uses them.

    Lives on the thread that creates it and needs its event loop; it must not run in the process
    that uses it, since Qt Bluetooth waits for answers without an event loop.
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
    /*! Gives the name up; a clean end closes the links and removes the objects before. */
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
        Does what a real one was seen to do and most hosts need not be tried with: connections take
        ten seconds longer while a scan runs, and a daemon that was started again still knows the
        lights that had been connected, but not what they advertise.
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
