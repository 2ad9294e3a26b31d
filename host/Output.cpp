#include "Output.h"

#include "Platform.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QTextStream>

#include <cstdio>

using Platform::Stream;

Output::Output(QObject *parent)
    : QObject(parent),
      m_isTerminal(Platform::isTerminal(Stream::Output) && Platform::isTerminal(Stream::Error)),
      m_hasColour(Platform::isTerminal(Stream::Output) && !qEnvironmentVariableIsSet("NO_COLOR"))
{
    m_out.open(stdout, QIODevice::WriteOnly);
}

void Output::report(const QString &name, const QJsonObject &fields, const QString &text)
{
    if (!m_json) {
        line(text.toUtf8());
        return;
    }
    QJsonObject object = fields;
    object.insert(QStringLiteral("event"), name);
    line(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

void Output::say(const QString &text)
{
    if (!m_json)
        line(text.toUtf8());
}

void Output::complain(const QString &sentence)
{
    if (m_json)
        report(QStringLiteral("error"), { { QStringLiteral("message"), sentence } }, {});
    live({});
    QTextStream(stderr) << QCoreApplication::applicationName() << ": " << sentence << Qt::endl;
}

void Output::live(const QString &text)
{
    if (!m_isTerminal || m_json || (text.isEmpty() && !m_hasLiveLine))
        return;
    QTextStream(stderr) << "\r\033[K" << text << Qt::flush;
    m_hasLiveLine = !text.isEmpty();
}

void Output::line(const QByteArray &text)
{
    live({});
    emit aboutToPrint();
    m_out.write(text + '\n');
    if (!m_out.flush())
        emit closed();
    emit printed();
}

QString Output::styled(const char *code, const QString &text) const
{
    return m_hasColour && !m_json
                   ? QStringLiteral("\033[%1m%2\033[0m").arg(QLatin1String(code), text)
                   : text;
}
