#include "Commands.h"
#include "Demo.h"
#include "Output.h"
#include "Platform.h"
#include "Shell.h"
#include "VirtualLights.h"

#include <QCommandLineParser>
#include <QCoreApplication>

using std::chrono::milliseconds;

namespace {

constexpr milliseconds closeLimit(5000);
constexpr milliseconds defaultScanTime(20000);

constexpr char description[] =
        "Finds, connects and talks with CorvelKX lights through the plugin.\n"
        "\n"
        "Commands:\n"
        "  scan                   print each light once: type, address, name\n"
        "  connect ADDRESS...     connect lights, print when they are ready, disconnect\n"
        "  send ADDRESS HEX       send one payload and print the answer\n"
        "  listen ADDRESS...      print what the lights send, and reconnect lost lights, until\n"
        "                         interrupted\n"
        "  single [HEX...]        use the client for the light \"Corvel light(DM41)\": send "
        "payloads\n"
        "                         from the command line or standard input, print notifications\n"
        "  demo                   demonstrate scan to disconnect with up to three lights\n"
        "  shell                  read commands from standard input; try help there\n"
        "\n"
        "Exit status: 0 success; 1 failure; 2 wrong command line; 128 + N ended by signal N.";

struct CommandLine
{
    QString error;
    QStringList words;
    Waits waits;
    QString plugin;
    QString lights;
    bool simulate = false;
    bool log = false;
    bool json = false;
    bool order = false;
};

std::optional<milliseconds> secondsOption(const QCommandLineParser &parser, const QString &name,
                                          QString *error)
{
    if (!parser.isSet(name))
        return std::nullopt;
    const auto value = fromSeconds(parser.value(name));
    if (!value)
        *error = QStringLiteral("--%1 takes a number of seconds from 0 to 86400.").arg(name);
    return value;
}

// Returns what is wrong with the command, or an empty text.
QString check(const QStringList &words)
{
    if (words.isEmpty())
        return QStringLiteral("There is no command; try --help.");
    const QString &name = words.first();
    const auto given = words.size() - 1;
    if (name == QLatin1String("scan") || name == QLatin1String("demo")
        || name == QLatin1String("shell"))
        return given == 0 ? QString() : QStringLiteral("%1 takes no arguments.").arg(name);
    if (name == QLatin1String("connect") || name == QLatin1String("listen"))
        return given > 0 ? QString() : QStringLiteral("%1 needs an address.").arg(name);
    if (name == QLatin1String("single"))
        return {};
    if (name == QLatin1String("send"))
        return given == 2 ? QString() : QStringLiteral("send takes an address and a payload.");
    return QStringLiteral("\"%1\" is not a command; try --help.").arg(printable(name));
}

// Returns a sentence about an option that the command would ignore, or an empty text.
QString unusedOption(const QCommandLineParser &parser, const QString &command)
{
    static const QHash<QString, QString> users {
        { QStringLiteral("plugin"), QStringLiteral("scan connect send listen demo shell") },
        { QStringLiteral("timeout"), QStringLiteral("connect send listen single demo shell") },
        { QStringLiteral("for"), QStringLiteral("scan listen single shell") },
        { QStringLiteral("count"), QStringLiteral("listen shell") },
        { QStringLiteral("answer"), QStringLiteral("send shell") },
        { QStringLiteral("order"), QStringLiteral("single") },
    };
    const QStringList options = parser.optionNames();
    for (const QString &option : options) {
        const auto user = users.constFind(option);
        if (user != users.cend() && !user->split(QLatin1Char(' ')).contains(command))
            return QStringLiteral("--%1 does not work with %2.").arg(option, command);
    }
    return {};
}

CommandLine parse()
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(description));
    parser.addOption(
            { { QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Show this help.") });
    parser.addVersionOption();
    const auto option = [&parser](const char *name, const char *text, const char *value = nullptr) {
        parser.addOption({ QLatin1String(name), QLatin1String(text),
                           value ? QLatin1String(value) : QLatin1String() });
    };
    option("simulate", "Use virtual lights instead of an adapter.");
    option("lights", "Use the virtual lights of the JSON file <file>; implies --simulate.", "file");
    option("plugin", "Load the plugin from <file>.", "file");
    option("log", "Show the plugin's debug log on standard error.");
    option("json", "Print each event as a JSON object on a line of its own.");
    option("timeout", "Limit each operation but scan to <seconds>; 30 by default.", "seconds");
    option("for",
           "Scan for <seconds>, 20 by default, or listen for <seconds>, by default without end.",
           "seconds");
    option("count", "End listen after <number> messages.", "number");
    option("answer", "Make send fail without an answer.");
    option("order", "Make single write to the light's order service.");
    parser.addPositionalArgument(QStringLiteral("COMMAND"), QStringLiteral("One of the above."));

    CommandLine line;
    if (!parser.parse(QCoreApplication::arguments())) {
        line.error = parser.errorText();
        return line;
    }
    if (parser.isSet(QStringLiteral("version")))
        parser.showVersion();
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp();
    line.words = parser.positionalArguments();
    line.plugin = parser.value(QStringLiteral("plugin"));
    line.lights = parser.value(QStringLiteral("lights"));
    line.simulate = parser.isSet(QStringLiteral("simulate")) || !line.lights.isEmpty();
    line.log = parser.isSet(QStringLiteral("log"));
    line.json = parser.isSet(QStringLiteral("json"));
    line.order = parser.isSet(QStringLiteral("order"));
    line.error = check(line.words);
    line.waits.duration = secondsOption(parser, QStringLiteral("for"), &line.error);
    line.waits.timeout = secondsOption(parser, QStringLiteral("timeout"), &line.error)
                                 .value_or(line.waits.timeout);
    line.waits.answerRequired = parser.isSet(QStringLiteral("answer"));
    if (parser.isSet(QStringLiteral("count"))) {
        bool isNumber = false;
        line.waits.messages = parser.value(QStringLiteral("count")).toULongLong(&isNumber);
        if (!isNumber || line.waits.messages == 0)
            line.error = QStringLiteral("--count takes a number of messages, 1 or more.");
    }
    if (line.error.isEmpty())
        line.error = unusedOption(parser, line.words.first());
    return line;
}

// The single-device client is another program, because this one links only the library for hosts.
QString runSingle(const CommandLine &line)
{
    QStringList arguments;
    if (line.log)
        arguments += QStringLiteral("--log");
    if (line.json)
        arguments += QStringLiteral("--json");
    arguments += QStringLiteral("--timeout");
    arguments += QString::number(double(line.waits.timeout.count()) / 1000);
    if (line.waits.duration) {
        arguments += QStringLiteral("--for");
        arguments += QString::number(double(line.waits.duration->count()) / 1000);
    }
    if (line.order)
        arguments += QStringLiteral("--order");
    return replaceByNeighbour(QStringLiteral("corvelkx-single"), arguments + line.words.mid(1));
}

int carryOut(const CommandLine &line, CorvelKX::Host *host, Waiter *waiter, Output *output,
             Interrupt *interrupt)
{
    const QString &name = line.words.first();
    if (name == QLatin1String("demo"))
        return Demo(host, waiter, output, line.waits.timeout).run() ? EXIT_SUCCESS : EXIT_FAILURE;

    Commands commands(host, waiter, output, line.waits);
    if (name == QLatin1String("scan"))
        return commands.scan(line.waits.duration.value_or(defaultScanTime));
    printEvents(host, output);
    if (name == QLatin1String("shell"))
        return runShell(host, waiter, output, interrupt, line.waits);
    if (name == QLatin1String("send"))
        return commands.send(line.words.at(1), line.words.at(2));
    return name == QLatin1String("listen") ? commands.listen(line.words.mid(1))
                                           : commands.connectLights(line.words.mid(1));
}

// Makes the waiter check its condition after each event.
void watch(CorvelKX::Host *host, Waiter *waiter)
{
    using CorvelKX::Host;
    QObject::connect(host, &Host::scanFinished, waiter, &Waiter::check);
    QObject::connect(host, &Host::lightStateChanged, waiter, &Waiter::check);
    QObject::connect(host, &Host::lightRemoved, waiter, &Waiter::check);
    QObject::connect(host, &Host::messageReceived, waiter, &Waiter::check);
}

// Disconnects all lights, also after an interruption.
void close(CorvelKX::Host *host, Waiter *waiter, Output *output)
{
    bool isClosed = false;
    QObject::connect(host, &CorvelKX::Host::closed, waiter, [&](const QStringList &stillConnected) {
        isClosed = true;
        for (const QString &address : stillConnected)
            output->complain(QStringLiteral("%1 did not disconnect.").arg(address));
        waiter->check();
    });
    waiter->resume();
    host->close(closeLimit);
    waiter->waitUntil([&] { return isClosed; }, unlimited);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("corvelkx-host"));
    QCoreApplication::setApplicationVersion(QStringLiteral(PROJECT_VERSION));

    const CommandLine line = parse();
    Output output;
    output.setJson(line.json);
    if (!line.error.isEmpty()) {
        output.complain(line.error);
        return usageError;
    }
    if (line.simulate && !areVirtualLightsHere()) {
        output.complain(enterVirtualLights(line.lights, QCoreApplication::arguments().mid(1)));
        return EXIT_FAILURE;
    }

    if (line.words.first() == QLatin1String("single")) {
        output.complain(runSingle(line));
        return EXIT_FAILURE;
    }
    showLog(line.log);
    Interrupt interrupt;
    Waiter waiter;
    CorvelKX::Host host;
    QObject::connect(&interrupt, &Interrupt::interrupted, &waiter, &Waiter::interrupt);
    QObject::connect(&output, &Output::closed, &waiter, &Waiter::interrupt);
    if (!host.load(line.plugin)) {
        output.complain(host.errorString());
        return EXIT_FAILURE;
    }
    watch(&host, &waiter);
    const int status = carryOut(line, &host, &waiter, &output, &interrupt);
    close(&host, &waiter, &output);
    return interrupt.signalNumber() ? signalBase + interrupt.signalNumber() : status;
}
