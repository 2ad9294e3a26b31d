#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <chrono>
#include <optional>

/*! \a text with everything that is not printable spelt as \\uXXXX. */
QString printable(const QString &text);

/*! \a data as a row of hexadecimal pairs. */
QString toHex(const QByteArray &data);
/*! The fields of a JSON object about a light, or about bytes that it sends or is sent. */
QJsonObject about(const QString &address);
QJsonObject about(const QString &address, const QByteArray &data);

/*! The bytes that \a hex spells in pairs, or nothing where it spells none. */
std::optional<QByteArray> bytesFromHex(const QString &hex);
/*! The sentence about \a text, which is no payload. */
QString notHex(const QString &text);

/*! The time that \a text tells in seconds, up to a day, or nothing where it tells none. */
std::optional<std::chrono::milliseconds> fromSeconds(const QString &text);

/*! Sends the debug log to the standard error output, or switches it and all warnings off. */
void showLog(bool show);
/*! The same for what is written from now on; costs the plugin nothing while it is off. */
void enableLog(bool enable);
