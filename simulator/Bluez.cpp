#include "Bluez.h"

#include <QDBusMetaType>

namespace {

QString numbered(const QString &parent, const char *kind, qsizetype number)
{
    return QStringLiteral("%1/%2%3").arg(parent, QLatin1String(kind),
                                         QStringLiteral("%1").arg(number, 4, 16, QLatin1Char('0')));
}

} // namespace

void Bluez::registerTypes()
{
    qDBusRegisterMetaType<Interfaces>();
    qDBusRegisterMetaType<ManagedObjects>();
    qDBusRegisterMetaType<ManufacturerData>();
}

QString Bluez::error(const char *name)
{
    return QStringLiteral("org.bluez.Error.") + QLatin1String(name);
}

Bluez::ManagedObjects Bluez::gattObjects(const QString &path, const QList<GattService> &services)
{
    ManagedObjects objects;
    qsizetype handle = 1;
    const auto parent = [](const QString &parentPath) {
        return QVariant::fromValue(QDBusObjectPath(parentPath));
    };
    for (const GattService &gatt : services) {
        const QString servicePath = numbered(path, "service", handle++);
        objects[QDBusObjectPath(servicePath)][serviceInterface] = {
            { uuidKey, gatt.uuid }, { QStringLiteral("Primary"), true }
        };
        for (const GattCharacteristic &characteristic : gatt.characteristics) {
            const QString characteristicPath = numbered(servicePath, "char", handle++);
            objects[QDBusObjectPath(characteristicPath)][characteristicInterface] = {
                { uuidKey, characteristic.uuid },
                { QStringLiteral("Service"), parent(servicePath) },
                { QStringLiteral("Flags"), characteristic.flags }
            };
            for (const QString &descriptor : characteristic.descriptors) {
                objects[QDBusObjectPath(numbered(characteristicPath, "desc", handle++))]
                       [descriptorInterface] = {
                           { uuidKey, descriptor },
                           { QStringLiteral("Characteristic"), parent(characteristicPath) },
                       };
            }
        }
    }
    return objects;
}
