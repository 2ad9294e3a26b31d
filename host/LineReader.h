#pragma once

#include "Waiter.h"

#include <QObject>
#include <QString>

#include <optional>

class Output;
class StandardInput;

/*! Reads lines from the standard input while the event loop runs; on a terminal with a prompt. */
class LineReader : public QObject
{
    Q_OBJECT

public:
    LineReader(Waiter *waiter, Output *output, QObject *parent = nullptr);
    ~LineReader() override;

    /*! The next line, or nothing at the end of the input and on an interruption. */
    std::optional<QString> read();

private:
    void takeEdited(const char *line);
    void readAvailable(StandardInput *input);
    void hidePrompt() const;
    void showPrompt() const;

    Waiter *m_waiter;
    QByteArray m_buffer;
    bool m_isInteractive;
    bool m_isEdited;
    bool m_isReading = false;
    bool m_hasEnded = false;
};
