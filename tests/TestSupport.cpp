#include "TestSupport.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QEvent>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <utility>

using Qt::StringLiterals::operator""_s;

namespace {

// Far more than anything takes, also under sanitizers on a busy machine.
constexpr std::chrono::seconds waitLimit(60);

} // namespace

bool waitFor(const std::function<bool()> &done)
{
    bool isTimeOver = false;
    QTimer limit;
    QObject::connect(&limit, &QTimer::timeout, &limit, [&isTimeOver] { isTimeOver = true; });
    limit.start(waitLimit);
    while (!done()) {
        if (isTimeOver)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

LogRecorder *LogRecorder::s_instance = nullptr;

LogRecorder::LogRecorder()
{
    s_instance = this;
    m_previous = qInstallMessageHandler(record);
}

LogRecorder::~LogRecorder()
{
    qInstallMessageHandler(m_previous);
    s_instance = nullptr;
}

void LogRecorder::record(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (qstrcmp(context.category, "default") != 0) {
        s_instance->m_previous(type, context, message);
        return;
    }
    const QMutexLocker locker(&s_instance->m_mutex);
    s_instance->m_lines.append(message);
    // Somebody may be waiting for this line.
    QCoreApplication::postEvent(qApp, new QEvent(QEvent::User));
}

QStringList LogRecorder::lines() const
{
    const QMutexLocker locker(&m_mutex);
    return m_lines;
}

QStringList LogRecorder::linesWith(const QString &text) const
{
    return lines().filter(text);
}

QStringList LogRecorder::take()
{
    const QMutexLocker locker(&m_mutex);
    return std::exchange(m_lines, {});
}

Lights::Lights()
{
    QDBusConnection::systemBus().connect(u"org.bluez"_s, QString(),
                                         u"org.freedesktop.DBus.Properties"_s,
                                         u"PropertiesChanged"_s, this, SLOT(onPropertiesChanged()));
}

QStringList Lights::order(const QString &name, const QVariantList &arguments)
{
    auto message = QDBusMessage::createMethodCall(u"org.example.CorvelKXLights"_s,
                                                  u"/org/example/CorvelKXLights"_s,
                                                  u"org.example.CorvelKXLights1"_s, name);
    message.setArguments(arguments);
    const QDBusMessage answer = QDBusConnection::systemBus().call(message);
    if (answer.type() != QDBusMessage::ReplyMessage)
        QTest::qFail(qPrintable(name + QLatin1String(": ") + answer.errorMessage()), __FILE__,
                     __LINE__);
    return answer.arguments().value(0).toStringList();
}

void Lights::set(const QString &address, const QString &key, const QString &value)
{
    order(u"set"_s, { address, key, value });
}

void Lights::restore()
{
    order(u"adapter"_s, { u"return"_s });
    order(u"adapter"_s, { u"on"_s });
    QVERIFY(waitFor([this] { return order(u"connected"_s).isEmpty(); }));
    order(u"reset"_s);
}

bool Lights::isConnected(const QString &address)
{
    return order(u"connected"_s).contains(address);
}

QStringList Lights::payloads(const QString &address)
{
    QStringList payloads = order(u"written"_s, { address });
    for (QString &payload : payloads)
        payload = payload.section(QLatin1Char(' '), 1);
    return payloads;
}
