#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

/*!
    A private dbus-daemon, with its socket in a temporary directory.

    Both disappear with this object, and also if this process is killed: the kernel then signals the
    daemon, and a small helper process (the janitor) ends all clients of the bus and removes the
    directory. Construct it before the process starts its first thread, because it forks.
*/
class PrivateBus
{
public:
    PrivateBus();
    ~PrivateBus();
    Q_DISABLE_COPY_MOVE(PrivateBus)

    /*! Starts the daemon. Returns false if that failed; error() tells why. */
    bool start();
    /*! The bus address, for example for DBUS_SYSTEM_BUS_ADDRESS. */
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

/*! Called in a child process: the kernel ends the child when its parent ends, however that ends. */
void endWithParent();
