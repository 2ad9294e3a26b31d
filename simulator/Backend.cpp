#include "Backend.h"

#include "Bluez.h"

#include <QDBusArgument>

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t rememberedWrites = 1000;

} // namespace

QString Written::toString() const
{
    return QStringLiteral("%1 %2 %3").arg(characteristic, mode, QString::fromLatin1(data.toHex()));
}

void Device::remember(const Written &payload)
{
    written.push_back(payload);
    if (written.size() > rememberedWrites)
        written.pop_front();
    ++writtenCount;
}

QList<Device *> Backend::devices() const
{
    QList<Device *> all;
    for (const auto &device : m_devices)
        all.append(device.get());
    return all;
}

Device *Backend::find(const QString &address) const
{
    const auto device = std::find_if(m_devices.cbegin(), m_devices.cend(),
                                     [&](const auto &d) { return d->light.address == address; });
    return device == m_devices.cend() ? nullptr : device->get();
}

bool Backend::notify(Device *device, const QByteArray &value, const QString &servicePath)
{
    const auto source = std::find_if(device->notifying.cbegin(), device->notifying.cend(),
                                     [&servicePath](const QString &path) {
                                         return path.startsWith(servicePath);
                                     });
    if (source == device->notifying.cend())
        return false;
    auto signal = QDBusMessage::createSignal(*source, Bluez::propertiesInterface,
                                             QStringLiteral("PropertiesChanged"));
    signal << Bluez::characteristicInterface << QVariantMap { { QStringLiteral("Value"), value } }
           << QStringList();
    return m_bus.send(signal);
}

Device *Backend::deviceAt(const QString &path) const
{
    const auto device = std::find_if(m_devices.cbegin(), m_devices.cend(), [&path](const auto &d) {
        const auto size = d->path.size();
        return path.startsWith(d->path)
               && (path.size() == size || path.at(size) == QLatin1Char('/'));
    });
    return device == m_devices.cend() ? nullptr : device->get();
}

void Backend::reply(const QDBusMessage &message, const QVariantList &arguments)
{
    if (message.isReplyRequired())
        m_bus.send(message.createReply(arguments));
}

void Backend::refuse(const QDBusMessage &message, const QString &name, const QString &text)
{
    m_bus.send(message.createErrorReply(name, text));
}

void Backend::readValue(const QDBusMessage &message)
{
    if (deviceAt(message.path())->light.refuseReads) {
        refuse(message, Bluez::error("NotPermitted"), QStringLiteral("reading is refused"));
        return;
    }
    const bool isDescriptor = message.interface() == Bluez::descriptorInterface;
    reply(message, { isDescriptor ? QByteArray(2, '\0') : QByteArrayLiteral("virtual") });
}

void Backend::writeValue(const QDBusMessage &message)
{
    Device *device = deviceAt(message.path());
    if (device->light.refuseWrites) {
        refuse(message, Bluez::error("NotPermitted"), QStringLiteral("writing is refused"));
        return;
    }
    const QByteArray data = message.arguments().value(0).toByteArray();
    // bluetoothd 5.66 does not pass on whether it was a command or a request.
    const auto options = qdbus_cast<QVariantMap>(message.arguments().value(1));
    const QString mode = options.value(QStringLiteral("type"), QStringLiteral("unknown"))
                                 .toString();
    device->remember({ characteristicAt(message.path()), mode, data });
    if (happened)
        happened(*device, QStringLiteral("written"), device->written.back().toString());
    reply(message);

    if (device->light.echo)
        notify(device, data, message.path().section(QLatin1Char('/'), 0, -2));
}

void Backend::setNotifying(const QDBusMessage &message)
{
    Device *device = deviceAt(message.path());
    device->notifying.removeAll(message.path());
    if (message.member() == QLatin1String("StartNotify")) {
        device->notifying.append(message.path());
        if (happened)
            happened(*device, QStringLiteral("subscribed"), characteristicAt(message.path()));
    }
    reply(message);
}
