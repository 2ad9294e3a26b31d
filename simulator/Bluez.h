#pragma once

#include "Light.h"

#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QMap>
#include <QVariantMap>

/*!
    The part of BlueZ's D-Bus interface that both BluetoothDaemon and AirLights need.
*/
namespace Bluez {

constexpr QLatin1String service("org.bluez");
constexpr QLatin1String adapterInterface("org.bluez.Adapter1");
constexpr QLatin1String deviceInterface("org.bluez.Device1");
constexpr QLatin1String serviceInterface("org.bluez.GattService1");
constexpr QLatin1String characteristicInterface("org.bluez.GattCharacteristic1");
constexpr QLatin1String descriptorInterface("org.bluez.GattDescriptor1");
constexpr QLatin1String propertiesInterface("org.freedesktop.DBus.Properties");
constexpr QLatin1String objectManagerInterface("org.freedesktop.DBus.ObjectManager");

constexpr QLatin1String connectedKey("Connected");
constexpr QLatin1String poweredKey("Powered");
constexpr QLatin1String uuidKey("UUID");

using Interfaces = QMap<QString, QVariantMap>;
using ManagedObjects = QMap<QDBusObjectPath, Interfaces>;
using ManufacturerData = QMap<quint16, QDBusVariant>;

/*! Call this before any of these types is sent over the bus. */
void registerTypes();

QString error(const char *name);

/*! The objects of \a services below \a path, in the order of the services. */
ManagedObjects gattObjects(const QString &path, const QList<GattService> &services);

} // namespace Bluez

Q_DECLARE_METATYPE(Bluez::ManufacturerData)
