#include "Shell.h"

#include "Interrupt.h"
#include "LineReader.h"

#include <QRegularExpression>

#include <csignal>

using std::chrono::milliseconds;

namespace {

class Shell
{
public:
    Shell(Session *session, Output *output, Interrupt *interrupt, const Waits &waits)
        : m_session(session), m_output(output), m_interrupt(interrupt),
          m_commands(session, output, waits), m_reader(session, output)
    {
    }

    int run()
    {
        int status = EXIT_SUCCESS;
        while (const auto line = m_reader.read()) {
            static const QRegularExpression space(QStringLiteral("\\s+"));
            const QStringList words = line->split(space, Qt::SkipEmptyParts);
            if (words.isEmpty() || words.first().startsWith(QLatin1Char('#')))
                continue;
            if (words.first() == QLatin1String("quit"))
                break;
            if (const int failed = carryOut(words))
                status = failed;
            // What was interrupted is the command, not the shell.
            if (m_interrupt->signalNumber() == SIGINT && m_output->isTerminal()) {
                m_interrupt->rearm();
                m_session->resume();
            }
        }
        return m_output->isTerminal() ? EXIT_SUCCESS : status;
    }

private:
    int carryOut(const QStringList &words)
    {
        const QString &name = words.first();
        const QStringList rest = words.mid(1);
        const QString address = rest.value(0).toUpper();
        QStringList addresses;
        for (const QString &word : rest)
            addresses.append(word.toUpper());

        if (name == QLatin1String("scan") && rest.size() <= 1)
            return scan(rest.value(0));
        if (name == QLatin1String("wait") && rest.size() == 1)
            return wait(rest.first());
        if (name == QLatin1String("lights") && rest.isEmpty())
            return listLights();
        if (name == QLatin1String("connect") && !rest.isEmpty())
            return m_commands.connectLights(addresses);
        if (name == QLatin1String("listen") && !rest.isEmpty())
            return m_commands.listen(addresses);
        if (name == QLatin1String("send") && rest.size() == 2)
            return m_commands.send(address, rest.at(1));
        if (name == QLatin1String("reconnect") && rest.size() == 1)
            return m_commands.reconnect(address);
        if (name == QLatin1String("forget") && rest.size() == 1)
            return m_commands.forget(address);
        if (name == QLatin1String("help")) {
            m_output->say(help());
            return EXIT_SUCCESS;
        }
        m_output->complain(QStringLiteral("\"%1\" is no command of the shell; try help.")
                                   .arg(printable(words.join(QLatin1Char(' ')))));
        return usageError;
    }

    static QString help()
    {
        return QStringLiteral(
                "scan [SECONDS]         look for lights\n"
                "lights                 the lights found so far\n"
                "connect ADDRESS...     connect lights and wait until they are ready\n"
                "listen ADDRESS...      print what comes, and ask again for a light that goes\n"
                "send ADDRESS HEX       send a payload and wait for an answer\n"
                "reconnect ADDRESS      connect a light again\n"
                "forget ADDRESS         drop a light and forget it\n"
                "wait SECONDS           only print what comes\n"
                "quit                   drop all links and leave");
    }

    int scan(const QString &text)
    {
        const auto duration = fromSeconds(text.isEmpty() ? QStringLiteral("5") : text);
        if (!duration)
            return notSeconds(text);
        return m_commands.scan(duration);
    }

    int wait(const QString &text)
    {
        const auto duration = fromSeconds(text);
        if (!duration)
            return notSeconds(text);
        m_session->waitUntil([] { return false; }, *duration);
        return EXIT_SUCCESS;
    }

    int notSeconds(const QString &text)
    {
        m_output->complain(
                QStringLiteral("\"%1\" is not a number of seconds.").arg(printable(text)));
        return usageError;
    }

    int listLights()
    {
        const QStringList addresses = m_session->found().keys();
        for (const QString &address : addresses) {
            const bool ready = m_session->isReady(address);
            const Session::Found light = m_session->found().value(address);
            m_output->report(QStringLiteral("light"),
                             { { QStringLiteral("type"), light.type },
                               { QStringLiteral("address"), address },
                               { QStringLiteral("name"), light.name },
                               { QStringLiteral("ready"), ready } },
                             describe(*m_session, address)
                                     + (ready ? QLatin1String("  ready") : QLatin1String()));
        }
        return EXIT_SUCCESS;
    }

    Session *m_session;
    Output *m_output;
    Interrupt *m_interrupt;
    Commands m_commands;
    LineReader m_reader;
};

} // namespace

int runShell(Session *session, Output *output, Interrupt *interrupt, const Waits &waits)
{
    return Shell(session, output, interrupt, waits).run();
}
