#pragma once

#include <QMutex>
#include <QStringList>

#include <atomic>
#include <functional>

/*!
    Runs the event loop, which blocks between events, until \a done holds; returns whether it did in
    time. It is asked after each round of events, and every \a pollInterval milliseconds where what
    it asks about sends no event here.
*/
bool waitFor(const std::function<bool()> &done, int pollInterval = 0);

/*! CORVELKX_SLOWNESS: how many times slower than others an emulated machine is; or 1. */
int slowness();

/*! The seed in CORVELKX_SEED, or a random one; it is printed, so that a run can be repeated. */
quint32 randomSeed();

/*! Fails the test unless \a lines are those of the file \a name in this directory. */
void compareTrace(const QStringList &lines, const QString &name);

/*! Records what is logged in the default category, on any thread, as long as it lives. */
class LogRecorder
{
public:
    LogRecorder();
    ~LogRecorder();
    Q_DISABLE_COPY_MOVE(LogRecorder)

    QStringList lines() const;
    /*! The lines that contain \a text. */
    QStringList linesWith(const QString &text) const { return lines().filter(text); }
    /*! The lines so far, which are forgotten. */
    QStringList take();
    /*! Has \a hook called for each line from now on, on the thread that logs it. */
    void setHook(const std::function<void(const QString &)> &hook);

private:
    static void record(QtMsgType type, const QMessageLogContext &context, const QString &message);

    static std::atomic<LogRecorder *> s_instance;
    mutable QMutex m_mutex;
    QStringList m_lines;
    std::function<void(const QString &)> m_hook;
    QtMessageHandler m_previous;
};
