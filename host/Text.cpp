#include "Text.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QTextStream>

#include <cstdlib>

namespace {

constexpr double secondsOfADay = 86400;

// Never deleted, because Qt may log until the process ends.
QString *programName = nullptr;

// Translates Qt's fatal messages to sentences that help a user.
QString sentenceFor(const QString &fatalMessage)
{
    if (fatalMessage.startsWith(QLatin1String(
                "QThread: Destroyed"))) // ~QThread, while the plugin waits for Bluetooth
        return QStringLiteral("The Bluetooth service does not answer.");
    if (fatalMessage.startsWith(QLatin1String("This application failed to start")))
        return QStringLiteral("There is no display to show a window on.");
    return fatalMessage;
}

void logToStandardError(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtFatalMsg) { // otherwise Qt would abort
        QTextStream(stderr) << *programName << ": " << sentenceFor(message) << Qt::endl;
        std::_Exit(EXIT_FAILURE);
    }
    QTextStream(stderr) << message << Qt::endl;
}

} // namespace

QString printable(const QString &text)
{
    QString safe;
    const auto codePoints = text.toUcs4();
    for (const char32_t codePoint : codePoints) {
        if (QChar::isPrint(codePoint))
            safe += QString::fromUcs4(&codePoint, 1);
        else
            safe += QStringLiteral("\\u%1").arg(uint(codePoint), 4, 16, QLatin1Char('0'));
    }
    return safe;
}

QString toHex(const QByteArray &data)
{
    return QString::fromLatin1(data.toHex());
}

QJsonObject about(const QString &address)
{
    return { { QStringLiteral("address"), address } };
}

QJsonObject about(const QString &address, const QByteArray &data)
{
    QJsonObject fields = about(address);
    fields.insert(QStringLiteral("data"), toHex(data));
    return fields;
}

std::optional<QByteArray> bytesFromHex(const QString &hex)
{
    static const QRegularExpression pairs(QStringLiteral("\\A([0-9A-Fa-f]{2})+\\z"));
    if (!pairs.match(hex).hasMatch())
        return std::nullopt;
    return QByteArray::fromHex(hex.toLatin1());
}

QString notHex(const QString &text)
{
    return QStringLiteral("\"%1\" is not a payload: write hexadecimal pairs, such as 01ff.")
            .arg(printable(text));
}

std::optional<std::chrono::milliseconds> fromSeconds(const QString &text)
{
    bool isNumber = false;
    const double value = text.toDouble(&isNumber);
    if (!isNumber || !(value >= 0 && value <= secondsOfADay))
        return std::nullopt;
    return std::chrono::milliseconds(qRound64(value * 1000));
}

void showLog(bool show)
{
    programName = new QString(QCoreApplication::applicationName());
    qInstallMessageHandler(logToStandardError);
    enableLog(show);
}

void enableLog(bool enable)
{
    QLoggingCategory::setFilterRules(
            enable ? QStringLiteral("*.debug=false\ndefault.debug=true")
                   : QStringLiteral("*.debug=false\n*.info=false\n*.warning=false"));
}
