#include "AirLights.h"
#include "BluetoothDaemon.h"
#include "Control.h"
#include "PrivateBus.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaMethod>
#include <QTextStream>

#include <algorithm>
#include <csignal>
#include <cstdlib>

namespace {

// Set for the programs that run among virtual lights: this program, which sends the lights their
// commands, and the bus on which they take them.
constexpr char lightsVariable[] = "CORVELKX_LIGHTS";
constexpr char busVariable[] = "CORVELKX_LIGHTS_BUS";

constexpr int usageError = 2;
constexpr int cannotRun = 126;
constexpr int notFound = 127;
constexpr int signalBase = 128;

volatile sig_atomic_t childPid = 0;
volatile sig_atomic_t earlySignal = 0;

// A terminal signals the child process by itself (si_code > 0), so only a signal that was sent to
// this process alone is forwarded. Either way this process stays until the child has ended.
void forwardSignal(int signal, siginfo_t *info, void *)
{
    if (info->si_code > 0)
        return;
    if (childPid > 0)
        kill(childPid, signal);
    else
        earlySignal = signal;
}

void forwardSignals()
{
    struct sigaction action = {};
    action.sa_sigaction = forwardSignal;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    for (const int signal : { SIGINT, SIGTERM, SIGHUP, SIGQUIT })
        sigaction(signal, &action, nullptr);
}

int complain(const QString &sentence, int status)
{
    QTextStream(stderr) << "corvelkx-lights: " << sentence << Qt::endl;
    return status;
}

QList<QMetaMethod> commands()
{
    QList<QMetaMethod> all;
    const QMetaObject &meta = Control::staticMetaObject;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        all.append(meta.method(i));
    return all;
}

QString usage(const QMetaMethod &command)
{
    QString text = QString::fromLatin1(command.name());
    for (const QByteArray &parameter : command.parameterNames())
        text += QLatin1Char(' ') + QString::fromLatin1(parameter).toUpper();
    return text;
}

// A line for each command; help2man recognises the layout as a list.
QString commandList()
{
    constexpr int width = 24;
    QString text;
    const QMetaObject &meta = Control::staticMetaObject;
    for (const QMetaMethod &command : commands()) {
        const char *help = meta.classInfo(meta.indexOfClassInfo(command.name())).value();
        const QString call = usage(command);
        const QString gap = call.size() <= width - 2
                                    ? QString(width - call.size(), QLatin1Char(' '))
                                    : QLatin1Char('\n') + QString(width + 2, QLatin1Char(' '));
        text += QLatin1String("\n  ") + call + gap + QLatin1String(help);
    }
    return text;
}

int runControl(const QStringList &words)
{
    if (words.isEmpty())
        return complain(QStringLiteral("ctl needs a command:") + commandList(), usageError);
    const auto all = commands();
    const auto command = std::find_if(all.cbegin(), all.cend(), [&words](const QMetaMethod &m) {
        return QLatin1String(m.name()) == words.first();
    });
    if (command == all.cend()) {
        return complain(QStringLiteral("\"%1\" is not a command of ctl:").arg(words.first())
                                + commandList(),
                        usageError);
    }
    if (command->parameterCount() != words.size() - 1)
        return complain(QStringLiteral("Usage: ctl %1").arg(usage(*command)), usageError);
    if (!qEnvironmentVariableIsSet(lightsVariable)) {
        return complain(QStringLiteral("No virtual lights run here; use ctl inside "
                                       "`corvelkx-lights -- COMMAND`."),
                        usageError);
    }

    auto message = QDBusMessage::createMethodCall(Control::service, Control::path,
                                                  Control::interface, words.first());
    for (int i = 0; i < command->parameterCount(); ++i) {
        QVariant argument = words.at(i + 1);
        if (!argument.convert(command->parameterMetaType(i)))
            return complain(QStringLiteral("\"%1\" is not a number.").arg(words.at(i + 1)),
                            usageError);
        message << argument;
    }
    const QDBusMessage answer = QDBusConnection::connectToBus(qEnvironmentVariable(busVariable),
                                                              Control::service)
                                        .call(message);
    if (answer.type() == QDBusMessage::ErrorMessage)
        return complain(answer.errorMessage(), EXIT_FAILURE);
    const auto results = answer.arguments();
    for (const QVariant &result : results) {
        const QStringList lines = result.toStringList();
        for (const QString &line : lines)
            QTextStream(stdout) << line << Qt::endl;
    }
    return EXIT_SUCCESS;
}

struct Options
{
    QList<Light> lights;
    QStringList command;
    bool isRealistic = false;
    bool isOnAir = false;
    bool isJson = false;
    QStringList adapters;
};

QList<Light> readLights(const QCommandLineParser &parser, bool isOnAir, QString *error)
{
    QList<Light> lights;
    if (parser.isSet(QStringLiteral("lights")))
        lights = lightsFromFile(parser.value(QStringLiteral("lights")), error);
    const QStringList descriptions = parser.values(QStringLiteral("light"));
    for (const QString &description : descriptions) {
        QString wrong;
        // The address of a light on a real adapter is the adapter's own.
        const QString given = (isOnAir ? QStringLiteral("address=00:00:00:00:00:00,") : QString())
                              + description;
        lights.append(lightFromText(given, &wrong));
        if (!wrong.isEmpty())
            *error = QStringLiteral("--light %1: %2").arg(description, wrong);
    }
    if (parser.isSet(QStringLiteral("crowd"))) {
        bool isNumber = false;
        const int count = parser.value(QStringLiteral("crowd")).toInt(&isNumber);
        if (!isNumber || count < 1 || count > 65536)
            *error = QStringLiteral("--crowd takes a number from 1 to 65536.");
        else
            lights += crowdOfLights(count);
    }
    if (lights.isEmpty() && error->isEmpty()) {
        lights = defaultLights();
        if (isOnAir) // only the one that MYBLE looks for: most machines have one adapter
            lights.removeIf([](const Light &light) { return light.type != 3; });
    }
    return lights;
}

Options readOptions(const QCommandLineParser &parser, QString *error)
{
    Options options;
    options.command = parser.positionalArguments();
    options.adapters = parser.values(QStringLiteral("adapter"));
    options.isOnAir = parser.isSet(QStringLiteral("air"));
    options.isJson = parser.isSet(QStringLiteral("json"));
    options.isRealistic = parser.isSet(QStringLiteral("realistic"));
    if (options.isOnAir && options.isRealistic)
        *error = QStringLiteral("--realistic and --air cannot be combined.");
    else if (!options.isOnAir && (options.isJson || !options.adapters.isEmpty()))
        *error = QStringLiteral("--adapter and --json need --air.");
    else if (!options.isOnAir && options.command.isEmpty())
        *error = QStringLiteral("There is no COMMAND to run; try --help.");
    options.lights = readLights(parser, options.isOnAir, error);

    // As measured on Linux with a real bluetoothd.
    if (options.isRealistic) {
        for (Light &light : options.lights) {
            light.latency = 1800;
            light.disconnectDelay = 2000;
        }
    }
    return options;
}

int runCommand(const Options &options, const QString &busAddress)
{
    const QStringList words = options.command.isEmpty() ? QStringList { QStringLiteral("sleep"),
                                                                        QStringLiteral("infinity") }
                                                        : options.command;
    QProcess command;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (!options.isOnAir) {
        environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), busAddress);
        // Otherwise Qt runs the owner of org.bluez, which is this program, with --version.
        environment.insert(QStringLiteral("BLUETOOTH_FORCE_DBUS_LE_VERSION"),
                           QStringLiteral("5.66"));
    }
    environment.insert(QString::fromLatin1(busVariable), busAddress);
    environment.insert(QString::fromLatin1(lightsVariable),
                       QCoreApplication::applicationFilePath());
    command.setProcessEnvironment(environment);
    command.setProcessChannelMode(QProcess::ForwardedChannels);
    command.setInputChannelMode(QProcess::ForwardedInputChannel);
    command.setChildProcessModifier(endWithParent);

    QObject::connect(&command, &QProcess::finished, qApp, [](int status, QProcess::ExitStatus how) {
        childPid = 0;
        QCoreApplication::exit(how == QProcess::NormalExit ? status : signalBase + status);
    });
    forwardSignals();
    command.start(words.first(), words.mid(1));
    if (!command.waitForStarted()) {
        return complain(QStringLiteral("%1 cannot be run: %2")
                                .arg(words.first(), command.errorString()),
                        command.error() == QProcess::FailedToStart ? notFound : cannotRun);
    }
    childPid = static_cast<sig_atomic_t>(command.processId());
    if (earlySignal)
        kill(childPid, earlySignal);
    return QCoreApplication::exec();
}

int playOnAir(const Options &options, QDBusConnection controlBus, const QString &busAddress)
{
    forwardSignals(); // from here on there is something to restore at the end
    AirLights lights(QDBusConnection::systemBus());
    const QString wrong = lights.start(options.lights, options.adapters);
    if (!wrong.isEmpty())
        return complain(wrong, EXIT_FAILURE);
    Control control(&lights);
    controlBus.registerObject(Control::path, &control, QDBusConnection::ExportAllSlots);
    controlBus.registerService(Control::service);
    QObject::connect(&lights, &AirLights::failed,
                     [](const QString &sentence) { complain(sentence, EXIT_FAILURE); });
    const auto print = [&options](const Device &device, const QString &event,
                                  const QString &detail) {
        const QJsonObject object { { QStringLiteral("address"), device.light.address },
                                   { QStringLiteral("event"), event },
                                   { QStringLiteral("detail"), detail } };
        QTextStream(stdout)
                << (options.isJson
                            ? QString::fromUtf8(
                                    QJsonDocument(object).toJson(QJsonDocument::Compact))
                            : QStringLiteral("%1 %2 %3").arg(device.light.address, event, detail))
                << Qt::endl;
    };
    if (options.command.isEmpty()) {
        lights.happened = print;
        const auto devices = lights.devices();
        for (const Device *device : devices)
            print(*device, QStringLiteral("advertised"), lights.adapterOf(device));
    }
    return runCommand(options, busAddress);
}

int playStandIn(const Options &options, QDBusConnection bus, const QString &busAddress)
{
    BluetoothDaemon daemon(bus);
    Control control(&daemon, &daemon);
    bus.registerObject(Control::path, &control, QDBusConnection::ExportAllSlots);
    daemon.setRealistic(options.isRealistic);
    for (const Light &light : options.lights)
        daemon.add(light);
    if (bus.registerService(Control::service) && daemon.enterBus())
        return runCommand(options, busAddress);
    return complain(QStringLiteral("The private bus cannot be used: %1")
                            .arg(bus.lastError().message()),
                    EXIT_FAILURE);
}

int serve(const Options &options)
{
    PrivateBus privateBus;
    if (!privateBus.start())
        return complain(privateBus.error(), EXIT_FAILURE);
    const QString name = QStringLiteral("lights");
    const auto play = options.isOnAir ? playOnAir : playStandIn;
    const int status = play(options, QDBusConnection::connectToBus(privateBus.address(), name),
                            privateBus.address());
    QDBusConnection::disconnectFromBus(name);
    return status;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("corvelkx-lights"));
    QCoreApplication::setApplicationVersion(QStringLiteral(PROJECT_VERSION));

    QCommandLineParser parser;
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    parser.setApplicationDescription(
            QStringLiteral(
                    "Runs COMMAND among virtual lights, on a private D-Bus, and ends with the exit "
                    "status of COMMAND.\nThe machine's own bus and adapter are used only with "
                    "--air.\n\n"
                    "Inside COMMAND, `corvelkx-lights ctl` takes these commands:\n")
            + commandList());
    parser.addOption(
            { { QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Show this help.") });
    parser.addVersionOption();
    parser.addOptions({
            { QStringLiteral("lights"), QStringLiteral("Offer the lights of the JSON file <file>."),
              QStringLiteral("file") },
            { QStringLiteral("light"),
              QStringLiteral("Offer the light <description>, \"key=value,key=value\" with the keys "
                             "of a light file; may be repeated."),
              QStringLiteral("description") },
            { QStringLiteral("crowd"), QStringLiteral("Offer <count> lights of all types."),
              QStringLiteral("count") },
            { QStringLiteral("air"),
              QStringLiteral("Play each light on a real adapter, for hosts on this and other "
                             "machines; without a COMMAND, until interrupted.") },
            { QStringLiteral("adapter"),
              QStringLiteral("With --air: play on <name>, such as hci1; may be repeated."),
              QStringLiteral("name") },
            { QStringLiteral("json"),
              QStringLiteral(
                      "With --air: print each event as a JSON object on a line of its own.") },
            { QStringLiteral("realistic"),
              QStringLiteral("Behave like a real adapter: 1.8 s to connect, 10 s more during a "
                             "scan, 2 s to disconnect; a restarted bluetoothd has forgotten "
                             "advertisements.") },
    });
    parser.addPositionalArgument(QStringLiteral("COMMAND"), QStringLiteral("What to run."),
                                 QStringLiteral("-- COMMAND..."));
    if (!parser.parse(QCoreApplication::arguments()))
        return complain(parser.errorText(), usageError);
    if (parser.isSet(QStringLiteral("version")))
        parser.showVersion();
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp();

    const QStringList words = parser.positionalArguments();
    if (words.value(0) == QLatin1String("ctl")) {
        const int status = runControl(words.mid(1));
        // In a normal exit Qt's D-Bus thread may outlive Qt's own static data, and warns.
        std::_Exit(status);
    }

    QString error;
    const Options options = readOptions(parser, &error);
    if (!error.isEmpty())
        return complain(error, usageError);
    return serve(options);
}
