// Runs the single-device client. It is a separate program because it links the client, and the console
// host shows that a host needs nothing of ours but the library for hosts.

#include "ExitStatus.h"
#include "MYBLE.h"
#include "Output.h"
#include "Platform.h"
#include "Text.h"

#include <QBluetoothDeviceDiscoveryAgent>
#include <QChildEvent>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

using std::chrono::milliseconds;

namespace {

struct Options
{
    QList<QByteArray> payloads;
    milliseconds timeout { 30000 };
    milliseconds duration { 1000 };
    bool order = false;
};

QString sentenceFor(const QBluetoothDeviceDiscoveryAgent &scan)
{
    switch (scan.error()) {
    case QBluetoothDeviceDiscoveryAgent::InputOutputError:
    case QBluetoothDeviceDiscoveryAgent::InvalidBluetoothAdapterError:
        return QStringLiteral(
                "No Bluetooth adapter can be used: there is none, the Bluetooth service "
                "does not run, or this program is not permitted to use it.");
    case QBluetoothDeviceDiscoveryAgent::PoweredOffError:
        return QStringLiteral("The Bluetooth adapter is switched off.");
    case QBluetoothDeviceDiscoveryAgent::UnsupportedPlatformError:
    case QBluetoothDeviceDiscoveryAgent::UnsupportedDiscoveryMethod:
        return QStringLiteral("Qt Bluetooth cannot scan for lights on this system.");
    case QBluetoothDeviceDiscoveryAgent::MissingPermissionsError:
        return QStringLiteral("This program is not permitted to use Bluetooth.");
    default:
        return QStringLiteral("The scan failed: %1.").arg(scan.errorString());
    }
}

/*!
    Waits until payloads can be written to the light, writes those that are given or typed, and prints
    what the light notifies.
*/
class Single : public QObject
{
    Q_OBJECT

public:
    Single(Options options, Output *output)
        : m_options(std::move(options)), m_output(output), m_client(std::make_unique<MYBLE>())
    {
        // The client does not tell when it is ready, but its service objects are its children.
        m_client->installEventFilter(this);
        connect(m_client.get(), &MYBLE::dataReceived, this, [this](const QByteArray &data) {
            m_output->report(QStringLiteral("received"),
                             { { QStringLiteral("data"), toHex(data) } },
                             QStringLiteral("the light says ") + toHex(data));
        });
        connect(&m_limit, &QTimer::timeout, this, [this] {
            m_output->complain(
                    QStringLiteral("The light \"Corvel light(DM41)\" did not become ready "
                                   "within %1 s.")
                            .arg(double(m_options.timeout.count()) / 1000));
            QCoreApplication::exit(EXIT_FAILURE);
        });
        m_limit.setSingleShot(true);
        m_limit.start(m_options.timeout);
        watchScan();
        watchServices();
    }

    ~Single() override
    {
        // The client deletes its services; that must not be reported as a light that is gone.
        const auto services = m_client->findChildren<QLowEnergyService *>();
        for (QLowEnergyService *service : services)
            service->disconnect(this);
    }

    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::ChildAdded)
            QMetaObject::invokeMethod(this, &Single::watchServices, Qt::QueuedConnection);
        return false;
    }

private:
    void watchScan()
    {
        auto *scan = m_client->findChild<QBluetoothDeviceDiscoveryAgent *>();
        const auto tellFailure = [this, scan] {
            m_output->complain(sentenceFor(*scan));
            QCoreApplication::exit(EXIT_FAILURE);
        };
        if (scan->error() == QBluetoothDeviceDiscoveryAgent::NoError)
            connect(scan, &QBluetoothDeviceDiscoveryAgent::errorOccurred, this, tellFailure);
        else // it failed when the client was made, before the event loop
            QMetaObject::invokeMethod(this, tellFailure, Qt::QueuedConnection);
    }

    void watchServices()
    {
        const auto services = m_client->findChildren<QLowEnergyService *>();
        for (QLowEnergyService *service : services) {
            connect(service, &QLowEnergyService::stateChanged, this, &Single::beginWhenReady,
                    Qt::UniqueConnection);
            connect(service, &QLowEnergyService::errorOccurred, this, &Single::tellRefusal,
                    Qt::UniqueConnection);
        }
        beginWhenReady();
    }

    void beginWhenReady()
    {
        const auto services = m_client->findChildren<QLowEnergyService *>();
        const bool isReady =
                !services.isEmpty()
                && std::all_of(services.cbegin(), services.cend(), [](const auto *service) {
                       return service->state() == QLowEnergyService::RemoteServiceDiscovered;
                   });
        const bool isGone = std::any_of(services.cbegin(), services.cend(),
                                        [](const auto *service) {
                                            return service->state()
                                                   == QLowEnergyService::InvalidService;
                                        });
        if (isGone) {
            m_output->complain(QStringLiteral("The light is gone."));
            QCoreApplication::exit(EXIT_FAILURE);
        } else if (isReady && m_limit.isActive()) {
            m_limit.stop();
            m_output->report(QStringLiteral("ready"), {}, QStringLiteral("the light is ready"));
            // Queued, because the client's own slot may still have to bind the characteristics.
            QMetaObject::invokeMethod(this, &Single::begin, Qt::QueuedConnection);
        }
    }

    void begin()
    {
        for (const QByteArray &payload : std::as_const(m_options.payloads))
            send(payload);
        if (!m_options.payloads.isEmpty()) {
            finishLater();
            return;
        }
        auto *input = new StandardInput(this);
        connect(input, &StandardInput::readyRead, this, [this, input] {
            const QByteArray bytes = input->read();
            const bool hasEnded = bytes.isEmpty();
            m_typed += hasEnded ? QByteArray("\n") : bytes;
            sendTyped();
            if (hasEnded) {
                input->disconnect(this);
                input->deleteLater();
                finishLater();
            }
        });
    }

    void sendTyped()
    {
        for (auto end = m_typed.indexOf('\n'); end >= 0; end = m_typed.indexOf('\n')) {
            const QString line = QString::fromUtf8(m_typed.left(end)).trimmed();
            m_typed.remove(0, end + 1);
            if (line.isEmpty())
                continue;
            if (const auto payload = bytesFromHex(line)) {
                send(*payload);
                continue;
            }
            m_output->complain(notHex(line));
            m_status = usageError;
        }
    }

    void send(const QByteArray &payload)
    {
        if (m_options.order)
            m_client->sendMessageOrder(payload);
        else
            m_client->sendMessage(payload);
        m_output->report(QStringLiteral("sent"), { { QStringLiteral("data"), toHex(payload) } },
                         QStringLiteral("the light was sent ") + toHex(payload));
    }

    void tellRefusal()
    {
        m_output->complain(QStringLiteral("The light refused a payload."));
        m_status = EXIT_FAILURE;
    }

    void finishLater()
    {
        QTimer::singleShot(m_options.duration, this, [this] { QCoreApplication::exit(m_status); });
    }

    Options m_options;
    Output *m_output;
    std::unique_ptr<MYBLE> m_client;
    QTimer m_limit;
    QByteArray m_typed;
    int m_status = EXIT_SUCCESS;
};

bool readSeconds(const QCommandLineParser &parser, const QString &name, milliseconds *value)
{
    if (!parser.isSet(name))
        return true;
    const auto given = fromSeconds(parser.value(name));
    *value = given.value_or(*value);
    return given.has_value();
}

// Returns what is wrong with the command line, or an empty text.
QString parse(QCommandLineParser &parser, Options *options)
{
    parser.setApplicationDescription(QStringLiteral(
            "Finds the light \"Corvel light(DM41)\" and sends it payloads. It does not subscribe "
            "to notifications.\nWithout a payload, payloads are read from the standard input, one "
            "a line."));
    parser.addOption(
            { { QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Show this help.") });
    parser.addVersionOption();
    parser.addOptions({
            { QStringLiteral("order"), QStringLiteral("Write to the order service.") },
            { QStringLiteral("timeout"),
              QStringLiteral("Wait at most <seconds> for the light; 30 by default."),
              QStringLiteral("seconds") },
            { QStringLiteral("for"),
              QStringLiteral("Stay connected for <seconds> after the last payload; 1 by default."),
              QStringLiteral("seconds") },
            { QStringLiteral("log"),
              QStringLiteral("Show the client's debug log on standard error.") },
            { QStringLiteral("json"),
              QStringLiteral("Print each event as a JSON object on a line of its own.") },
    });
    parser.addPositionalArgument(QStringLiteral("HEX"), QStringLiteral("Payloads."),
                                 QStringLiteral("[HEX...]"));
    if (!parser.parse(QCoreApplication::arguments()))
        return parser.errorText();
    if (parser.isSet(QStringLiteral("version")))
        parser.showVersion();
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp();

    options->order = parser.isSet(QStringLiteral("order"));
    if (!readSeconds(parser, QStringLiteral("timeout"), &options->timeout)
        || !readSeconds(parser, QStringLiteral("for"), &options->duration))
        return QStringLiteral("--timeout and --for take a number of seconds from 0 to 86400.");
    const QStringList words = parser.positionalArguments();
    for (const QString &word : words) {
        const auto payload = bytesFromHex(word);
        if (!payload)
            return notHex(word);
        options->payloads.append(*payload);
    }
    return {};
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("corvelkx-single"));
    QCoreApplication::setApplicationVersion(QStringLiteral(PROJECT_VERSION));

    Output output;
    QCommandLineParser parser;
    Options options;
    const QString wrong = parse(parser, &options);
    output.setJson(parser.isSet(QStringLiteral("json")));
    if (!wrong.isEmpty()) {
        output.complain(wrong);
        return usageError;
    }
    showLog(parser.isSet(QStringLiteral("log")));

    Interrupt interrupt;
    QObject::connect(&interrupt, &Interrupt::interrupted, &app, &QCoreApplication::quit);
    QObject::connect(&output, &Output::closed, &app, &QCoreApplication::quit);
    int status = EXIT_SUCCESS;
    {
        const Single single(options, &output);
        status = QCoreApplication::exec();
    }
    return interrupt.signalNumber() ? signalBase + interrupt.signalNumber() : status;
}

#include "single.moc"
