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

// Tells programs that they run among virtual lights, and which program to give orders to.
constexpr char lightsVariable[] = "CORVELKX_LIGHTS";
constexpr char busVariable[] = "CORVELKX_LIGHTS_BUS";

constexpr int usageError = 2;
constexpr int cannotRun = 126;
constexpr int notFound = 127;
constexpr int signalBase = 128;

volatile sig_atomic_t commandPid = 0;
volatile sig_atomic_t earlySignal = 0;

// A terminal signals the command by itself; what was sent to this process alone is handed on.
// Either way this process stays until the command has ended.
void handOn(int signal, siginfo_t *info, void *)
{
    if (info->si_code > 0)
        return;
    if (commandPid > 0)
        kill(commandPid, signal);
    else
        earlySignal = signal;
}

void handSignalsOn()
{
    struct sigaction action = {};
    action.sa_sigaction = handOn;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    for (const int signal : { SIGINT, SIGTERM, SIGHUP, SIGQUIT })
        sigaction(signal, &action, nullptr);
}

int complain(const QString &sentence, int status)
{
    QTextStream(stderr) << "corvelkx-lights: " << sentence << Qt::endl;
    return status;
}

QList<QMetaMethod> orders()
{
    QList<QMetaMethod> all;
    const QMetaObject &meta = Control::staticMetaObject;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        all.append(meta.method(i));
    return all;
}

QString orderSummary()
{
    QString text;
    for (const QMetaMethod &order : orders()) {
        text += QLatin1String("\n  ") + QString::fromLatin1(order.name());
        for (const QByteArray &parameter : order.parameterNames())
            text += QLatin1Char(' ') + QString::fromLatin1(parameter).toUpper();
    }
    return text;
}

int giveOrder(const QStringList &words)
{
    if (words.isEmpty())
        return complain(QStringLiteral("ctl needs an order:") + orderSummary(), usageError);
    if (!qEnvironmentVariableIsSet(lightsVariable)) {
        return complain(QStringLiteral("No virtual lights run here; give orders from inside "
                                       "`corvelkx-lights -- COMMAND`."),
                        usageError);
    }
    const auto all = orders();
    const auto order = std::find_if(all.cbegin(), all.cend(), [&words](const QMetaMethod &m) {
        return QLatin1String(m.name()) == words.first() && m.parameterCount() == words.size() - 1;
    });
    if (order == all.cend())
        return complain(QStringLiteral("The orders are:") + orderSummary(), usageError);

    auto message = QDBusMessage::createMethodCall(Control::service, Control::path,
                                                  Control::interface, words.first());
    for (int i = 0; i < order->parameterCount(); ++i) {
        QVariant argument = words.at(i + 1);
        if (!argument.convert(order->parameterMetaType(i)))
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
        // On the air the address is the adapter's.
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
        if (isOnAir) // only the one that the single-device client looks for
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
        *error = QStringLiteral("--realistic is for lights that are not on the air.");
    else if (!options.isOnAir && (options.isJson || !options.adapters.isEmpty()))
        *error = QStringLiteral("--adapter and --json are for lights on the air; add --air.");
    else if (!options.isOnAir && options.command.isEmpty())
        *error = QStringLiteral("There is no command to run; try --help.");
    options.lights = readLights(parser, options.isOnAir, error);

    // What a Linux machine with a real adapter was seen to do.
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
        // Else Qt would run this program to ask it for the version of bluetoothd.
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
        commandPid = 0;
        QCoreApplication::exit(how == QProcess::NormalExit ? status : signalBase + status);
    });
    handSignalsOn();
    command.start(words.first(), words.mid(1));
    if (!command.waitForStarted()) {
        return complain(QStringLiteral("%1 cannot be run: %2")
                                .arg(words.first(), command.errorString()),
                        command.error() == QProcess::FailedToStart ? notFound : cannotRun);
    }
    commandPid = static_cast<sig_atomic_t>(command.processId());
    if (earlySignal)
        kill(commandPid, earlySignal);
    return QCoreApplication::exec();
}

int playOnAir(const Options &options, QDBusConnection orders, const QString &busAddress)
{
    handSignalsOn(); // from here on there is something to put back
    AirLights lights(QDBusConnection::systemBus());
    const QString wrong = lights.start(options.lights, options.adapters);
    if (!wrong.isEmpty())
        return complain(wrong, EXIT_FAILURE);
    Control control(&lights);
    orders.registerObject(Control::path, &control, QDBusConnection::ExportAllSlots);
    orders.registerService(Control::service);
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
                    "Runs COMMAND among virtual lights, on a bus of its own, and ends with its "
                    "exit status.\nThe machine's own bus and adapter are touched with --air "
                    "alone.\n\n"
                    "From inside COMMAND, `corvelkx-lights ctl ORDER...` gives orders:")
            + orderSummary());
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
              QStringLiteral("Play the lights on real adapters, one on each, for this and other "
                             "machines; until interrupted where there is no COMMAND.") },
            { QStringLiteral("adapter"),
              QStringLiteral("With --air: play on <name>, such as hci1; may be repeated."),
              QStringLiteral("name") },
            { QStringLiteral("json"),
              QStringLiteral("With --air: print what happens as one JSON object a line.") },
            { QStringLiteral("realistic"),
              QStringLiteral("Be as slow as a real adapter: 1.8 s to connect, 10 s more during a "
                             "scan, 2 s to disconnect.") },
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
        const int status = giveOrder(words.mid(1));
        // Qt's D-Bus thread outlives its own types for a moment in an orderly exit, and complains.
        std::_Exit(status);
    }

    QString error;
    const Options options = readOptions(parser, &error);
    if (!error.isEmpty())
        return complain(error, usageError);
    return serve(options);
}
