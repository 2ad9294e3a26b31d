#include "Shell.h"

#include "LineReader.h"
#include "Platform.h"

#include <QRegularExpression>

#include <csignal>

using std::chrono::milliseconds;

namespace {

class Shell
{
public:
    Shell(CorvelKX::Host *host, Waiter *waiter, Output *output, Interrupt *interrupt,
          const Waits &waits)
        : m_host(host), m_waiter(waiter), m_output(output), m_interrupt(interrupt),
          m_commands(host, waiter, output, waits), m_reader(waiter, output)
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
            // On a terminal, Ctrl+C interrupts the command, not the shell.
            if (m_interrupt->signalNumber() == SIGINT && m_output->isTerminal()) {
                m_interrupt->rearm();
                m_waiter->resume();
            }
        }
        return m_output->isTerminal() ? EXIT_SUCCESS : status;
    }

private:
    int carryOut(const QStringList &words)
    {
        const QString &name = words.first();
        const QStringList rest = words.mid(1);
        if (name == QLatin1String("scan") && rest.size() <= 1)
            return scan(rest.value(0));
        if (name == QLatin1String("wait") && rest.size() == 1)
            return wait(rest.first());
        if (name == QLatin1String("lights") && rest.isEmpty())
            return listLights();
        if (name == QLatin1String("connect") && !rest.isEmpty())
            return m_commands.connectLights(rest);
        if (name == QLatin1String("listen") && !rest.isEmpty())
            return m_commands.listen(rest);
        if (name == QLatin1String("send") && rest.size() == 2)
            return m_commands.send(rest.at(0), rest.at(1));
        if (name == QLatin1String("forget") && rest.size() == 1)
            return m_commands.forget(rest.at(0));
        if (name == QLatin1String("help")) {
            m_output->say(help());
            return EXIT_SUCCESS;
        }
        m_output->complain(QStringLiteral("\"%1\" is not a command; try help.")
                                   .arg(printable(words.join(QLatin1Char(' ')))));
        return usageError;
    }

    static QString help()
    {
        return QStringLiteral(
                "scan [SECONDS]         scan for lights; 5 seconds by default\n"
                "lights                 print the lights found so far\n"
                "connect ADDRESS...     connect lights and wait until they are ready\n"
                "listen ADDRESS...      print messages, and reconnect lights that are lost\n"
                "send ADDRESS HEX       send a payload and wait for an answer\n"
                "forget ADDRESS         disconnect a light and remove it from the list\n"
                "wait SECONDS           print messages for that time\n"
                "quit                   disconnect all lights and exit");
    }

    int scan(const QString &text)
    {
        const auto duration = fromSeconds(text.isEmpty() ? QStringLiteral("5") : text);
        if (!duration)
            return notSeconds(text);
        return m_commands.scan(*duration);
    }

    int wait(const QString &text)
    {
        const auto duration = fromSeconds(text);
        if (!duration)
            return notSeconds(text);
        m_waiter->waitUntil([] { return false; }, *duration);
        return EXIT_SUCCESS;
    }

    int notSeconds(const QString &text)
    {
        m_output->complain(QStringLiteral("\"%1\" is not a number of seconds from 0 to 86400.")
                                   .arg(printable(text)));
        return usageError;
    }

    int listLights()
    {
        const auto lights = m_host->lights();
        for (const CorvelKX::Light *light : lights) {
            QJsonObject fields = fieldsOf(*light);
            fields.insert(QStringLiteral("ready"), light->isReady());
            m_output->report(QStringLiteral("light"), fields,
                             describe(*light) + QLatin1String(light->isReady() ? "  ready" : ""));
        }
        return EXIT_SUCCESS;
    }

    CorvelKX::Host *m_host;
    Waiter *m_waiter;
    Output *m_output;
    Interrupt *m_interrupt;
    Commands m_commands;
    LineReader m_reader;
};

} // namespace

int runShell(CorvelKX::Host *host, Waiter *waiter, Output *output, Interrupt *interrupt,
             const Waits &waits)
{
    return Shell(host, waiter, output, interrupt, waits).run();
}
