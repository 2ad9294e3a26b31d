#include "TestSupport.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QEvent>
#include <QFile>
#include <QRandomGenerator>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

using Qt::StringLiterals::operator""_s;

namespace {

// Far more than anything takes, also under sanitizers on a busy machine.
constexpr std::chrono::minutes waitLimit(2);

} // namespace

std::chrono::milliseconds scaled(std::chrono::milliseconds time)
{
    double load = 0;
    getloadavg(&load, 1);
    const double factor = std::max(1.0, load / (2 * QThread::idealThreadCount()));
    return std::chrono::duration_cast<std::chrono::milliseconds>(time * factor);
}

bool waitFor(const std::function<bool()> &done, int pollInterval)
{
    bool isTimeOver = false;
    QTimer limit;
    QObject::connect(&limit, &QTimer::timeout, &limit, [&isTimeOver] { isTimeOver = true; });
    limit.start(waitLimit);
    QTimer tick;
    if (pollInterval > 0)
        tick.start(pollInterval);
    while (!done()) {
        if (isTimeOver)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

quint32 randomSeed()
{
    bool isGiven = false;
    const int given = qEnvironmentVariableIntValue("CORVELKX_SEED", &isGiven);
    const quint32 seed = isGiven ? quint32(given) : QRandomGenerator::global()->bounded(1000000U);
    qInfo().noquote() << QLatin1String("CORVELKX_SEED=") + QString::number(seed);
    return seed;
}

void compareTrace(const QStringList &lines, const QString &name)
{
    QFile file(QStringLiteral(TRACE_DIR "/") + name);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QStringList expected = QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
    if (lines != expected) // what to look at, or the file's new content
        std::fputs(qPrintable(lines.join(u'\n') + u'\n'), stderr);
    QCOMPARE(lines, expected);
}

std::atomic<LogRecorder *> LogRecorder::s_instance = nullptr;

LogRecorder::LogRecorder()
{
    s_instance = this;
    m_previous = qInstallMessageHandler(record);
}

LogRecorder::~LogRecorder()
{
    qInstallMessageHandler(m_previous);
    s_instance = nullptr;
    const QMutexLocker locker(&m_mutex); // behind whoever wrote last
}

void LogRecorder::record(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    LogRecorder *recorder = s_instance;
    if (qstrcmp(context.category, "default") != 0) {
        recorder->m_previous(type, context, message);
        return;
    }
    QMutexLocker locker(&recorder->m_mutex);
    recorder->m_lines.append(message);
    const auto hook = recorder->m_hook;
    locker.unlock();
    if (hook)
        hook(message);
    // Somebody may be waiting for this line.
    QCoreApplication::postEvent(qApp, new QEvent(QEvent::User));
}

QStringList LogRecorder::lines() const
{
    const QMutexLocker locker(&m_mutex);
    return m_lines;
}

QStringList LogRecorder::take()
{
    const QMutexLocker locker(&m_mutex);
    return std::exchange(m_lines, {});
}

void LogRecorder::setHook(const std::function<void(const QString &)> &hook)
{
    const QMutexLocker locker(&m_mutex);
    m_hook = hook;
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

QStringList Lights::order(const QString &name, const QVariantList &arguments)
{
    const QDBusMessage answer = ask(name, arguments);
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
    QVERIFY(waitUntilFree());
    order(u"reset"_s);
}

bool Lights::isConnected(const QString &address)
{
    return order(u"connected"_s).contains(address);
}

bool Lights::waitUntilFree()
{
    return waitFor([this] { return order(u"connected"_s).isEmpty(); });
}

QStringList Lights::payloads(const QString &address)
{
    QStringList payloads = order(u"written"_s, { address });
    for (QString &payload : payloads)
        payload = payload.section(QLatin1Char(' '), 1);
    return payloads;
}
