#include "Commands.h"
#include "Demo.h"
#include "Interrupt.h"
#include "Output.h"
#include "Session.h"
#include "Shell.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QStandardPaths>
#include <QTextStream>

#include <cerrno>
#include <cstring>
#include <unistd.h>

using std::chrono::milliseconds;

namespace {

constexpr int signalBase = 128;
constexpr milliseconds closeLimit(5000);

constexpr char description[] =
        "Finds, connects and talks with CorvelKX lights through the plugin.\n"
        "\n"
        "Commands:\n"
        "  scan                   print each light once: type, address, name\n"
        "  connect ADDRESS...     connect lights, tell when they are ready, let them go\n"
        "  send ADDRESS HEX       send one payload and print what comes back\n"
        "  listen ADDRESS...      print what the lights send, until interrupted\n"
        "  demo                   the whole road, from the scan to the farewell\n"
        "  shell                  the same commands typed by hand; try help there\n"
        "\n"
        "Exit status: 0 what was asked happened; 1 it did not; 2 the command line is wrong;\n"
        "128 + N ended by signal N.";

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
};

QString defaultPlugin()
{
    const QDir directory(QCoreApplication::applicationDirPath() + QLatin1Char('/')
                         + QLatin1String(PLUGIN_DIR_FROM_BIN));
    return QDir::cleanPath(directory.filePath(QStringLiteral("libCorvelKXBleDLL.so")));
}

std::optional<milliseconds> secondsOption(const QCommandLineParser &parser, const QString &name,
                                          QString *error)
{
    if (!parser.isSet(name))
        return std::nullopt;
    bool isNumber = false;
    const double value = parser.value(name).toDouble(&isNumber);
    if (!isNumber || !(value >= 0 && value <= 86400))
        *error = QStringLiteral("--%1 takes a number of seconds.").arg(name);
    return milliseconds(isNumber ? qRound64(value * 1000) : 0);
}

// Returns what is wrong with the command, or nothing.
QString check(const QStringList &words)
{
    if (words.isEmpty())
        return QStringLiteral("There is no command; try --help.");
    const QString &name = words.first();
    const auto given = words.size() - 1;
    if (name == QLatin1String("scan") || name == QLatin1String("demo")
        || name == QLatin1String("shell"))
        return given == 0 ? QString() : QStringLiteral("%1 takes no more words.").arg(name);
    if (name == QLatin1String("connect") || name == QLatin1String("listen"))
        return given > 0 ? QString() : QStringLiteral("%1 needs an address.").arg(name);
    if (name == QLatin1String("send"))
        return given == 2 ? QString() : QStringLiteral("send needs an address and a payload.");
    return QStringLiteral("\"%1\" is no command; try --help.").arg(printable(name));
}

CommandLine parse()
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(description));
    parser.addHelpOption();
    parser.addVersionOption();
    const auto option = [&parser](const char *name, const char *text, const char *value = nullptr) {
        parser.addOption({ QLatin1String(name), QLatin1String(text),
                           value ? QLatin1String(value) : QLatin1String() });
    };
    option("simulate", "Use virtual lights instead of an adapter.");
    option("lights", "Use the virtual lights of the JSON file <file>; implies --simulate.", "file");
    option("plugin", "Load the plugin from <file>.", "file");
    option("log", "Show the debug log on the standard error output.");
    option("json", "Print one JSON object a line.");
    option("timeout", "Wait at most <seconds> for each thing; 30 by default.", "seconds");
    option("for", "Scan or listen for <seconds>; 20 and for ever by default.", "seconds");
    option("count", "Listen for <number> messages.", "number");
    option("answer", "Let send fail where no answer comes.");
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
    line.plugin = parser.isSet(QStringLiteral("plugin")) ? parser.value(QStringLiteral("plugin"))
                                                         : defaultPlugin();
    line.lights = parser.value(QStringLiteral("lights"));
    line.simulate = parser.isSet(QStringLiteral("simulate")) || !line.lights.isEmpty();
    line.log = parser.isSet(QStringLiteral("log"));
    line.json = parser.isSet(QStringLiteral("json"));
    line.error = check(line.words);
    line.waits.duration = secondsOption(parser, QStringLiteral("for"), &line.error);
    line.waits.timeout = secondsOption(parser, QStringLiteral("timeout"), &line.error)
                                 .value_or(line.waits.timeout);
    line.waits.answerRequired = parser.isSet(QStringLiteral("answer"));
    if (parser.isSet(QStringLiteral("count"))) {
        bool isNumber = false;
        line.waits.messages = parser.value(QStringLiteral("count")).toULongLong(&isNumber);
        if (!isNumber || line.waits.messages == 0)
            line.error = QStringLiteral("--count takes a number of messages.");
    }
    return line;
}

void logToStandardError(QtMsgType, const QMessageLogContext &, const QString &message)
{
    QTextStream(stderr) << message << Qt::endl;
}

// Becomes the program that offers virtual lights, which runs this one again among them.
QString enterVirtualLights(const CommandLine &line)
{
    const QString program = QCoreApplication::applicationDirPath()
                            + QLatin1String("/corvelkx-lights");
    QStringList words { program };
    if (!line.lights.isEmpty())
        words += { QStringLiteral("--lights"), line.lights };
    words += { QStringLiteral("--"), QCoreApplication::applicationFilePath() };
    words += QCoreApplication::arguments().mid(1);

    QList<QByteArray> bytes;
    for (const QString &word : std::as_const(words))
        bytes.append(QFile::encodeName(word));
    std::vector<char *> arguments;
    for (QByteArray &word : bytes)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execv(arguments.front(), arguments.data());
    return QStringLiteral("The virtual lights cannot be started: %1: %2")
            .arg(program, QString::fromLocal8Bit(std::strerror(errno)));
}

int carryOut(const CommandLine &line, Session *session, Output *output, Interrupt *interrupt)
{
    const QString &name = line.words.first();
    const QString address = line.words.value(1).toUpper();
    if (name == QLatin1String("demo"))
        return Demo(session, output, line.waits.timeout).run() ? EXIT_SUCCESS : EXIT_FAILURE;

    Commands commands(session, output, line.waits);
    if (name == QLatin1String("scan"))
        return commands.scan();
    printSignals(session, output);
    if (name == QLatin1String("shell"))
        return runShell(session, output, interrupt, line.waits);
    if (name == QLatin1String("send"))
        return commands.send(address, line.words.at(2));
    QStringList addresses;
    for (const QString &word : line.words.mid(1))
        addresses.append(word.toUpper());
    return name == QLatin1String("listen") ? commands.listen(addresses)
                                           : commands.connectLights(addresses);
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
    if (line.simulate && !qEnvironmentVariableIsSet("CORVELKX_LIGHTS")) {
        output.complain(enterVirtualLights(line));
        return EXIT_FAILURE;
    }

    qInstallMessageHandler(logToStandardError);
    QLoggingCategory::setFilterRules(line.log ? QStringLiteral("*.debug=false\ndefault.debug=true")
                                              : QStringLiteral("*.debug=false\n*.info=false\n"
                                                               "*.warning=false"));
    Interrupt interrupt;
    Session session;
    QObject::connect(&interrupt, &Interrupt::interrupted, &session, &Session::interrupt);
    QObject::connect(&output, &Output::closed, &session, &Session::interrupt);
    const QString wrong = session.load(line.plugin);
    if (!wrong.isEmpty()) {
        output.complain(wrong);
        return EXIT_FAILURE;
    }
    const int status = carryOut(line, &session, &output, &interrupt);
    session.close(closeLimit);
    return interrupt.signalNumber() ? signalBase + interrupt.signalNumber() : status;
}
