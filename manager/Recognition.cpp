#include "Recognition.h"

#include "DevProtocolType.h"

#include <algorithm>

namespace {

constexpr qsizetype minimumLength = 7;
constexpr qsizetype productCodeOffset = 4;
constexpr qsizetype addressLength = 6;

int protocolTypeOfValue(const QByteArray &value)
{
    if (value.size() < minimumLength)
        return -1;

    const auto productCode = static_cast<quint8>(value.at(productCodeOffset));
    if (value.startsWith("\x3C\x01")) {
        switch (productCode) {
        case DevProtocol1:
        case DevProtocol2:
        case DevProtocol3:
        case DevProtocol5:
        case DevProtocol6:
        case DevProtocol7:
            return productCode;
        default:
            return -1;
        }
    }
    if (value.startsWith("\x3C\x05"))
        return productCode == 0xA7 ? DevProtocol1001 : -1;
    if (value.startsWith("\x3C\x03")) {
        if (productCode == 0xA3)
            return DevProtocol163;
        if (productCode == 0xA2)
            return DevProtocol162;
    }
    return -1;
}

} // namespace

int Recognition::protocolType(const QList<QByteArray> &manufacturerValues)
{
    int type = -1;
    for (const QByteArray &value : manufacturerValues) {
        const int matched = protocolTypeOfValue(value);
        if (matched != -1)
            type = matched;
    }
    return type;
}

QString Recognition::derivedAddress(const QList<QByteArray> &manufacturerValues, int protocolType)
{
    const auto value = std::find_if(manufacturerValues.cbegin(), manufacturerValues.cend(),
                                    [](const QByteArray &candidate) {
                                        return candidate.size() >= addressLength;
                                    });
    if (value == manufacturerValues.cend())
        return hiddenAddress;

    QByteArray address = value->last(addressLength);
    if (protocolType == DevProtocol162 || protocolType == DevProtocol163)
        std::reverse(address.begin(), address.end());
    return QString::fromLatin1(address.toHex(':')).toUpper();
}

QString Recognition::displayName(int protocolType, const QString &macAddr,
                                 const QString &advertisedName)
{
    const bool isJ7300 = protocolType == DevProtocol1001;
    if (!isJ7300 && advertisedName.startsWith(QLatin1String("Corvel light")))
        return advertisedName;

    const QString suffix = macAddr.right(5).remove(QLatin1Char(':'));
    return QStringLiteral("%1(%2)").arg(isJ7300 ? QLatin1String("Corvel J7300")
                                                : QLatin1String("Corvel light"),
                                        suffix);
}
