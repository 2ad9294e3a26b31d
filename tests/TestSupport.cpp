#include "TestSupport.h"

#include <QCoreApplication>
#include <QEvent>
#include <QFile>
#include <QRandomGenerator>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <cstdio>
#include <utility>

namespace {

// Far more than any test needs, even under sanitizers on a busy machine.
constexpr std::chrono::minutes waitLimit(2);

} // namespace

bool waitFor(const std::function<bool()> &done, int pollInterval)
{
    bool isTimeOver = false;
    QTimer limit;
    QObject::connect(&limit, &QTimer::timeout, &limit, [&isTimeOver] { isTimeOver = true; });
    limit.start(waitLimit * slowness());
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

int slowness()
{
    return qMax(1, qEnvironmentVariableIntValue("CORVELKX_SLOWNESS"));
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
    if (lines != expected) // the whole log, which may become the file's new content
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
    const QMutexLocker locker(&m_mutex); // wait for a thread that is still recording
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
    // waitFor() may be waiting for this line.
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
