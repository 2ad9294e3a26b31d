#pragma once

#include "Waiter.h"

#include <QObject>
#include <QString>

#include <optional>

class Output;

/*!
    Reads lines from the standard input while the event loop runs; with editing and history on a
    terminal where the library for it was there at build time.
*/
class LineReader : public QObject
{
    Q_OBJECT

public:
    LineReader(Waiter *waiter, Output *output, QObject *parent = nullptr);
    ~LineReader() override;

    /*! The next line, or nothing at the end of the input and on an interruption. */
    std::optional<QString> read();

    /*! Takes a line from the editing library; null is the end of the input. */
    void take(const char *editedLine);

private:
    void readAvailable();
    void hidePrompt() const;
    void showPrompt() const;

    Waiter *m_waiter;
    QByteArray m_buffer;
    bool m_isInteractive;
    bool m_isReading = false;
    bool m_hasEnded = false;
};
