#include "LineReader.h"

#include "LineEditor.h"
#include "Output.h"
#include "Platform.h"

#include <cstdio>
#include <utility>

namespace {

constexpr char prompt[] = "lights> ";

// The editing library's callback knows no object.
LineReader *activeReader = nullptr;

} // namespace

LineReader::LineReader(Waiter *waiter, Output *output, QObject *parent)
    : QObject(parent), m_waiter(waiter),
      m_isInteractive(output->isTerminal() && Platform::isTerminal(Platform::Stream::Input)
                      && !output->isJson()),
      m_isEdited(m_isInteractive && LineEditor::isAvailable())
{
    connect(output, &Output::aboutToPrint, this, &LineReader::hidePrompt);
    connect(output, &Output::printed, this, &LineReader::showPrompt);
}

LineReader::~LineReader() = default;

void LineReader::hidePrompt() const
{
    if (!m_isInteractive || !m_isReading)
        return;
    std::fputs("\r\033[K", stdout);
    std::fflush(stdout);
}

void LineReader::showPrompt() const
{
    if (m_isInteractive && m_isReading)
        LineEditor::showAgain();
}

void LineReader::takeEdited(const char *line)
{
    if (line)
        m_buffer.append(line).append('\n');
    else
        m_hasEnded = true;
}

void LineReader::readAvailable(StandardInput *input)
{
    if (m_isEdited) {
        LineEditor::readAvailable();
    } else {
        const QByteArray bytes = input->read();
        m_buffer += bytes;
        m_hasEnded = bytes.isEmpty();
    }
    m_waiter->check();
}

std::optional<QString> LineReader::read()
{
    m_isReading = true;
    if (m_isInteractive) {
        activeReader = this;
        LineEditor::begin(prompt, [](const char *line) { activeReader->takeEdited(line); });
    }
    StandardInput input;
    connect(&input, &StandardInput::readyRead, this, [this, &input] { readAvailable(&input); });
    m_waiter->waitUntil([this] { return m_buffer.contains('\n') || m_hasEnded; }, unlimited);
    if (m_isInteractive)
        LineEditor::end();
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
