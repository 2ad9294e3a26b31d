#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

/*!
    What an advertisement means. Pure functions of the manufacturer data's values, which any device
    nearby can fill with anything; they may be called on any thread.
*/
namespace Recognition {

/*! The address that a platform reports in place of one that it hides. */
inline constexpr QLatin1String hiddenAddress("00:00:00:00:00:00");

/*!
    Returns the protocol type (an eDevProtocolType) that the last matching value of
    \a manufacturerValues stands for, or -1 where none matches.
*/
int protocolType(const QList<QByteArray> &manufacturerValues);

/*!
    Returns the address that ends the first of \a manufacturerValues with room for one, or
    hiddenAddress. Lights of the types 162 and 163 send theirs in reverse.
*/
QString derivedAddress(const QList<QByteArray> &manufacturerValues, int protocolType);

/*! Returns the name to show for a light that advertises itself as \a advertisedName. */
QString displayName(int protocolType, const QString &macAddr, const QString &advertisedName);

} // namespace Recognition
