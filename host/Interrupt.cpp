#include "Interrupt.h"

#include <QSocketNotifier>

#include <csignal>
#include <unistd.h>

namespace {

int writeEnd = -1;

void tell(int number)
{
    const auto byte = static_cast<char>(number);
    // Nothing can be done here where the write fails.
    [[maybe_unused]] const auto written = write(writeEnd, &byte, 1);
}

} // namespace

Interrupt::Interrupt(QObject *parent) : QObject(parent)
{
    if (pipe(m_pipe.data()) != 0)
        qFatal("No pipe can be made.");
    writeEnd = m_pipe[1];
    auto *notifier = new QSocketNotifier(m_pipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        char byte = 0;
        if (read(m_pipe[0], &byte, 1) != 1)
            return;
        m_signal = static_cast<unsigned char>(byte);
        arm(SIG_DFL);
        emit interrupted();
    });
    arm(tell);
    // A reader that goes away is noticed where the output is written.
    std::signal(SIGPIPE, SIG_IGN);
}

Interrupt::~Interrupt()
{
    arm(SIG_DFL);
    close(m_pipe[0]);
    close(m_pipe[1]);
}

void Interrupt::rearm()
{
    m_signal = 0;
    arm(tell);
}

void Interrupt::arm(void (*handler)(int))
{
    for (const int number : { SIGINT, SIGTERM, SIGHUP })
        std::signal(number, handler);
}
