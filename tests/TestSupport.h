#pragma once

#include <QDBusMessage>
#include <QMutex>
#include <QObject>
#include <QStringList>
#include <QVariantList>

#include <atomic>
#include <chrono>
#include <functional>

/*!
    Runs the event loop, which blocks between events, until \a done holds; returns whether it did in
    time. It is asked after each round of events, and every \a pollInterval milliseconds where what
    it asks about sends no event here.
*/
bool waitFor(const std::function<bool()> &done, int pollInterval = 0);

/*! A short time limit on a machine at rest; longer where its processors are busy. */
std::chrono::milliseconds scaled(std::chrono::milliseconds time);

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

/*! The virtual lights that the test runs among. */
class Lights : public QObject
{
    Q_OBJECT

public:
    Lights();

    /*! The message that gives an order. */
    static QDBusMessage message(const QString &name, const QVariantList &arguments = {});
    /*! Gives an order and returns the answer, on any thread. */
    static QDBusMessage ask(const QString &name, const QVariantList &arguments = {});
    /*! Gives an order and returns the lines of the answer; a refused order fails the test. */
    QStringList order(const QString &name, const QVariantList &arguments = {});
    void set(const QString &address, const QString &key, const QString &value);
    bool isConnected(const QString &address);
    /*! Waits until no light is connected. */
    bool waitUntilFree();
    /*! The same, and makes all as it was at first. */
    void restore();
    /*! "mode bytes" of each payload that the light was written, characteristics left out. */
    QStringList payloads(const QString &address);

private slots:
    // Wakes the event loop of whoever waits for something to change over there.
    void onPropertiesChanged() { }
};
