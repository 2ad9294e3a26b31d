#include "Lights.h"

#include <QDBusConnection>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <cstdlib>

using Qt::StringLiterals::operator""_s;

std::chrono::milliseconds scaled(std::chrono::milliseconds time)
{
    double load = 0;
    getloadavg(&load, 1);
    const double factor = std::max(1.0, load / (2 * QThread::idealThreadCount()));
    return std::chrono::duration_cast<std::chrono::milliseconds>(time * factor * slowness());
}

Lights::Lights()
{
    QDBusConnection::systemBus().connect(u"org.bluez"_s, QString(),
                                         u"org.freedesktop.DBus.Properties"_s,
                                         u"PropertiesChanged"_s, this, SLOT(onPropertiesChanged()));
}

QDBusMessage Lights::message(const QString &name, const QVariantList &arguments)
{
    auto message = QDBusMessage::createMethodCall(u"org.example.CorvelKXLights"_s,
                                                  u"/org/example/CorvelKXLights"_s,
                                                  u"org.example.CorvelKXLights1"_s, name);
    message.setArguments(arguments);
    return message;
}

QDBusMessage Lights::ask(const QString &name, const QVariantList &arguments)
{
    return QDBusConnection::systemBus().call(message(name, arguments));
}

QStringList Lights::command(const QString &name, const QVariantList &arguments)
{
    const QDBusMessage answer = ask(name, arguments);
    if (answer.type() != QDBusMessage::ReplyMessage)
        QTest::qFail(qPrintable(name + QLatin1String(": ") + answer.errorMessage()), __FILE__,
                     __LINE__);
    return answer.arguments().value(0).toStringList();
}

void Lights::set(const QString &address, const QString &key, const QString &value)
{
    command(u"set"_s, { address, key, value });
}

void Lights::restore()
{
    command(u"adapter"_s, { u"return"_s });
    command(u"adapter"_s, { u"on"_s });
    QVERIFY(waitUntilFree());
    command(u"reset"_s);
}

bool Lights::isConnected(const QString &address)
{
    return command(u"connected"_s).contains(address);
}

bool Lights::waitUntilFree()
{
    return waitFor([this] { return command(u"connected"_s).isEmpty(); });
}

QStringList Lights::payloads(const QString &address)
{
    QStringList payloads = command(u"written"_s, { address });
    for (QString &payload : payloads)
        payload = payload.section(QLatin1Char(' '), 1);
    return payloads;
}
