#include "Platform.h"

#include <QFile>
#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace {

// A handler may only call a few functions, and write() is one of them: the pipe wakes the event loop.
std::array<int, 2> signalPipe { -1, -1 };

void tell(int number)
{
    const auto byte = static_cast<char>(number);
    // If the write fails, nothing can be done about it here.
    [[maybe_unused]] const auto written = write(signalPipe[1], &byte, 1);
}

void setHandlers(void (*handler)(int))
{
    for (const int number : { SIGINT, SIGTERM, SIGHUP })
        std::signal(number, handler);
}

} // namespace

bool Platform::isTerminal(Stream stream)
{
    constexpr std::array<int, 3> descriptors { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO };
    return isatty(descriptors.at(std::size_t(stream))) == 1;
}

QString Platform::replaceProgram(const QString &program, const QStringList &arguments)
{
    const QStringList words = QStringList { program } + arguments;
    QList<QByteArray> bytes;
    for (const QString &word : words)
        bytes.append(QFile::encodeName(word));
    std::vector<char *> pointers;
    for (QByteArray &word : bytes)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    execv(pointers.front(), pointers.data());
    return QString::fromLocal8Bit(std::strerror(errno));
}

Interrupt::Interrupt(QObject *parent) : QObject(parent)
{
    if (pipe(signalPipe.data()) != 0)
        qFatal("No pipe can be made.");
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        char byte = 0;
        if (::read(signalPipe[0], &byte, 1) == 1)
            obey(static_cast<unsigned char>(byte));
    });
    setHandlers(tell);
    // If the reader of a pipe goes away, writing to it fails; that must not end the program.
    std::signal(SIGPIPE, SIG_IGN);
}

Interrupt::~Interrupt()
{
    setHandlers(SIG_DFL);
    for (const int descriptor : signalPipe)
        close(descriptor);
}

void Interrupt::rearm()
{
    m_signal = 0;
    setHandlers(tell);
}

void Interrupt::obey(int signalNumber)
{
    m_signal = signalNumber;
    setHandlers(SIG_DFL);
    emit interrupted();
}

StandardInput::StandardInput(QObject *parent) : QObject(parent)
{
    auto *notifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &StandardInput::readyRead);
}

StandardInput::~StandardInput() = default;

QByteArray StandardInput::read()
{
    std::array<char, 4096> bytes {};
    const auto count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    return { bytes.data(), qMax<qsizetype>(count, 0) };
}
