#pragma once

#include "Light.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>
#include <QMap>
#include <QTimer>
#include <QVariantMap>

#include <deque>
#include <memory>
#include <vector>

using Interfaces = QMap<QString, QVariantMap>;
using ManagedObjects = QMap<QDBusObjectPath, Interfaces>;
using ManufacturerData = QMap<quint16, QDBusVariant>;
Q_DECLARE_METATYPE(ManufacturerData)

/*! One payload that a light was written. */
struct Written
{
    QString characteristic;
    QString mode; //!< "command" (without response) or "request" (with response)
    QByteArray data;
};

/*! A light as the daemon knows it: what it is, and the state of its link. */
struct Device
{
    Light light;
    Light original; //!< as the light was described at first
    QString path;
    bool connected = false;
    //! Lives as long as the link, or the attempt at one: what is pending on it ends with it.
    std::unique_ptr<QObject> link;
    QList<QDBusMessage> pendingConnects;
    QList<QDBusMessage> pendingDisconnects;
    QMap<QString, GattCharacteristic> characteristics; //!< by object path
    QStringList objects;                               //!< paths of the exported GATT objects
    QStringList notifying;       //!< paths of the characteristics that the central subscribed to
    std::deque<Written> written; //!< the latest ones
    quint64 writtenCount = 0;
};

/*!
    Stands in for bluetoothd on a bus: an adapter and virtual lights as D-Bus objects of org.bluez,
    to the extent that Qt Bluetooth uses them.

    Lives on the thread that creates it and needs its event loop; it must not run in the process
    that uses it, since Qt Bluetooth waits for answers without an event loop.
*/
class BluetoothDaemon : public QDBusVirtualObject
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
    Device *find(const QString &address) const;
    QList<Device *> devices() const;

    void forget(Device *device);
    void advertise(Device *device);
    void dropLink(Device *device);
    void vanishServices(Device *device);
    /*!
        Sends one notification, from the service at \a servicePath where that is given; returns
        whether the central subscribed to one.
    */
    bool notify(Device *device, const QByteArray &value, const QString &servicePath = {});

    void setPowered(bool powered);
    void setPresent(bool present);
    /*! Connections take \a milliseconds longer while a scan runs. */
    void setScanPenalty(int milliseconds) { m_scanPenalty = milliseconds; }

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
    void readValue(const QDBusMessage &message);
    void writeValue(const QDBusMessage &message);
    void setNotifying(const QDBusMessage &message);

    void reply(const QDBusMessage &message, const QVariantList &arguments = {});
    void refuse(const QDBusMessage &message, const QString &name, const QString &text);

    void finishConnect(Device *device);
    void exportServices(Device *device);
    void removeServices(Device *device);
    void appear(Device *device);
    void showAdapter();
    void endScan();

    void exportObject(const QString &path, const Interfaces &interfaces);
    void removeObject(const QString &path);
    void changeProperties(const QString &path, const QString &interface,
                          const QVariantMap &properties);
    Device *deviceAt(const QString &path) const;
    QVariantMap deviceProperties(const Device &device) const;

    QDBusConnection m_bus;
    QDBusVirtualObject *m_root;
    QDBusServiceWatcher m_scanners;
    QTimer m_appearances;
    ManagedObjects m_objects;
    std::vector<std::unique_ptr<Device>> m_devices;
    QMap<QString, quint64> m_calls;
    int m_scanPenalty = 0;
    bool m_onBus = false;
};
