#include "AdvertisementCheck.h"

#include <QCoreApplication>
#include <QRegularExpression>

#include <algorithm>
#include <utility>

using Qt::StringLiterals::operator""_s;

namespace {

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
    // Random bytes would rarely begin like a light's.
    static const QList<QByteArray> beginnings { "",         "\x3C",     "\x3C\x02", "\x3C\x01",
                                                "\x3C\x01", "\x3C\x03", "\x3C\x03", "\x3C\x05" };
    const int shape = bytes.next();
    quint64 address = 0;
    if (shape & 1)
        address = bytes.take(6).toHex().toULongLong(nullptr, 16);
    const QByteArray nameBytes = bytes.take(bytes.next() & ~1);
    QString name = shape & 2 ? QString::fromUtf8(nameBytes) : QString();
    if (shape & 4) // any UTF-16, also lone surrogates
        name = QString(reinterpret_cast<const QChar *>(nameBytes.constData()),
                       nameBytes.size() / 2);
    if (shape & 8)
        name.prepend(u"Corvel light"_s);

    QBluetoothDeviceInfo device(QBluetoothAddress(address), name, 0);
    for (int i = 0; i < shape >> 6; ++i) {
        const int kind = bytes.next();
        device.setManufacturerData(static_cast<quint16>(kind >> 3),
                                   beginnings.at(kind & 7) + bytes.take(bytes.next() & 31));
    }
    return device;
}

} // namespace

AdvertisementCheck::AdvertisementCheck()
{
    QObject::connect(&m_manager, &BLEManager::sigDeviceDiscovered, &m_manager,
                     [this](int type, const QString &address, const QString &name) {
                         m_discoveries.append({ type, address, name });
                     });
}

QString AdvertisementCheck::run(const QByteArray &bytes)
{
    Bytes rest(bytes);
    QString wrong = receive(deviceFrom(rest));
    if (wrong.isEmpty())
        wrong = receive(deviceFrom(rest));
    for (const Discovery &discovery : std::as_const(m_discoveries))
        m_manager.removeDevice(discovery.address);
    m_discoveries.clear();
    m_log.take();
    QCoreApplication::sendPostedEvents();
    return wrong;
}

QString AdvertisementCheck::receive(const QBluetoothDeviceInfo &device)
{
    const auto before = m_discoveries.size();
    QMetaObject::invokeMethod(&m_manager, "slotDeviceDiscovered", Qt::DirectConnection,
                              Q_ARG(QBluetoothDeviceInfo, device));
    const auto count = m_discoveries.size() - before;
    // Whatever the name contains, it adds no line and no control character to the log.
    const QString log = m_log.take().join(u'\n');
    const auto lines = log.count(u'\n') + 1;
    if (count == 0 ? lines != 2 && lines != 5 : count > 1 || lines != 4)
        return u"%1 discoveries and %2 lines in the log"_s.arg(count).arg(lines);
    if (std::any_of(log.cbegin(), log.cend(),
                    [](QChar c) { return c != u'\n' && c.category() == QChar::Other_Control; }))
        return u"control characters in the log"_s;
    if (count == 0)
        return {};

    const auto &[type, address, name] = m_discoveries.constLast();
    const QList<int> types { 1, 2, 3, 5, 6, 7, 162, 163, 1001 };
    if (!types.contains(type))
        return u"type %1"_s.arg(type);
    static const QRegularExpression pairs(u"\\A[0-9A-F]{2}(:[0-9A-F]{2}){5}\\z"_s);
    if (!pairs.match(address).hasMatch() || QBluetoothAddress(address).isNull()
        || (!device.address().isNull() && address != device.address().toString()))
        return u"address %1"_s.arg(address);
    QString expected = device.name();
    if (type == 1001 || !expected.startsWith(u"Corvel light"_s))
        expected = (type == 1001 ? u"Corvel J7300(%1%2)"_s : u"Corvel light(%1%2)"_s)
                           .arg(address.mid(12, 2), address.mid(15, 2));
    return name == expected ? QString() : u"name \"%1\" became \"%2\""_s.arg(device.name(), name);
}
