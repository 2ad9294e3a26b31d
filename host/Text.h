#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <chrono>
#include <optional>

/*! \a text with all unprintable characters replaced by \\uXXXX. */
QString printable(const QString &text);

/*! \a data as hexadecimal pairs. */
QString toHex(const QByteArray &data);
/*! The JSON fields for a light, and for a light and a payload. */
QJsonObject about(const QString &address);
QJsonObject about(const QString &address, const QByteArray &data);

/*! Converts hexadecimal pairs to bytes; std::nullopt if \a hex is empty or anything else. */
std::optional<QByteArray> bytesFromHex(const QString &hex);
/*! The error message for \a text, which is not a payload. */
QString notHex(const QString &text);

/*! Converts a number of seconds from 0 to 86400; std::nullopt if \a text is anything else. */
std::optional<std::chrono::milliseconds> fromSeconds(const QString &text);

/*! Writes the plugin's debug log to standard error, or switches the log and all warnings off. */
void showLog(bool show);
/*! Switches them on or off later. While off, the log costs the plugin nothing. */
void enableLog(bool enable);
