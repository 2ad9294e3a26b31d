// The single-device client at work. A program apart from the console host, because it links the
// client, while the host shows that a host needs nothing of ours but the interface header.

#include "ExitStatus.h"
#include "Interrupt.h"
#include "MYBLE.h"
#include "Output.h"
#include "Text.h"

#include <QChildEvent>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <memory>
#include <unistd.h>
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

/*!
    Waits until the light can be written, writes the given payloads or those that are typed, and
    prints what it notifies.
*/
class Single : public QObject
{
    Q_OBJECT

public:
    Single(Options options, Output *output)
        : m_options(std::move(options)), m_output(output), m_client(std::make_unique<MYBLE>())
    {
        // The client tells nobody when it is ready, but its service objects are its children.
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
        watchServices();
    }

    ~Single() override
    {
        // That the services go with the client is no news.
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
            // The client's own slot comes first: it may still have to bind.
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
        auto *notifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
        connect(notifier, &QSocketNotifier::activated, this, [this, notifier] {
            char bytes[4096];
            const auto count = read(STDIN_FILENO, bytes, sizeof(bytes));
            m_typed.append(bytes, qMax<qsizetype>(count, 0));
            if (count <= 0) {
                notifier->setEnabled(false);
                m_typed += '\n';
            }
            sendTyped();
            if (count <= 0)
                finishLater();
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

// Returns what is wrong with the command line, or nothing.
QString parse(QCommandLineParser &parser, Options *options)
{
    parser.setApplicationDescription(QStringLiteral(
            "Finds the light \"Corvel light(DM41)\", sends it payloads and prints what it "
            "notifies.\nWithout a payload, payloads are read from the standard input, one a "
            "line."));
    parser.addOption(
            { { QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Show this help.") });
    parser.addVersionOption();
    parser.addOptions({
            { QStringLiteral("order"), QStringLiteral("Write to the order service.") },
            { QStringLiteral("timeout"),
              QStringLiteral("Wait at most <seconds> for the light; 30 by default."),
              QStringLiteral("seconds") },
            { QStringLiteral("for"),
              QStringLiteral("Stay for <seconds> after the last payload; 1 by default."),
              QStringLiteral("seconds") },
            { QStringLiteral("log"),
              QStringLiteral("Show the debug log on the standard error output.") },
            { QStringLiteral("json"), QStringLiteral("Print one JSON object a line.") },
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
        return QStringLiteral("--timeout and --for take a number of seconds.");
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
