#pragma once

#include <QObject>

#include <chrono>
#include <functional>

/*! A wait without a limit: as long as a timer can be set. */
inline constexpr std::chrono::milliseconds unlimited = std::chrono::hours(24 * 20);

/*!
    Lets commands be written as a row of calls and waits: a wait runs the event loop until what it
    waits for is there, its time is over, or the user interrupts.
*/
class Waiter : public QObject
{
    Q_OBJECT

public:
    enum class Outcome { Done, TimedOut, Interrupted };

    /*! Waits until \a done, which is asked again after each check(). */
    Outcome waitUntil(const std::function<bool()> &done, std::chrono::milliseconds limit) const;
    /*! Something happened that somebody may be waiting for. */
    void check() { emit checked(); }
    /*! Ends the wait that is going on and those to come, until resume(). */
    void interrupt();
    void resume() { m_isInterrupted = false; }

signals:
    void checked();

private:
    bool m_isInterrupted = false;
};
