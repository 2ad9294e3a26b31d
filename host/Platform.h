#pragma once

#include <QByteArray>
#include <QObject>
#include <QStringList>

/*!
    What the programs need of the operating system and Qt does not offer. Each system has a source of
    its own, which CMake chooses.
*/
namespace Platform {

enum class Stream { Input, Output, Error };

/*! Whether \a stream is a terminal. From then on it takes escape sequences and UTF-8. */
bool isTerminal(Stream stream);

/*!
    Runs \a program with \a arguments in place of this one, and ends with its exit status. Returns only
    if the program cannot be started, with the reason.
*/
QString replaceProgram(const QString &program, const QStringList &arguments);

} // namespace Platform

/*!
    Turns what asks a program to end (Ctrl-C, a signal, a closed terminal) into a Qt signal. Only the
    first request does; while the program is ending, a second one ends it at once. One at a time.
*/
class Interrupt : public QObject
{
    Q_OBJECT

public:
    explicit Interrupt(QObject *parent = nullptr);
    ~Interrupt() override;

    /*! The signal that came, or 0. */
    int signalNumber() const { return m_signal; }
    /*! Makes the next signal count as the first one. */
    void rearm();
    /*! Takes note of a request to end; for the handler in the platform's source. */
    void obey(int signalNumber);

signals:
    void interrupted();

private:
    int m_signal = 0;
};

/*!
    Reads the standard input while the event loop runs. What nobody has read stays for the next object.
    One at a time.
*/
class StandardInput : public QObject
{
    Q_OBJECT

public:
    explicit StandardInput(QObject *parent = nullptr);
    ~StandardInput() override;

    /*! What there is, after readyRead(). Nothing means the end of the input. */
    QByteArray read();

signals:
    void readyRead();
};
