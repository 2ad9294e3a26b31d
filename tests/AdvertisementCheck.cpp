#include "AdvertisementCheck.h"

#include "Recognition.h"

#include <QCoreApplication>
#include <QRegularExpression>

#include <algorithm>
#include <iterator>
#include <utility>

using Qt::StringLiterals::operator""_s;

namespace {

// The manager's tables are nobody's but its own; a template's explicit instantiation may name them.
template<typename Table, auto Member>
struct Opened
{
    friend auto tableOf(Table) { return Member; }
};
struct DeviceInfos
{
    friend auto tableOf(DeviceInfos);
};
struct ProtocolTypes
{
    friend auto tableOf(ProtocolTypes);
};
template struct Opened<DeviceInfos, &BLEManager::m_deviceInfoMap>;
template struct Opened<ProtocolTypes, &BLEManager::m_devProtocolTypeHash>;

// What comes before the values below, so that bytes without a plan reach the far corners too.
constexpr const char *beginnings[] = { "",         "\x3C\x01", "\x3C\x01", "\x3C\x03",
                                       "\x3C\x03", "\x3C\x05", "\x3C",     "\x3C\x02" };

class Bytes
{
public:
    explicit Bytes(QByteArray bytes) : m_rest(std::move(bytes)) { }

    int next() { return static_cast<uchar>(take(1).append('\0').at(0)); }
    QByteArray take(qsizetype count)
    {
        QByteArray taken = m_rest.left(count);
        m_rest = m_rest.mid(count);
        return taken;
    }

private:
    QByteArray m_rest;
};

QBluetoothDeviceInfo deviceFrom(Bytes &bytes)
{
    const int shape = bytes.next();
    quint64 address = 0;
    if (shape & 1) {
        const QByteArray given = bytes.take(6);
        for (const char byte : given)
            address = address << 8 | static_cast<uchar>(byte);
    }
    const QByteArray nameBytes = bytes.take(bytes.next());
    QString name;
    switch (shape & 6) {
    case 2:
        name = QString::fromLatin1(nameBytes);
        break;
    case 4:
        name = QString::fromUtf8(nameBytes);
        break;
    case 6: // lone halves of pairs among them
        for (qsizetype i = 1; i < nameBytes.size(); i += 2)
            name += QChar(uchar(nameBytes.at(i - 1)), uchar(nameBytes.at(i)));
        break;
    }
    if (shape & 8)
        name.prepend(u"Corvel light"_s);

    QBluetoothDeviceInfo device(QBluetoothAddress(address), name, 0);
    for (int i = 0; i < shape >> 6; ++i) {
        const int kind = bytes.next();
        device.setManufacturerData(static_cast<quint16>(kind >> 3),
                                   beginnings[kind & 7] + bytes.take(bytes.next() & 31));
    }
    return device;
}

constexpr int types[] = { -1, 1, 2, 3, 5, 6, 7, 162, 163, 1001 };

} // namespace

AdvertisementCheck::AdvertisementCheck()
{
    QObject::connect(&m_manager, &BLEManager::sigDeviceDiscovered, &m_manager,
                     [this](int type, const QString &address, const QString &name) {
                         m_announced.append({ type, address, name });
                     });
}

QString AdvertisementCheck::run(const QByteArray &bytes)
{
    Bytes rest(bytes);
    QString wrong = receive(deviceFrom(rest));
    if (wrong.isEmpty())
        wrong = receive(deviceFrom(rest));
    const auto known = m_firstTypes.keys();
    for (const QString &address : known)
        m_manager.removeDevice(address);
    m_firstTypes.clear();
    if (wrong.isEmpty())
        wrong = compareTables();
    m_log.take();
    QCoreApplication::sendPostedEvents();
    return wrong;
}

QString AdvertisementCheck::receive(const QBluetoothDeviceInfo &device)
{
    m_announced.clear();
    QMetaObject::invokeMethod(&m_manager, "slotDeviceDiscovered", Qt::DirectConnection,
                              Q_ARG(QBluetoothDeviceInfo, device));

    const QList<QByteArray> values = device.manufacturerData().values();
    const int type = Recognition::protocolType(values);
    if (std::find(std::begin(types), std::end(types), type) == std::end(types))
        return u"type %1"_s.arg(type);
    const QString derived = Recognition::derivedAddress(values, type);
    static const QRegularExpression pairs(u"\\A[0-9A-F]{2}(:[0-9A-F]{2}){5}\\z"_s);
    if (!pairs.match(derived).hasMatch())
        return u"derived address %1"_s.arg(derived);
    const QString address = device.address().isNull() ? derived : device.address().toString();
    const bool isSupported = type != -1;
    const bool isAnnounced = isSupported && address != Recognition::hiddenAddress;
    if (m_announced.size() != (isAnnounced ? 1 : 0))
        return u"announced %1 times"_s.arg(m_announced.size());
    QString wrong = compareLog(isSupported);
    if (!isAnnounced || !wrong.isEmpty())
        return wrong;

    const auto &[toldType, toldAddress, toldName] = m_announced.constFirst();
    if (toldType != type || toldAddress != address)
        return u"announced as %1 %2"_s.arg(toldType).arg(toldAddress);
    const QString suffix = address.mid(12, 2) + address.mid(15, 2);
    const QString made = (type == 1001 ? u"Corvel J7300(%1)"_s : u"Corvel light(%1)"_s).arg(suffix);
    const bool keepsName = type != 1001 && device.name().startsWith(u"Corvel light"_s);
    if (toldName != (keepsName ? device.name() : made))
        return u"name \"%1\" became \"%2\""_s.arg(device.name(), toldName);
    if (!m_firstTypes.contains(address))
        m_firstTypes.insert(address, type);
    return compareTables();
}

QString AdvertisementCheck::compareTables() const
{
    const auto &infos = m_manager.*tableOf(DeviceInfos());
    const auto &protocolTypes = m_manager.*tableOf(ProtocolTypes());
    if (infos.size() != m_firstTypes.size() || protocolTypes.size() != m_firstTypes.size())
        return u"the tables know more lights, or fewer"_s;
    for (auto light = m_firstTypes.cbegin(); light != m_firstTypes.cend(); ++light) {
        if (!infos.contains(light.key()) || protocolTypes.value(light.key()) != *light)
            return u"%1 is not remembered as it was announced"_s.arg(light.key());
    }
    return {};
}

// Whatever a name contains, the log keeps its lines, and moves no cursor.
QString AdvertisementCheck::compareLog(bool isSupported)
{
    const QStringList lines = m_log.take();
    const int expected = isSupported ? (m_announced.isEmpty() ? 5 : 4) : 2;
    if (lines.size() != expected)
        return u"%1 lines in the log"_s.arg(lines.size());
    for (const QString &line : lines) {
        if (std::any_of(line.cbegin(), line.cend(),
                        [](QChar c) { return c.category() == QChar::Other_Control; }))
            return u"control characters in the log"_s;
    }
    return {};
}
