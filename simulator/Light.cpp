#include "Light.h"

#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <algorithm>
#include <functional>
#include <iterator>
#include <utility>

namespace {

using Setter = std::function<bool(Light &, const QJsonValue &)>;

struct Setting
{
    Setter apply;
    QString expected;
};

constexpr QLatin1String readFlag("read");
constexpr QLatin1String writeFlag("write");
constexpr QLatin1String commandFlag("write-without-response");
constexpr QLatin1String notifyFlag("notify");
constexpr QLatin1String configurationUuid("00002902-0000-1000-8000-00805f9b34fb");

QString bluetoothUuid(const char *shortUuid)
{
    return QLatin1String(shortUuid) + QStringLiteral("-0000-1000-8000-00805f9b34fb");
}

QString vendorUuid(const char *shortUuid)
{
    return QLatin1String(shortUuid) + QStringLiteral("-0451-4000-b000-000000000000");
}

struct TypeCode
{
    int type;
    quint8 family;
    quint8 productCode;
};

constexpr TypeCode typeCodes[] = {
    { 1, 0x01, 0x01 },   { 2, 0x01, 0x02 },   { 3, 0x01, 0x03 },
    { 5, 0x01, 0x05 },   { 6, 0x01, 0x06 },   { 7, 0x01, 0x07 },
    { 162, 0x03, 0xA2 }, { 163, 0x03, 0xA3 }, { 1001, 0x05, 0xA7 },
};

const TypeCode *codeOf(int type)
{
    const auto *code = std::find_if(std::begin(typeCodes), std::end(typeCodes),
                                    [type](const TypeCode &c) { return c.type == type; });
    return code == std::end(typeCodes) ? nullptr : code;
}

QByteArray addressBytes(const QString &address)
{
    return QByteArray::fromHex(address.toLatin1());
}

bool isAddress(const QString &text)
{
    static const QRegularExpression address(QStringLiteral("\\A[0-9A-F]{2}(:[0-9A-F]{2}){5}\\z"));
    return address.match(text).hasMatch();
}

bool assignText(QString &member, const QJsonValue &value, bool (*valid)(const QString &))
{
    if (!value.isString() || !valid(value.toString()))
        return false;
    member = value.toString();
    return true;
}

bool assignWords(QStringList &member, const QJsonValue &value)
{
    const QJsonArray words = value.isString() ? QJsonArray { value } : value.toArray();
    if (!value.isArray() && !value.isString())
        return false;
    QStringList texts;
    for (const auto &word : words) {
        if (!word.isString())
            return false;
        texts.append(word.toString());
    }
    member = texts;
    return true;
}

Setting flagSetting(bool Light::*member)
{
    return { [member](Light &light, const QJsonValue &value) {
                light.*member = value.toBool();
                return value.isBool();
            },
             QStringLiteral("true or false") };
}

Setting delaySetting(int Light::*member)
{
    return { [member](Light &light, const QJsonValue &value) {
                light.*member = value.toInt(-1);
                return light.*member >= 0;
            },
             QStringLiteral("a number of milliseconds") };
}

Setting refusalSetting(bool Light::*member)
{
    return { [member](Light &light, const QJsonValue &value) {
                light.*member = value == QLatin1String("refuse");
                return light.*member || value == QLatin1String("accept");
            },
             QStringLiteral("\"accept\" or \"refuse\"") };
}

bool setConnect(Light &light, const QJsonValue &value)
{
    static const QHash<QString, Light::Connect> ways {
        { QStringLiteral("accept"), Light::Connect::Accept },
        { QStringLiteral("refuse"), Light::Connect::Refuse },
        { QStringLiteral("hang"), Light::Connect::Hang },
        { QStringLiteral("abort"), Light::Connect::Abort },
        { QStringLiteral("away"), Light::Connect::Away },
    };
    const auto way = ways.constFind(value.toString());
    if (way == ways.constEnd())
        return false;
    light.connect = *way;
    return true;
}

bool setType(Light &light, const QJsonValue &value)
{
    light.type = value.toInt(-1);
    light.manufacturer.clear();
    return codeOf(light.type) != nullptr;
}

bool setManufacturer(Light &light, const QJsonValue &value)
{
    const auto bytes = value.isString() ? bytesFromHex(value.toString()) : std::nullopt;
    light.type = -1;
    light.manufacturer = bytes.value_or(QByteArray());
    return bytes.has_value();
}

bool setCompany(Light &light, const QJsonValue &value)
{
    const int company = value.toInt(-1);
    light.company = static_cast<quint16>(company);
    return company >= 0 && company <= 0xFFFF;
}

bool isLayout(const QString &text)
{
    return QStringList { QStringLiteral("fff0"), QStringLiteral("a002"), QStringLiteral("both"),
                         QStringLiteral("none") }
            .contains(text);
}

const QHash<QString, Setting> &settings()
{
    static const QHash<QString, Setting> table {
        { QStringLiteral("address"),
          { [](Light &light, const QJsonValue &v) {
               return assignText(light.address, v, isAddress);
           },
            QStringLiteral("six upper-case hexadecimal pairs separated by colons") } },
        { QStringLiteral("name"),
          { [](Light &light, const QJsonValue &v) {
               return assignText(light.name, v, [](const QString &) { return true; });
           },
            QStringLiteral("text") } },
        { QStringLiteral("layout"),
          { [](Light &light, const QJsonValue &v) { return assignText(light.layout, v, isLayout); },
            QStringLiteral("\"fff0\", \"a002\", \"both\" or \"none\"") } },
        { QStringLiteral("omit"),
          { [](Light &light, const QJsonValue &v) { return assignWords(light.omit, v); },
            QStringLiteral("a list of UUID prefixes") } },
        { QStringLiteral("writeFlags"),
          { [](Light &light, const QJsonValue &v) { return assignWords(light.writeFlags, v); },
            QStringLiteral("a list of characteristic flags") } },
        { QStringLiteral("type"),
          { setType, QStringLiteral("one of 1, 2, 3, 5, 6, 7, 162, 163 and 1001") } },
        { QStringLiteral("manufacturer"),
          { setManufacturer, QStringLiteral("hexadecimal pairs") } },
        { QStringLiteral("company"), { setCompany, QStringLiteral("a number up to 65535") } },
        { QStringLiteral("connect"),
          { setConnect,
            QStringLiteral("\"accept\", \"refuse\", \"hang\", \"abort\" or \"away\"") } },
        { QStringLiteral("reads"), refusalSetting(&Light::refuseReads) },
        { QStringLiteral("writes"), refusalSetting(&Light::refuseWrites) },
        { QStringLiteral("authentication"), flagSetting(&Light::authentication) },
        { QStringLiteral("authenticationFirst"), flagSetting(&Light::authenticationFirst) },
        { QStringLiteral("advertising"), flagSetting(&Light::advertising) },
        { QStringLiteral("echo"), flagSetting(&Light::echo) },
        { QStringLiteral("resolve"), flagSetting(&Light::resolve) },
        { QStringLiteral("latency"), delaySetting(&Light::latency) },
        { QStringLiteral("disconnectDelay"), delaySetting(&Light::disconnectDelay) },
    };
    return table;
}

} // namespace

QString Light::set(const QString &key, const QJsonValue &value)
{
    const auto setting = settings().constFind(key);
    if (setting == settings().constEnd()) {
        QStringList known = settings().keys();
        known.sort();
        return QStringLiteral("there is no key \"%1\"; the keys are %2")
                .arg(key, known.join(QLatin1String(", ")));
    }
    Light changed = *this;
    if (!setting->apply(changed, value))
        return QStringLiteral("\"%1\" must be %2").arg(key, setting->expected);
    *this = changed;
    return {};
}

QString Light::apply(const QJsonObject &settings)
{
    for (auto setting = settings.begin(); setting != settings.end(); ++setting) {
        QString error = set(setting.key(), setting.value());
        if (!error.isEmpty())
            return error;
    }
    if (address.isEmpty())
        return QStringLiteral("\"address\" is missing");
    return {};
}

QString Light::alias() const
{
    return name.isEmpty() ? QString(address).replace(QLatin1Char(':'), QLatin1Char('-')) : name;
}

QByteArray Light::advertisedData() const
{
    const TypeCode *code = codeOf(type);
    if (!code)
        return manufacturer;

    QByteArray bytes(12, '\0');
    bytes[0] = '\x3C';
    bytes[1] = static_cast<char>(code->family);
    bytes[4] = static_cast<char>(code->productCode);
    QByteArray ownAddress = addressBytes(address);
    if (code->family == 0x03)
        std::reverse(ownAddress.begin(), ownAddress.end());
    return bytes.replace(6, 6, ownAddress);
}

QList<GattService> Light::services() const
{
    QList<GattService> all {
        { bluetoothUuid("0000180a"), { { bluetoothUuid("00002a29"), { readFlag }, {} } } },
    };
    if (layout == QLatin1String("a002") || layout == QLatin1String("both")) {
        all.append({ bluetoothUuid("0000a002"),
                     { { bluetoothUuid("0000c304"), { writeFlag }, {} },
                       { bluetoothUuid("0000c305"), { notifyFlag }, { configurationUuid } } } });
    }
    if (layout == QLatin1String("fff0") || layout == QLatin1String("both")) {
        all.append({ bluetoothUuid("0000fff0"),
                     { { bluetoothUuid("0000fff1"), { notifyFlag }, { configurationUuid } },
                       { bluetoothUuid("0000fff2"), { commandFlag, writeFlag }, {} } } });
    }
    if (authentication) {
        all.insert(authenticationFirst ? 0 : all.size(),
                   { vendorUuid("f000ffc0"),
                     { { vendorUuid("f000ffc1"), { writeFlag, notifyFlag }, { configurationUuid } },
                       { vendorUuid("f000ffc2"), { readFlag, commandFlag }, {} } } });
    }

    const auto omitted = [this](const QString &uuid) {
        return std::any_of(omit.cbegin(), omit.cend(),
                           [&uuid](const QString &prefix) { return uuid.startsWith(prefix); });
    };
    QList<GattService> present;
    for (const GattService &service : std::as_const(all)) {
        if (omitted(service.uuid))
            continue;
        GattService kept { service.uuid, {} };
        for (const GattCharacteristic &offered : service.characteristics) {
            if (omitted(offered.uuid))
                continue;
            GattCharacteristic characteristic = offered;
            characteristic.descriptors.removeIf(omitted);
            const bool writable = characteristic.flags.contains(writeFlag)
                                  || characteristic.flags.contains(commandFlag);
            if (writable && !writeFlags.isEmpty()) {
                characteristic.flags.removeAll(writeFlag);
                characteristic.flags.removeAll(commandFlag);
                characteristic.flags += writeFlags;
            }
            kept.characteristics.append(characteristic);
        }
        present.append(kept);
    }
    return present;
}

QList<Light> defaultLights()
{
    const auto light = [](int type, const char *name, const char *layout, bool authentication) {
        Light l;
        l.type = type;
        l.address = QStringLiteral("C0:FF:EE:00:00:%1")
                            .arg(int(codeOf(type)->productCode), 2, 16, QLatin1Char('0'))
                            .toUpper();
        l.name = QString::fromLatin1(name);
        l.layout = QString::fromLatin1(layout);
        l.authentication = authentication;
        return l;
    };
    const auto foreign = [](const char *address, const char *name, const char *manufacturer) {
        Light l;
        l.address = QString::fromLatin1(address);
        l.name = QString::fromLatin1(name);
        l.layout = QStringLiteral("none");
        l.manufacturer = QByteArray::fromHex(manufacturer);
        return l;
    };
    return {
        light(1, "", "fff0", false),
        light(2, "Desk", "a002", false),
        light(3, "Corvel light(DM41)", "fff0", true),
        light(5, "Corvel light(Hall)", "a002", true),
        light(6, "", "both", false),
        light(7, "Corvel light(Studio)", "fff0", false),
        light(162, "", "a002", false),
        light(163, "Corvel light(Roof)", "fff0", true),
        light(1001, "Corvel light(J)", "a002", true),
        foreign("D0:0D:00:00:00:01", "Kitchen scale", "1002030405060708"),
        foreign("D0:0D:00:00:00:02", "Step counter", ""),
        // Type 4 of the same family, which hosts must ignore.
        foreign("D0:0D:00:00:00:04", "Corvel light(Old)", "3c010000040000000000"),
    };
}

QList<Light> crowdOfLights(int count)
{
    QList<Light> lights;
    for (int i = 0; i < count; ++i) {
        const TypeCode &code = typeCodes[static_cast<std::size_t>(i) % std::size(typeCodes)];
        Light light;
        light.type = code.type;
        light.address = QStringLiteral("C0:FF:EE:01:%1:%2")
                                .arg(i / 256, 2, 16, QLatin1Char('0'))
                                .arg(i % 256, 2, 16, QLatin1Char('0'))
                                .toUpper();
        light.layout = i % 2 ? QStringLiteral("a002") : QStringLiteral("fff0");
        lights.append(light);
    }
    return lights;
}

QList<Light> lightsFromFile(const QString &fileName, QString *error)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(fileName, file.errorString());
        return {};
    }
    const QByteArray text = file.readAll();
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        const auto line = text.left(parseError.offset).count('\n') + 1;
        *error = QStringLiteral("%1:%2: %3")
                         .arg(fileName, QString::number(line), parseError.errorString());
        return {};
    }
    if (!document.isArray() || document.array().isEmpty()) {
        *error = QStringLiteral("%1: a light file is a list of at least one light").arg(fileName);
        return {};
    }

    QList<Light> lights;
    const QJsonArray array = document.array();
    for (const auto &entry : array) {
        const QJsonValue value = entry;
        Light light;
        QString wrong = value.isObject() ? light.apply(value.toObject())
                                         : QStringLiteral("a light is an object");
        const bool known = std::any_of(lights.cbegin(), lights.cend(), [&light](const Light &l) {
            return l.address == light.address;
        });
        if (wrong.isEmpty() && known)
            wrong = QStringLiteral("%1 is there twice").arg(light.address);
        if (!wrong.isEmpty()) {
            *error = QStringLiteral("%1: light %2: %3")
                             .arg(fileName, QString::number(lights.size() + 1), wrong);
            return {};
        }
        lights.append(light);
    }
    return lights;
}

Light lightFromText(const QString &text, QString *error)
{
    QJsonObject settings;
    const QStringList pairs = text.split(QLatin1Char(','), Qt::SkipEmptyParts);
    for (const QString &pair : pairs) {
        const auto equals = pair.indexOf(QLatin1Char('='));
        settings.insert(pair.left(equals), jsonValueFromText(pair.mid(equals + 1)));
    }
    Light light;
    *error = light.apply(settings);
    return light;
}

std::optional<QByteArray> bytesFromHex(const QString &text)
{
    static const QRegularExpression pairs(QStringLiteral("\\A([0-9A-Fa-f]{2})*\\z"));
    if (!pairs.match(text).hasMatch())
        return std::nullopt;
    return QByteArray::fromHex(text.toLatin1());
}

QJsonValue jsonValueFromText(const QString &text)
{
    const auto document = QJsonDocument::fromJson("[" + text.toUtf8() + "]");
    return document.array().size() == 1 ? document.array().at(0) : QJsonValue(text);
}
