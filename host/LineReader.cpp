#include "LineReader.h"

#include "Output.h"

#include <QSocketNotifier>

#include <unistd.h>

#ifdef HAVE_LIBEDIT
#    include <editline/readline.h>
#endif

namespace {

constexpr char prompt[] = "lights> ";

#ifdef HAVE_LIBEDIT
// The editing library's callback knows no object.
LineReader *activeReader = nullptr;

void takeEditedLine(char *text)
{
    activeReader->take(text);
    free(text);
}
#endif

} // namespace

LineReader::LineReader(Waiter *waiter, Output *output, QObject *parent)
    : QObject(parent), m_waiter(waiter),
      m_isInteractive(output->isTerminal() && isatty(STDIN_FILENO) && !output->isJson())
{
    connect(output, &Output::aboutToPrint, this, &LineReader::hidePrompt);
    connect(output, &Output::printed, this, &LineReader::showPrompt);
}

LineReader::~LineReader() = default;

void LineReader::hidePrompt() const
{
    if (m_isInteractive && m_isReading) [[maybe_unused]]
        const auto written = write(STDOUT_FILENO, "\r\033[K", 4);
}

void LineReader::showPrompt() const
{
    if (!m_isInteractive || !m_isReading)
        return;
#ifdef HAVE_LIBEDIT
    rl_forced_update_display();
#else
    [[maybe_unused]] const auto written = write(STDOUT_FILENO, prompt, sizeof(prompt) - 1);
#endif
}

void LineReader::take(const char *editedLine)
{
    if (!editedLine) {
        m_hasEnded = true;
        return;
    }
    m_buffer += editedLine;
    m_buffer += '\n';
#ifdef HAVE_LIBEDIT
    if (*editedLine)
        add_history(editedLine);
#endif
}

void LineReader::readAvailable()
{
#ifdef HAVE_LIBEDIT
    if (m_isInteractive) {
        rl_callback_read_char();
        m_waiter->check();
        return;
    }
#endif
    char bytes[4096];
    const auto count = ::read(STDIN_FILENO, bytes, sizeof(bytes));
    if (count > 0)
        m_buffer.append(bytes, count);
    else
        m_hasEnded = true;
    m_waiter->check();
}

std::optional<QString> LineReader::read()
{
    m_isReading = true;
#ifdef HAVE_LIBEDIT
    if (m_isInteractive) {
        activeReader = this;
        rl_catch_signals = 0; // they are the program's
        rl_callback_handler_install(prompt, takeEditedLine);
    }
#else
    showPrompt();
#endif
    QSocketNotifier notifier(STDIN_FILENO, QSocketNotifier::Read);
    connect(&notifier, &QSocketNotifier::activated, this, &LineReader::readAvailable);
    m_waiter->waitUntil([this] { return m_buffer.contains('\n') || m_hasEnded; }, unlimited);
#ifdef HAVE_LIBEDIT
    if (m_isInteractive)
        rl_callback_handler_remove();
#endif
    hidePrompt();
    m_isReading = false;

    const auto end = m_buffer.indexOf('\n');
    if (end < 0) {
        // A last line without an end counts, unless the user interrupted.
        const QByteArray rest = std::exchange(m_buffer, {});
        return m_hasEnded && !rest.isEmpty() ? std::optional(QString::fromUtf8(rest))
                                             : std::nullopt;
    }
    const QString line = QString::fromUtf8(m_buffer.left(end));
    m_buffer.remove(0, end + 1);
    return line;
}
