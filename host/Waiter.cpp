#include "Waiter.h"

#include <QEventLoop>
#include <QTimer>

Waiter::Outcome Waiter::waitUntil(const std::function<bool()> &done,
                                  std::chrono::milliseconds limit) const
{
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    connect(this, &Waiter::checked, &loop, [&] {
        if (m_isInterrupted || done())
            loop.quit();
    });
    if (!m_isInterrupted && !done()) {
        timer.start(limit);
        loop.exec();
    }
    if (m_isInterrupted)
        return Outcome::Interrupted;
    return done() ? Outcome::Done : Outcome::TimedOut;
}

void Waiter::interrupt()
{
    m_isInterrupted = true;
    emit checked();
}
