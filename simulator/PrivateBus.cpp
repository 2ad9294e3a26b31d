#include "PrivateBus.h"

#include <QFile>

#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr int startTimeout = 10000;

QByteArray configuration(const QString &socket)
{
    // The daemon's default limits would disturb measurements.
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <type>session</type>\n"
           "  <listen>unix:path="
           + QFile::encodeName(socket)
           + "</listen>\n"
             "  <auth>EXTERNAL</auth>\n"
             "  <policy context=\"default\">\n"
             "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
             "    <allow eavesdrop=\"true\"/>\n"
             "    <allow own=\"*\"/>\n"
             "  </policy>\n"
             "  <limit name=\"max_incoming_bytes\">1000000000</limit>\n"
             "  <limit name=\"max_outgoing_bytes\">1000000000</limit>\n"
             "  <limit name=\"max_message_size\">134000000</limit>\n"
             "  <limit name=\"max_match_rules_per_connection\">100000</limit>\n"
             "  <limit name=\"max_replies_per_connection\">100000</limit>\n"
             "</busconfig>\n";
}

// Ends all processes with the bus at \a socket in their environment: the command and all of its
// descendants, which otherwise survive when corvelkx-lights is killed.
void endClients(const QByteArray &socket)
{
    const QByteArray variable = "CORVELKX_LIGHTS_BUS=unix:path=" + socket + ',';
    DIR *processes = opendir("/proc");
    if (!processes)
        return;
    while (const dirent *process = readdir(processes)) {
        QFile environment(
                QStringLiteral("/proc/%1/environ").arg(QFile::decodeName(process->d_name)));
        const pid_t id = QByteArray(process->d_name).toInt();
        if (id > 0 && environment.open(QIODevice::ReadOnly)
            && environment.readAll().contains(variable))
            kill(id, SIGTERM);
    }
    closedir(processes);
}

} // namespace

void endWithParent()
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
}

PrivateBus::PrivateBus() = default;

PrivateBus::~PrivateBus()
{
    if (m_daemon.state() != QProcess::NotRunning) {
        m_daemon.terminate();
        if (!m_daemon.waitForFinished())
            m_daemon.kill();
    }
    m_directory.remove();
    if (m_janitorPipe != -1)
        close(m_janitorPipe);
}

void PrivateBus::startJanitor()
{
    const QByteArray directory = QFile::encodeName(m_directory.path());
    const QByteArray socket = directory + "/bus";
    const QByteArray config = directory + "/bus.conf";
    int ends[2];
    // Close-on-exec: the pipe must close when this process ends, even if the command still runs.
    if (pipe2(ends, O_CLOEXEC) != 0)
        return;
    const pid_t janitor = fork();
    if (janitor == 0) {
        // The signals that end the other processes must not end this one.
        setsid();
        for (const int number : { SIGINT, SIGTERM, SIGHUP })
            signal(number, SIG_IGN);
        close(ends[1]);
        for (const int standard : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO })
            close(standard);
        char byte = 0;
        while (read(ends[0], &byte, 1) > 0) { }
        endClients(socket);
        unlink(socket.constData());
        unlink(config.constData());
        rmdir(directory.constData());
        _exit(0);
    }
    close(ends[0]);
    m_janitorPipe = ends[1];
}

bool PrivateBus::start()
{
    const QString socket = m_directory.filePath(QStringLiteral("bus"));
    QFile config(m_directory.filePath(QStringLiteral("bus.conf")));
    if (!m_directory.isValid() || !config.open(QIODevice::WriteOnly)) {
        m_error = QStringLiteral("No directory for a private bus can be made: %1")
                          .arg(m_directory.errorString());
        return false;
    }
    startJanitor();
    config.write(configuration(socket));
    config.close();

    m_daemon.setChildProcessModifier([] {
        endWithParent();
        // Ctrl+C in a terminal must not reach the bus.
        setsid();
    });
    m_daemon.start(QStringLiteral("dbus-daemon"),
                   { QStringLiteral("--config-file=") + config.fileName(),
                     QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                     QStringLiteral("--print-address=1") });
    if (!m_daemon.waitForStarted(startTimeout)) {
        m_error = QStringLiteral("dbus-daemon cannot be started (is the package \"dbus-daemon\" "
                                 "installed?): %1")
                          .arg(m_daemon.errorString());
        return false;
    }
    if (!m_daemon.waitForReadyRead(startTimeout)) {
        m_error = QStringLiteral("The private bus did not start: %1")
                          .arg(QString::fromLocal8Bit(m_daemon.readAllStandardError()).trimmed());
        return false;
    }
    m_address = QString::fromLocal8Bit(m_daemon.readLine()).trimmed();
    return true;
}
