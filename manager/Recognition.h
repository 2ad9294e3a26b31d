#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

/*!
    Interprets advertisements. Pure functions of the manufacturer data, which may contain anything,
    since any device nearby can send it. They may be called on any thread.
*/
namespace Recognition {

/*! What a platform that hides addresses reports instead. */
inline constexpr QLatin1String hiddenAddress("00:00:00:00:00:00");

/*!
    Returns the protocol type (an eDevProtocolType) of the last matching value in
    \a manufacturerValues, or -1 if none matches.
*/
int protocolType(const QList<QByteArray> &manufacturerValues);

/*!
    Returns the address at the end of the first value in \a manufacturerValues that has at least six
    bytes, or hiddenAddress if there is none. Lights of types 162 and 163 send it reversed.
*/
QString derivedAddress(const QList<QByteArray> &manufacturerValues, int protocolType);

/*! Returns the name to display for a light that advertises \a advertisedName. */
QString displayName(int protocolType, const QString &macAddr, const QString &advertisedName);

} // namespace Recognition
