#pragma once

#include <QMutex>
#include <QStringList>

#include <atomic>
#include <functional>

/*!
    Runs the event loop until \a done returns true; returns whether that happened in time. \a done
    is called after each event, and every \a pollInterval milliseconds if the change that it waits
    for sends no event to this thread.
*/
bool waitFor(const std::function<bool()> &done, int pollInterval = 0);

/*! CORVELKX_SLOWNESS: how many times slower than others an emulated machine is; 1 by default. */
int slowness();

/*! The seed in CORVELKX_SEED, or a random one. Prints it, so that a run can be repeated. */
quint32 randomSeed();

/*! Fails the test unless \a lines are those of the file \a name in this directory. */
void compareTrace(const QStringList &lines, const QString &name);

/*! Records the log of the default category, from all threads, while the object exists. */
class LogRecorder
{
public:
    LogRecorder();
    ~LogRecorder();
    Q_DISABLE_COPY_MOVE(LogRecorder)

    QStringList lines() const;
    /*! The lines that contain \a text. */
    QStringList linesWith(const QString &text) const { return lines().filter(text); }
    /*! The lines so far; the recorder then starts empty. */
    QStringList take();
    /*! Calls \a hook for each further line, on the thread that logs it. */
    void setHook(const std::function<void(const QString &)> &hook);

private:
    static void record(QtMsgType type, const QMessageLogContext &context, const QString &message);

    static std::atomic<LogRecorder *> s_instance;
    mutable QMutex m_mutex;
    QStringList m_lines;
    std::function<void(const QString &)> m_hook;
    QtMessageHandler m_previous;
};
