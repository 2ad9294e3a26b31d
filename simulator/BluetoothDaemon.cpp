#include "BluetoothDaemon.h"

#include <QHash>

#include <algorithm>
#include <utility>

namespace {

using Bluez::adapterInterface;
using Bluez::characteristicInterface;
using Bluez::connectedKey;
using Bluez::descriptorInterface;
using Bluez::deviceInterface;
using Bluez::objectManagerInterface;
using Bluez::poweredKey;
using Bluez::propertiesInterface;
using Bluez::uuidKey;

constexpr QLatin1String treePath("/org/bluez");
constexpr QLatin1String adapterPath("/org/bluez/hci0");

constexpr QLatin1String resolvedKey("ServicesResolved");
constexpr QLatin1String discoveringKey("Discovering");
constexpr QLatin1String uuidsKey("UUIDs");
constexpr QLatin1String manufacturerDataKey("ManufacturerData");
constexpr QLatin1String rssiKey("RSSI");

constexpr int appearanceInterval = 5;
constexpr int firstAppearance = 150;
constexpr int scanPenalty = 10000;
constexpr int attemptLimit = 25000; // as measured with bluetoothd 5.66

// BlueZ's object manager is at "/", while its objects are below /org/bluez. Qt D-Bus needs one
// virtual object for each.
class Root : public QDBusVirtualObject
{
public:
    explicit Root(QDBusVirtualObject *tree) : QDBusVirtualObject(tree), m_tree(tree) { }

    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        return m_tree->handleMessage(message, connection);
    }

private:
    QDBusVirtualObject *m_tree;
};

} // namespace

BluetoothDaemon::BluetoothDaemon(QDBusConnection bus, QObject *parent)
    : QDBusVirtualObject(parent), Backend(std::move(bus)), m_root(new Root(this))
{
    Bluez::registerTypes();

    m_bus.registerVirtualObject(QStringLiteral("/"), m_root, QDBusConnection::SingleNode);
    m_bus.registerVirtualObject(treePath, this, QDBusConnection::SubPath);

    m_scanners.setConnection(m_bus);
    m_scanners.setWatchMode(QDBusServiceWatcher::WatchForUnregistration);
    connect(&m_scanners, &QDBusServiceWatcher::serviceUnregistered, this,
            &BluetoothDaemon::endScan);

    // Advertisements arrive one after the other, as over the air.
    connect(&m_appearances, &QTimer::timeout, this, [this] {
        for (const auto &device : m_devices) {
            if (device->light.advertising && !device->isHeard) {
                device->isHeard = true;
                advertise(device.get());
                m_appearances.setInterval(appearanceInterval);
                return;
            }
        }
        m_appearances.stop();
    });
}

BluetoothDaemon::~BluetoothDaemon() = default;

bool BluetoothDaemon::enterBus()
{
    showAdapter();
    for (const auto &device : m_devices) {
        if (m_isRealistic && device->wasConnected) {
            appear(device.get());
            m_objects[QDBusObjectPath(device->path)][deviceInterface].remove(manufacturerDataKey);
        }
    }
    m_onBus = m_bus.registerService(Bluez::service);
    return m_onBus;
}

void BluetoothDaemon::leaveBus(Leaving how)
{
    if (how == Leaving::Clean)
        setPresent(false);
    m_bus.unregisterService(Bluez::service);
    m_onBus = false;

    // After a silent end, a restarted daemon does not know the old links and objects.
    endScan();
    for (const auto &device : m_devices)
        dropLink(device.get());
    m_objects.clear();
}

void BluetoothDaemon::showAdapter()
{
    exportObject(adapterPath,
                 { { adapterInterface,
                     { { QStringLiteral("Address"), QStringLiteral("02:00:00:00:00:01") },
                       { QStringLiteral("Name"), QStringLiteral("virtual") },
                       { QStringLiteral("Alias"), QStringLiteral("virtual") },
                       { poweredKey, true },
                       { discoveringKey, false } } } });
}

bool BluetoothDaemon::isPresent() const
{
    return m_objects.contains(QDBusObjectPath(adapterPath));
}

bool BluetoothDaemon::isPowered() const
{
    return m_objects.value(QDBusObjectPath(adapterPath))
            .value(adapterInterface)
            .value(poweredKey)
            .toBool();
}

bool BluetoothDaemon::isScanning() const
{
    return m_objects.value(QDBusObjectPath(adapterPath))
            .value(adapterInterface)
            .value(discoveringKey)
            .toBool();
}

void BluetoothDaemon::setPowered(bool powered)
{
    if (!isPresent() || powered == isPowered())
        return;
    if (!powered) {
        for (const auto &device : m_devices)
            dropLink(device.get());
        endScan();
    }
    changeProperties(adapterPath, adapterInterface, { { poweredKey, powered } });
}

void BluetoothDaemon::setPresent(bool present)
{
    if (present == isPresent())
        return;
    if (present) {
        showAdapter();
        return;
    }
    endScan();
    for (const auto &device : m_devices) {
        dropLink(device.get());
        removeObject(device->path);
    }
    removeObject(adapterPath);
}

void BluetoothDaemon::endScan()
{
    m_appearances.stop();
    m_scanners.setWatchedServices({});
    if (isScanning())
        changeProperties(adapterPath, adapterInterface, { { discoveringKey, false } });
}

void BluetoothDaemon::add(const Light &light)
{
    auto device = std::make_unique<Device>();
    device->light = light;
    device->original = light;
    device->path = adapterPath + QStringLiteral("/dev_")
                   + QString(light.address).replace(QLatin1Char(':'), QLatin1Char('_'));
    m_devices.push_back(std::move(device));
    if (isScanning())
        m_appearances.start(appearanceInterval);
}

QString BluetoothDaemon::characteristicAt(const QString &path) const
{
    return m_objects.value(QDBusObjectPath(path))
            .value(characteristicInterface)
            .value(uuidKey)
            .toString();
}

void BluetoothDaemon::forget(Device *device)
{
    dropLink(device);
    removeObject(device->path);
    m_devices.erase(std::find_if(m_devices.begin(), m_devices.end(),
                                 [device](const auto &d) { return d.get() == device; }));
}

QVariantMap BluetoothDaemon::deviceProperties(const Device &device) const
{
    QVariantMap properties {
        { QStringLiteral("Address"), device.light.address },
        { QStringLiteral("Alias"), device.light.alias() },
        { QStringLiteral("Adapter"), QVariant::fromValue(QDBusObjectPath(adapterPath)) },
        { rssiKey, QVariant::fromValue<short>(-60) },
        { uuidsKey, QStringList() },
        { connectedKey, false },
        { resolvedKey, false },
    };
    const QByteArray data = device.light.advertisedData();
    if (!data.isEmpty()) {
        const Bluez::ManufacturerData manufacturerData { { device.light.company,
                                                           QDBusVariant(data) } };
        properties.insert(manufacturerDataKey, QVariant::fromValue(manufacturerData));
    }
    return properties;
}

void BluetoothDaemon::appear(Device *device)
{
    exportObject(device->path, { { deviceInterface, deviceProperties(*device) } });
}

void BluetoothDaemon::advertise(Device *device)
{
    if (!m_objects.contains(QDBusObjectPath(device->path))) {
        if (isScanning())
            appear(device);
        return;
    }
    QVariantMap properties = deviceProperties(*device);
    for (const QLatin1String key : { connectedKey, resolvedKey, uuidsKey })
        properties.remove(key);
    changeProperties(device->path, deviceInterface, properties);
}

void BluetoothDaemon::dropLink(Device *device)
{
    device->link.reset();
    const auto pending = std::exchange(device->pendingConnects, {});
    for (const QDBusMessage &message : pending)
        refuse(message, Bluez::error("Failed"), QStringLiteral("the link was lost"));
    if (device->connected) {
        device->connected = false;
        removeServices(device);
        changeProperties(device->path, deviceInterface,
                         { { resolvedKey, false }, { connectedKey, false } });
    }
    const auto disconnects = std::exchange(device->pendingDisconnects, {});
    for (const QDBusMessage &message : disconnects)
        reply(message);
}

void BluetoothDaemon::vanishServices(Device *device)
{
    removeServices(device);
    changeProperties(device->path, deviceInterface, { { uuidsKey, QStringList() } });
}

void BluetoothDaemon::exportServices(Device *device)
{
    const QList<GattService> services = device->light.services();
    const auto objects = Bluez::gattObjects(device->path, services);
    for (auto object = objects.cbegin(); object != objects.cend(); ++object)
        exportObject(object.key().path(), object.value());
    QStringList uuids;
    for (const GattService &service : services)
        uuids.append(service.uuid);
    changeProperties(device->path, deviceInterface, { { uuidsKey, uuids } });
}

void BluetoothDaemon::removeServices(Device *device)
{
    device->notifying.clear();
    const auto objects = m_objects.keys();
    for (const QDBusObjectPath &object : objects) {
        if (object.path().startsWith(device->path + QLatin1Char('/')))
            removeObject(object.path());
    }
}

void BluetoothDaemon::exportObject(const QString &path, const Bluez::Interfaces &interfaces)
{
    const QDBusObjectPath object(path);
    m_objects.insert(object, interfaces);
    if (!m_onBus)
        return;
    auto signal = QDBusMessage::createSignal(QStringLiteral("/"), objectManagerInterface,
                                             QStringLiteral("InterfacesAdded"));
    signal << QVariant::fromValue(object) << QVariant::fromValue(interfaces);
    m_bus.send(signal);
}

void BluetoothDaemon::removeObject(const QString &path)
{
    const QDBusObjectPath object(path);
    const Bluez::Interfaces interfaces = m_objects.take(object);
    if (interfaces.isEmpty() || !m_onBus)
        return;
    auto signal = QDBusMessage::createSignal(QStringLiteral("/"), objectManagerInterface,
                                             QStringLiteral("InterfacesRemoved"));
    signal << QVariant::fromValue(object) << QStringList(interfaces.keys());
    m_bus.send(signal);
}

void BluetoothDaemon::changeProperties(const QString &path, const QString &interface,
                                       const QVariantMap &properties)
{
    const auto object = m_objects.find(QDBusObjectPath(path));
    if (object == m_objects.end())
        return;
    (*object)[interface].insert(properties);
    if (!m_onBus)
        return;
    auto signal = QDBusMessage::createSignal(path, propertiesInterface,
                                             QStringLiteral("PropertiesChanged"));
    signal << interface << properties << QStringList();
    m_bus.send(signal);
}

QString BluetoothDaemon::introspect(const QString &) const
{
    return {};
}

bool BluetoothDaemon::handleMessage(const QDBusMessage &message, const QDBusConnection &)
{
    static const QHash<QString, Handler> handlers {
        { propertiesInterface + QStringLiteral(".Get"), &BluetoothDaemon::getProperty },
        { propertiesInterface + QStringLiteral(".GetAll"), &BluetoothDaemon::getAllProperties },
        { objectManagerInterface + QStringLiteral(".GetManagedObjects"),
          &BluetoothDaemon::getManagedObjects },
        { adapterInterface + QStringLiteral(".SetDiscoveryFilter"), &BluetoothDaemon::accept },
        { adapterInterface + QStringLiteral(".StartDiscovery"), &BluetoothDaemon::startDiscovery },
        { adapterInterface + QStringLiteral(".StopDiscovery"), &BluetoothDaemon::stopDiscovery },
        { deviceInterface + QStringLiteral(".Connect"), &BluetoothDaemon::connectDevice },
        { deviceInterface + QStringLiteral(".Disconnect"), &BluetoothDaemon::disconnectDevice },
        { characteristicInterface + QStringLiteral(".ReadValue"), &BluetoothDaemon::readValue },
        { characteristicInterface + QStringLiteral(".WriteValue"), &BluetoothDaemon::writeValue },
        { characteristicInterface + QStringLiteral(".StartNotify"),
          &BluetoothDaemon::setNotifying },
        { characteristicInterface + QStringLiteral(".StopNotify"), &BluetoothDaemon::setNotifying },
        { descriptorInterface + QStringLiteral(".ReadValue"), &BluetoothDaemon::readValue },
    };
    const QString method = message.interface() + QLatin1Char('.') + message.member();
    ++m_calls[method];
    const auto handler = handlers.constFind(method);
    if (handler == handlers.constEnd())
        return false;
    if (message.path() != QLatin1String("/")
        && !m_objects.contains(QDBusObjectPath(message.path()))) {
        refuse(message, QStringLiteral("org.freedesktop.DBus.Error.UnknownObject"),
               QStringLiteral("there is no %1").arg(message.path()));
        return true;
    }
    (this->*handler.value())(message);
    return true;
}

void BluetoothDaemon::getProperty(const QDBusMessage &message)
{
    const QVariantMap properties = m_objects.value(QDBusObjectPath(message.path()))
                                           .value(message.arguments().value(0).toString());
    const auto property = properties.constFind(message.arguments().value(1).toString());
    if (property == properties.constEnd()) {
        refuse(message, QStringLiteral("org.freedesktop.DBus.Error.UnknownProperty"),
               QStringLiteral("there is no such property"));
        return;
    }
    reply(message, { QVariant::fromValue(QDBusVariant(*property)) });
}

void BluetoothDaemon::getAllProperties(const QDBusMessage &message)
{
    reply(message, { m_objects.value(QDBusObjectPath(message.path()))
                             .value(message.arguments().value(0).toString()) });
}

void BluetoothDaemon::getManagedObjects(const QDBusMessage &message)
{
    reply(message, { QVariant::fromValue(m_objects) });
}

void BluetoothDaemon::accept(const QDBusMessage &message)
{
    reply(message);
}

void BluetoothDaemon::startDiscovery(const QDBusMessage &message)
{
    if (!isPowered()) {
        refuse(message, Bluez::error("NotReady"), QStringLiteral("the adapter is off"));
        return;
    }
    m_scanners.setWatchedServices({ message.service() });
    changeProperties(adapterPath, adapterInterface, { { discoveringKey, true } });
    reply(message);

    for (const auto &device : m_devices)
        device->isHeard = false;
    m_appearances.start(m_isRealistic ? firstAppearance : appearanceInterval);
}

void BluetoothDaemon::stopDiscovery(const QDBusMessage &message)
{
    endScan();
    reply(message);
}

void BluetoothDaemon::connectDevice(const QDBusMessage &message)
{
    Device *device = deviceAt(message.path());
    if (device->connected) {
        reply(message);
        return;
    }
    if (!isPowered()) {
        refuse(message, Bluez::error("NotReady"), QStringLiteral("the adapter is off"));
        return;
    }
    if (device->link) {
        refuse(message, Bluez::error("InProgress"), QStringLiteral("a connection is under way"));
        return;
    }
    device->link = std::make_unique<QObject>();
    device->pendingConnects.append(message);
    if (device->light.connect == Light::Connect::Hang)
        return;
    const int delay = device->light.connect == Light::Connect::Away
                              ? attemptLimit
                              : device->light.latency
                                        + (m_isRealistic && isScanning() ? scanPenalty : 0);
    QTimer::singleShot(delay, device->link.get(), [this, device] { finishConnect(device); });
}

void BluetoothDaemon::finishConnect(Device *device)
{
    if (device->light.connect == Light::Connect::Refuse
        || device->light.connect == Light::Connect::Away) {
        dropLink(device);
        return;
    }
    device->connected = true;
    device->wasConnected = true;
    changeProperties(device->path, deviceInterface, { { connectedKey, true } });
    const auto pending = std::exchange(device->pendingConnects, {});
    for (const QDBusMessage &message : pending)
        reply(message);
    if (device->light.connect == Light::Connect::Abort) {
        dropLink(device);
        return;
    }
    if (!device->light.resolve)
        return;
    exportServices(device);
    changeProperties(device->path, deviceInterface, { { resolvedKey, true } });
}

void BluetoothDaemon::disconnectDevice(const QDBusMessage &message)
{
    Device *device = deviceAt(message.path());
    if (!device->link) {
        refuse(message, Bluez::error("NotConnected"), QStringLiteral("there is no link"));
        return;
    }
    device->pendingDisconnects.append(message);
    QTimer::singleShot(device->light.disconnectDelay, device->link.get(),
                       [this, device] { dropLink(device); });
}
