#pragma once

#include <QObject>

#include <chrono>
#include <functional>

/*! The longest time for a QTimer, used as "no limit". */
inline constexpr std::chrono::milliseconds unlimited = std::chrono::hours(24 * 20);

/*!
    Lets commands wait in sequential code: waitUntil() runs the event loop until a condition holds,
    a time limit is over, or the user interrupts.
*/
class Waiter : public QObject
{
    Q_OBJECT

public:
    enum class Outcome { Done, TimedOut, Interrupted };

    /*! Waits until \a done returns true; calls it after each check(). */
    Outcome waitUntil(const std::function<bool()> &done, std::chrono::milliseconds limit) const;
    /*! Call this when something changed that a condition may depend on. */
    void check() { emit checked(); }
    /*! Ends the current wait and all further ones until resume(). */
    void interrupt();
    void resume() { m_isInterrupted = false; }

signals:
    void checked();

private:
    bool m_isInterrupted = false;
};
