#include "AirLights.h"

#include <QDBusArgument>
#include <QDBusError>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>
#include <QEventLoop>
#include <QTimer>

#include <algorithm>
#include <utility>

namespace {

using Bluez::adapterInterface;
using Bluez::connectedKey;
using Bluez::deviceInterface;
using Bluez::propertiesInterface;

constexpr QLatin1String gattInterface("org.bluez.GattManager1");
constexpr QLatin1String advertisingInterface("org.bluez.LEAdvertisingManager1");
constexpr QLatin1String advertisementInterface("org.bluez.LEAdvertisement1");
constexpr QLatin1String ownPath("/org/example/CorvelKXLights");
constexpr QLatin1String adapterPrefix("/org/bluez/");
constexpr QLatin1String aliasKey("Alias");

constexpr int startLimit = 20000;
constexpr int settlingTime = 1000;
// An advertisement has 31 bytes; the flags take three, and length, type and company identifier of
// the manufacturer data four. In the scan response, length and type of the name take two of 31.
constexpr int longestData = 24;
constexpr int longestName = 29;

QVariantMap advertisementOf(const Light &light)
{
    QVariantMap properties {
        { QStringLiteral("Type"), QStringLiteral("peripheral") },
        // Some centrals ignore advertisements without this flag.
        { QStringLiteral("Discoverable"), true },
    };
    if (!light.name.isEmpty())
        properties.insert(QStringLiteral("LocalName"), light.name);
    if (const QByteArray data = light.advertisedData(); !data.isEmpty()) {
        const Bluez::ManufacturerData manufacturerData { { light.company, QDBusVariant(data) } };
        properties.insert(QStringLiteral("ManufacturerData"),
                          QVariant::fromValue(manufacturerData));
    }
    return properties;
}

// The GATT objects to register; bluetoothd adds the CCCDs by itself.
Bluez::ManagedObjects objectsOf(const Device &device)
{
    Bluez::ManagedObjects objects = Bluez::gattObjects(device.path, device.light.services());
    objects.removeIf(
            [](const auto object) { return object.value().contains(Bluez::descriptorInterface); });
    return objects;
}

QString sentence(const QDBusError &error)
{
    switch (error.type()) {
    case QDBusError::AccessDenied:
        return QStringLiteral("You may not use Bluetooth here: %1").arg(error.message());
    case QDBusError::NoReply:
    case QDBusError::Timeout:
    case QDBusError::TimedOut:
        return QStringLiteral("The Bluetooth service does not answer.");
    default:
        return QStringLiteral("The Bluetooth service (bluetoothd) does not run.");
    }
}

} // namespace

AirLights::AirLights(const QDBusConnection &bus, QObject *parent)
    : QDBusVirtualObject(parent), Backend(bus)
{
    Bluez::registerTypes();
    m_bus.registerVirtualObject(ownPath, this, QDBusConnection::SubPath);
    const auto listen = [this](QLatin1String interface, const char *name, const char *slot) {
        m_bus.connect(Bluez::service, {}, interface, QLatin1String(name), this, slot);
    };
    listen(Bluez::objectManagerInterface, "InterfacesAdded", SLOT(onInterfacesAdded(QDBusMessage)));
    listen(Bluez::objectManagerInterface, "InterfacesRemoved",
           SLOT(onInterfacesRemoved(QDBusMessage)));
    listen(propertiesInterface, "PropertiesChanged", SLOT(onPropertiesChanged(QDBusMessage)));
    auto *watcher = new QDBusServiceWatcher(Bluez::service, m_bus,
                                            QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this] {
        for (const auto &device : m_devices)
            lose(device.get());
    });
}

AirLights::~AirLights()
{
    happened = nullptr;
    for (const auto &device : m_devices) {
        if (device->connected)
            AirLights::dropLink(device.get());
        setAdvertisement(device.get(), {});
        setServices(device.get(), {});
        setAlias(m_adapters[device.get()], m_adapters[device.get()].alias);
    }
    // bluetoothd answers in order: when this call returns, it has handled all calls above.
    call(QStringLiteral("/"), Bluez::objectManagerInterface, "GetManagedObjects", {})
            .waitForFinished();
}

QString AirLights::start(const QList<Light> &lights, QStringList adapters)
{
    if (!m_bus.isConnected())
        return QStringLiteral("The system bus cannot be reached: %1")
                .arg(m_bus.lastError().message());
    const QDBusMessage answer = m_bus.call(
            QDBusMessage::createMethodCall(Bluez::service, QStringLiteral("/"),
                                           Bluez::objectManagerInterface,
                                           QStringLiteral("GetManagedObjects")));
    if (answer.type() == QDBusMessage::ErrorMessage)
        return sentence(QDBusError(answer));
    const auto objects = qdbus_cast<Bluez::ManagedObjects>(answer.arguments().value(0));

    if (adapters.isEmpty()) {
        for (auto object = objects.cbegin(); object != objects.cend(); ++object) {
            if (object->contains(advertisingInterface))
                adapters.append(object.key().path().section(QLatin1Char('/'), -1));
        }
        if (adapters.isEmpty())
            return QStringLiteral("There is no Bluetooth adapter that can advertise.");
    }
    if (lights.size() > adapters.size()) {
        return QStringLiteral("There are more lights (%1) than adapters (%2): each light needs one "
                              "of its own.")
                .arg(lights.size())
                .arg(adapters.size());
    }
    for (const Light &light : lights) {
        const QString name = adapters.takeFirst();
        QString wrong = adapters.contains(name) ? QStringLiteral("%1 is given twice.").arg(name)
                                                : examineAdapter(name, objects);
        const Bluez::Interfaces interfaces = objects.value(QDBusObjectPath(adapterPrefix + name));
        const QVariantMap properties = interfaces.value(adapterInterface);
        auto device = std::make_unique<Device>();
        device->light = light;
        device->light.address = properties.value(QStringLiteral("Address")).toString();
        device->original = device->light;
        device->path = ownPath + QLatin1Char('/') + name;
        if (wrong.isEmpty() && !check(device->light).isEmpty())
            wrong = QStringLiteral("%1 cannot be played: %2.").arg(name, check(device->light));
        if (!wrong.isEmpty())
            return wrong;
        // If the alias equals the name, none was set; an empty text restores that.
        const QString alias = properties.value(aliasKey).toString();
        const bool isOwn = alias != properties.value(QStringLiteral("Name"));
        m_adapters[device.get()] = { adapterPrefix + name, isOwn ? alias : QString(), {}, {}, {} };
        m_devices.push_back(std::move(device));
    }

    QEventLoop loop;
    QString wrong;
    std::size_t missing = m_devices.size();
    connect(this, &AirLights::started, &loop, [&] {
        if (--missing == 0)
            loop.quit();
    });
    connect(this, &AirLights::failed, &loop, [&](const QString &text) {
        wrong = text;
        loop.quit();
    });
    QTimer::singleShot(startLimit, &loop,
                       [this] { emit failed(sentence(QDBusError(QDBusError::NoReply, {}))); });
    for (const auto &device : m_devices)
        play(device.get());
    loop.exec();
    return wrong;
}

QString AirLights::examineAdapter(const QString &name, const Bluez::ManagedObjects &objects) const
{
    const auto adapter = objects.constFind(QDBusObjectPath(adapterPrefix + name));
    if (adapter == objects.cend())
        return QStringLiteral("There is no adapter \"%1\".").arg(name);
    if (!adapter->contains(advertisingInterface) || !adapter->contains(gattInterface))
        return QStringLiteral("The adapter %1 cannot advertise.").arg(name);
    if (!adapter->value(adapterInterface).value(Bluez::poweredKey).toBool())
        return QStringLiteral("The adapter %1 is switched off.").arg(name);
    return {};
}

QString AirLights::check(const Light &light) const
{
    const Light plain;
    if (light.latency || light.disconnectDelay || light.connect != plain.connect || !light.resolve)
        return QStringLiteral("on a real adapter \"connect\", \"resolve\", \"latency\" and "
                              "\"disconnectDelay\" cannot be set");
    if (light.omit.contains(QLatin1String("00002902")))
        return QStringLiteral("bluetoothd adds the descriptor 2902 by itself");
    if (const auto size = light.advertisedData().size(); size > longestData) {
        return QStringLiteral("its advertisement does not fit: %1 bytes of manufacturer data, at "
                              "most %2")
                .arg(size)
                .arg(longestData);
    }
    if (const auto size = light.name.toUtf8().size(); size > longestName) {
        return QStringLiteral("its advertisement does not fit: a name of %1 bytes, at most %2")
                .arg(size)
                .arg(longestName);
    }
    return {};
}

QDBusPendingCall AirLights::call(const QString &path, QLatin1String interface, const char *method,
                                 const QVariantList &arguments)
{
    auto message = QDBusMessage::createMethodCall(Bluez::service, path, interface,
                                                  QLatin1String(method));
    message.setArguments(arguments);
    // The calls of the destructor must not restart a bluetoothd that has just ended.
    message.setAutoStartService(false);
    return m_bus.asyncCall(message);
}

void AirLights::play(Device *device)
{
    change(device);
    if (!device->light.advertising)
        emit started(device);
}

void AirLights::setServices(Device *device, const Bluez::ManagedObjects &services)
{
    Adapter &adapter = m_adapters[device];
    const QVariant path = QVariant::fromValue(QDBusObjectPath(device->path));
    if (adapter.services == services)
        return;
    if (!adapter.services.isEmpty())
        call(adapter.path, gattInterface, "UnregisterApplication", { path });
    adapter.services = services;
    device->notifying.clear();
    if (!services.isEmpty()) {
        const auto reply = call(adapter.path, gattInterface, "RegisterApplication",
                                { path, QVariantMap() });
        watch(device, reply, [] {});
    }
}

void AirLights::setAdvertisement(Device *device, const QVariantMap &advertisement)
{
    Adapter &adapter = m_adapters[device];
    const QVariant path = QVariant::fromValue(QDBusObjectPath(device->path));
    if (adapter.advertisement == advertisement)
        return;
    if (!adapter.advertisement.isEmpty())
        call(adapter.path, advertisingInterface, "UnregisterAdvertisement", { path });
    adapter.advertisement = advertisement;
    if (!advertisement.isEmpty()) {
        const auto reply = call(adapter.path, advertisingInterface, "RegisterAdvertisement",
                                { path, QVariantMap() });
        watch(device, reply, [this, device] { emit started(device); });
    }
}

void AirLights::watch(Device *device, const QDBusPendingCall &reply,
                      const std::function<void()> &onDone)
{
    auto *watcher = new QDBusPendingCallWatcher(reply, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, device, onDone](auto *self) {
        self->deleteLater();
        if (self->isError())
            emit failed(refusal(*device, self->error()));
        else
            onDone();
    });
}

QString AirLights::refusal(const Device &device, const QDBusError &error) const
{
    const QString adapter = adapterOf(&device);
    if (!error.name().startsWith(QLatin1String("org.bluez.")))
        return sentence(error);
    if (error.name().endsWith(QLatin1String(".NotPermitted")))
        return QStringLiteral("%1 has no room for one more advertisement.").arg(adapter);
    return QStringLiteral("bluetoothd or the kernel refuses to play %1 on %2 (%3). Some kernels of "
                          "2026 refuse every advertisement until the kernel or BlueZ is updated.")
            .arg(device.light.address, adapter, error.message());
}

void AirLights::setAlias(const Adapter &adapter, const QString &alias)
{
    call(adapter.path, propertiesInterface, "Set",
         { adapterInterface, aliasKey, QVariant::fromValue(QDBusVariant(alias)) });
}

void AirLights::change(Device *device)
{
    if (!device->connected)
        setServices(device, objectsOf(*device));
    advertise(device);
}

void AirLights::advertise(Device *device)
{
    // A connected central reads the alias as the light's name.
    setAlias(m_adapters[device], device->light.alias());
    setAdvertisement(device,
                     device->light.advertising ? advertisementOf(device->light) : QVariantMap());
}

void AirLights::dropLink(Device *device)
{
    call(m_adapters[device].central, deviceInterface, "Disconnect", {});
}

void AirLights::vanishServices(Device *device)
{
    setServices(device, {});
}

Device *AirLights::deviceOn(const QString &path) const
{
    const QString adapter = path.section(QLatin1Char('/'), 0, 3);
    const auto device = std::find_if(m_devices.cbegin(), m_devices.cend(), [&](const auto &d) {
        return m_adapters[d.get()].path == adapter;
    });
    return device == m_devices.cend() ? nullptr : device->get();
}

QString AirLights::characteristicAt(const QString &path) const
{
    return m_adapters[deviceAt(path)]
            .services.value(QDBusObjectPath(path))
            .value(Bluez::characteristicInterface)
            .value(Bluez::uuidKey)
            .toString();
}

void AirLights::onLink(const QString &path, bool isConnected)
{
    Device *device = deviceOn(path);
    if (!device || device->connected == isConnected)
        return;
    Adapter &adapter = m_adapters[device];
    if (!isConnected && adapter.central != path)
        return;
    device->connected = isConnected;
    device->link = isConnected ? std::make_unique<QObject>() : nullptr;
    device->notifying.clear();
    adapter.central = isConnected ? path : QString();
    if (happened) {
        happened(*device, isConnected ? QStringLiteral("connected") : QStringLiteral("gone"),
                 path.section(QLatin1String("dev_"), 1)
                         .replace(QLatin1Char('_'), QLatin1Char(':')));
    }
}

void AirLights::onInterfaces(const QString &path, const Bluez::Interfaces &interfaces)
{
    Device *device = deviceOn(path);
    if (!device)
        return;
    const auto properties = interfaces.value(deviceInterface);
    if (const auto connected = properties.constFind(connectedKey); connected != properties.cend()) {
        onLink(path, connected->toBool());
        if (!connected->toBool()) // apply changes that had to wait for the end of the link
            change(device);
    }
    const auto powered = interfaces.value(adapterInterface).value(Bluez::poweredKey);
    if (!powered.isValid())
        return;
    setAdvertisement(device, {});
    // Shortly after bluetoothd shows an adapter, it removes all advertisements that it finds in the
    // kernel, without a signal; wait until that is over.
    if (powered.toBool()) {
        QTimer::singleShot(settlingTime, this, [this, device] { play(device); });
    }
}

void AirLights::onInterfacesAdded(const QDBusMessage &signal)
{
    onInterfaces(qdbus_cast<QDBusObjectPath>(signal.arguments().value(0)).path(),
                 qdbus_cast<Bluez::Interfaces>(signal.arguments().value(1)));
}

void AirLights::onInterfacesRemoved(const QDBusMessage &signal)
{
    const QString path = qdbus_cast<QDBusObjectPath>(signal.arguments().value(0)).path();
    const QStringList interfaces = signal.arguments().value(1).toStringList();
    Device *device = deviceOn(path);
    if (device && interfaces.contains(deviceInterface))
        onLink(path, false);
    if (device && interfaces.contains(adapterInterface))
        lose(device);
}

void AirLights::onPropertiesChanged(const QDBusMessage &signal)
{
    onInterfaces(signal.path(), { { signal.arguments().value(0).toString(),
                                    qdbus_cast<QVariantMap>(signal.arguments().value(1)) } });
}

// Called when the adapter or bluetoothd is gone, and the registrations with it.
void AirLights::lose(Device *device)
{
    onLink(m_adapters[device].central, false);
    m_adapters[device].services.clear();
    m_adapters[device].advertisement.clear();
}

bool AirLights::handleMessage(const QDBusMessage &message, const QDBusConnection &)
{
    Device *device = deviceAt(message.path());
    const QString method = message.interface() + QLatin1Char('.') + message.member();
    if (!device)
        return false;
    const Adapter &adapter = m_adapters[device];
    const bool isDevice = message.path() == device->path;
    if (isDevice && method == Bluez::objectManagerInterface + QLatin1String(".GetManagedObjects"))
        reply(message, { QVariant::fromValue(adapter.services) });
    else if (isDevice && method == propertiesInterface + QLatin1String(".GetAll"))
        reply(message, { adapter.advertisement });
    else if (isDevice && method == advertisementInterface + QLatin1String(".Release"))
        reply(message);
    else if (method == Bluez::characteristicInterface + QLatin1String(".ReadValue"))
        readValue(message);
    else if (method == Bluez::characteristicInterface + QLatin1String(".WriteValue"))
        writeValue(message);
    else if (message.member().endsWith(QLatin1String("Notify")))
        setNotifying(message);
    else
        return false;
    return true;
}
