#pragma once

#include <QObject>

#include <array>

/*!
    Turns the signals that ask a program to end (interrupt, terminate, hang-up) into a Qt signal.
    The first one only tells; while it is being obeyed, another one ends the program at once.
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

signals:
    void interrupted();

private:
    void arm(void (*handler)(int));

    int m_signal = 0;
    std::array<int, 2> m_pipe { -1, -1 };
};
