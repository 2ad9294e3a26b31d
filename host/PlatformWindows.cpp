#include "Platform.h"

#include <QMutex>
#include <QProcess>

#include <array>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <utility>
#include <windows.h>

namespace {

HANDLE handleOf(Platform::Stream stream)
{
    constexpr std::array<DWORD, 3> numbers { STD_INPUT_HANDLE, STD_OUTPUT_HANDLE,
                                             STD_ERROR_HANDLE };
    return GetStdHandle(numbers.at(std::size_t(stream)));
}

// Windows calls a handler on a thread of its own.
QMutex interruptMutex;
Interrupt *interrupt = nullptr;

BOOL WINAPI tell(DWORD event)
{
    const bool isKey = event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT;
    {
        const QMutexLocker locker(&interruptMutex);
        if (!interrupt)
            return FALSE;
        QMetaObject::invokeMethod(
                interrupt, [signal = isKey ? SIGINT : SIGTERM] { interrupt->obey(signal); },
                Qt::QueuedConnection);
    }
    // The console is being closed: Windows ends the program as soon as the handler returns.
    if (!isKey)
        Sleep(INFINITE);
    return TRUE;
}

// Ctrl-C reaches all programs of a console; this one has to wait for the one that it started.
BOOL WINAPI ignoreKeys(DWORD event)
{
    return event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT;
}

// What the reading thread has read. Both are never deleted: a read that waits cannot be ended.
struct Input
{
    QMutex mutex;
    QByteArray bytes;
    bool hasEnded = false;
    bool isAnnounced = false;
    StandardInput *reader = nullptr;

    // With the mutex locked. Announced once, since a read that finds nothing means the end.
    void announce()
    {
        if (!reader || isAnnounced || (bytes.isEmpty() && !hasEnded))
            return;
        isAnnounced = true;
        QMetaObject::invokeMethod(reader, &StandardInput::readyRead, Qt::QueuedConnection);
    }
};

// Takes more from the standard input; returns whether it goes on.
bool takeMore(Input *input)
{
    constexpr char controlZ = '\x1A';
    std::array<char, 4096> bytes {};
    DWORD count = 0;
    SetLastError(ERROR_SUCCESS);
    const bool isRead = ReadFile(handleOf(Platform::Stream::Input), bytes.data(),
                                 DWORD(bytes.size()), &count, nullptr);
    if (isRead && count == 0 && GetLastError() == ERROR_OPERATION_ABORTED)
        return true; // Ctrl-C was pressed in a console
    const QMutexLocker locker(&input->mutex);
    input->hasEnded = !isRead || count == 0 || bytes.front() == controlZ;
    if (!input->hasEnded)
        input->bytes.append(bytes.data(), qsizetype(count));
    input->announce();
    return !input->hasEnded;
}

Input &input()
{
    static Input *const instance = [] {
        auto *input = new Input;
        std::thread([input] {
            while (takeMore(input)) { }
        }).detach();
        return input;
    }();
    return *instance;
}

} // namespace

bool Platform::isTerminal(Stream stream)
{
    HANDLE handle = handleOf(stream);
    DWORD mode = 0;
    if (!GetConsoleMode(handle, &mode))
        return false;
    if (stream == Stream::Input)
        return true;
    SetConsoleOutputCP(CP_UTF8);
    return SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

QString Platform::replaceProgram(const QString &program, const QStringList &arguments)
{
    SetConsoleCtrlHandler(ignoreKeys, TRUE);
    QProcess process;
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(program, arguments);
    if (!process.waitForStarted())
        return process.errorString();
    process.waitForFinished(-1);
    std::exit(process.exitStatus() == QProcess::NormalExit ? process.exitCode() : EXIT_FAILURE);
}

Interrupt::Interrupt(QObject *parent) : QObject(parent)
{
    const QMutexLocker locker(&interruptMutex);
    interrupt = this;
    SetConsoleCtrlHandler(tell, TRUE);
}

Interrupt::~Interrupt()
{
    SetConsoleCtrlHandler(tell, FALSE);
    const QMutexLocker locker(&interruptMutex);
    interrupt = nullptr;
}

void Interrupt::rearm()
{
    m_signal = 0;
    SetConsoleCtrlHandler(tell, TRUE);
}

void Interrupt::obey(int signalNumber)
{
    m_signal = signalNumber;
    SetConsoleCtrlHandler(tell, FALSE);
    emit interrupted();
}

StandardInput::StandardInput(QObject *parent) : QObject(parent)
{
    Input &source = input();
    const QMutexLocker locker(&source.mutex);
    source.reader = this;
    source.isAnnounced = false;
    source.announce();
}

StandardInput::~StandardInput()
{
    const QMutexLocker locker(&input().mutex);
    input().reader = nullptr;
}

QByteArray StandardInput::read()
{
    Input &source = input();
    const QMutexLocker locker(&source.mutex);
    source.isAnnounced = false;
    const QByteArray bytes = std::exchange(source.bytes, {});
    if (!bytes.isEmpty())
        source.announce(); // that the input has ended
    return bytes;
}
