#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

/*!
    A D-Bus daemon of one's own, with its socket in a private directory.

    Both end with this object, and also where this process is killed: the daemon is told by the
    kernel, the directory is removed by a small process that waits for just that and ends whoever
    still uses the bus. Construct it before the first thread of the process starts.
*/
class PrivateBus
{
public:
    PrivateBus();
    ~PrivateBus();
    Q_DISABLE_COPY_MOVE(PrivateBus)

    /*! Starts the daemon and returns whether it runs; error() tells why not. */
    bool start();
    /*! The address for DBUS_SYSTEM_BUS_ADDRESS and the like. */
    QString address() const { return m_address; }
    QString error() const { return m_error; }

private:
    void startJanitor();

    QTemporaryDir m_directory;
    QProcess m_daemon;
    QString m_address;
    QString m_error;
    int m_janitorPipe = -1;
};

/*! For a child process: ends it when the process that started it ends in any way. */
void endWithParent();
