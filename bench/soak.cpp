// Brings lights up and down at random, breaks them at random, and tells what that leaves behind.
// Runs among virtual lights of its own choice: corvelkx-lights --crowd 12 -- corvelkx-soak
#include "CorvelKXBleInterface.h"
#include "Support.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QPluginLoader>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <limits>
#include <memory>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr int lookInterval = 20; // ms, for what tells nobody of a change
constexpr int reportInterval = 1000;
constexpr int mostOfAService = 12000; // bytes; scripts/bench measures one

// What the log tells, on whatever thread.
std::atomic_int servicesMade = 0;
std::atomic_int disconnectionsToTell = 0;

void readLog(QtMsgType, const QMessageLogContext &, const QString &line)
{
    if (line.contains(QLatin1String(" contains uuid. uuid: ")))
        ++servicesMade;
    const bool isLost = line.startsWith(QLatin1String("BLEManager::slotDeviceDisconnected"))
                        || line.endsWith(QLatin1String("::InvalidBluetoothAdapterError"));
    if (isLost && !line.contains(QLatin1String("\"\"")))
        ++disconnectionsToTell;
}

struct Footprint
{
    qint64 residentKilobytes = 0;
    qint64 heap = 0;
    qsizetype files = 0;
    qsizetype threads = 0;
    uint matches = 0;
    int services = 0;

    static Footprint now()
    {
        Footprint f;
        QFile statm(QStringLiteral("/proc/self/statm"));
        if (statm.open(QIODevice::ReadOnly))
            f.residentKilobytes = statm.readAll().split(' ').value(1).toLongLong() * 4;
        f.heap = heapSize();
        f.services = servicesMade;
        const auto entries = [](const char *path) {
            return QDir(QLatin1String(path))
                    .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
                    .size();
        };
        f.files = entries("/proc/self/fd");
        f.threads = entries("/proc/self/task");
        const QDBusConnection bus = QDBusConnection::systemBus();
        QDBusInterface stats(QStringLiteral("org.freedesktop.DBus"),
                             QStringLiteral("/org/freedesktop/DBus"),
                             QStringLiteral("org.freedesktop.DBus.Debug.Stats"), bus);
        const QDBusReply<QVariantMap> reply = stats.call(QStringLiteral("GetConnectionStats"),
                                                         bus.baseService());
        f.matches = reply.value().value(QStringLiteral("MatchRules")).toUInt();
        return f;
    }
};

} // namespace

// A host that does with each light, over and over: connect, talk, lose it in some way, get it back.
class Soak : public QObject
{
    Q_OBJECT

public:
    // \a patience is what the host has with one light.
    Soak(CorvelKXBleInterface *plugin, quint32 seed, std::chrono::seconds patience);

    // Runs until so many cycles are done or the time is over; ends the program where it went wrong.
    void run(int cycles, QDeadlineTimer deadline);
    int cycles() const { return m_cycles; }
    void printHead() const;
    Footprint printReport();

private:
    enum class State { Unknown, Connecting, Talking, Leaving };
    struct Peer
    {
        State state = State::Unknown;
        QByteArray payload;
        QTimer *limit = nullptr;
    };

    void onDiscovered(int type, const QString &address, const QString &name);
    void onConnected(const QString &address);
    void onDisconnected(const QString &address);
    void onMessage(const QString &address, const QByteArray &data);

    void enter(const QString &address, State state);
    void startOver(const QString &address);
    void breakLink(const QString &address);
    void breakSurroundings();
    void scanIfNeeded();
    bool comeToRest();
    void fail(const QString &what);

    CorvelKXBleInterface *m_plugin;
    QRandomGenerator m_random;
    std::chrono::seconds m_patience;
    QMap<QString, Peer> m_lights;
    QTimer m_rescan;
    QElapsedTimer m_elapsed;
    QString m_failure;
    bool m_isResting = false;
    bool m_isScanning = false;
    int m_cycles = 0;
    int m_timeouts = 0;
    int m_disconnections = 0;
    quint32 m_payloads = 0;
};

Soak::Soak(CorvelKXBleInterface *plugin, quint32 seed, std::chrono::seconds patience)
    : m_plugin(plugin), m_random(seed), m_patience(patience)
{
    m_elapsed.start();
    const QStringList addresses = lightsHere();
    for (const QString &address : addresses) {
        Peer &peer = m_lights[address];
        peer.limit = new QTimer(this);
        peer.limit->setSingleShot(true);
        connect(peer.limit, &QTimer::timeout, this, [this, address] {
            ++m_timeouts;
            startOver(address);
        });
    }
    m_rescan.setSingleShot(true);
    m_rescan.setInterval(20ms);
    connect(&m_rescan, &QTimer::timeout, this, &Soak::scanIfNeeded);
    connect(plugin, &CorvelKXBleInterface::sigDeviceDiscovered, this, &Soak::onDiscovered);
    connect(plugin, &CorvelKXBleInterface::sigDeviceDiscoveredFinished, this, [this] {
        m_isScanning = false;
        m_rescan.start();
    });
    connect(plugin, &CorvelKXBleInterface::sigDeviceConnected, this, &Soak::onConnected);
    connect(plugin, &CorvelKXBleInterface::sigDeviceDisconnected, this, &Soak::onDisconnected);
    connect(plugin, &CorvelKXBleInterface::sigMessageReceived, this, &Soak::onMessage);
}

void Soak::fail(const QString &what)
{
    if (m_failure.isEmpty())
        m_failure = what;
}

void Soak::enter(const QString &address, State state)
{
    Peer &peer = m_lights[address];
    peer.state = state;
    if (state == State::Unknown)
        peer.limit->stop();
    else
        peer.limit->start(m_patience);
}

void Soak::startOver(const QString &address)
{
    m_plugin->removeDevice(address);
    order("set", { address, QStringLiteral("writes"), QStringLiteral("accept") });
    order("set", { address, QStringLiteral("connect"), QStringLiteral("accept") });
    order("drop", { address }); // what hangs or stands for nobody
    enter(address, State::Unknown);
    m_rescan.start();
}

void Soak::scanIfNeeded()
{
    const bool isNeeded = std::any_of(m_lights.cbegin(), m_lights.cend(), [](const Peer &peer) {
        return peer.state == State::Unknown;
    });
    if (isNeeded && !m_isResting) {
        m_isScanning = true;
        m_plugin->start(); // anew, for a light that was seen already is not told twice
    } else if (!isNeeded && m_isScanning) {
        m_isScanning = false;
        m_plugin->stop();
    }
}

void Soak::onDiscovered(int type, const QString &address, const QString &name)
{
    static const QRegularExpression known(
            QStringLiteral("\\ACorvel (light|J7300)\\([0-9A-F]{4}\\)\\z"));
    if (!m_lights.contains(address) || !known.match(name).hasMatch() || type < 1)
        fail(QStringLiteral("%1 was announced as %2").arg(address, name));
    if (m_isResting || m_lights.value(address).state != State::Unknown)
        return;
    enter(address, State::Connecting);
    m_plugin->connectToDevice(address);
    scanIfNeeded();
}

void Soak::onConnected(const QString &address)
{
    Peer &peer = m_lights[address];
    if (peer.state == State::Unknown)
        return; // let go while it was being connected
    peer.payload = address.toLatin1() + QByteArray::number(++m_payloads);
    enter(address, State::Talking);
    m_plugin->sendMessage(address, peer.payload);
}

void Soak::onMessage(const QString &address, const QByteArray &data)
{
    if (!data.startsWith(address.toLatin1()))
        fail(QStringLiteral("%1 says \"%2\"").arg(address, QLatin1String(data)));
    if (m_lights.value(address).state == State::Talking && data == m_lights.value(address).payload)
        breakLink(address);
}

void Soak::onDisconnected(const QString &address)
{
    ++m_disconnections;
    if (m_lights.value(address).state != State::Leaving)
        return;
    enter(address, State::Connecting);
    m_plugin->reconnectDevice(address);
}

void Soak::breakLink(const QString &address)
{
    ++m_cycles;
    enter(address, State::Leaving);
    if (m_random.bounded(100) == 0)
        breakSurroundings();
    switch (m_random.bounded(10)) {
    case 0:
        m_plugin->removeDevice(address);
        enter(address, State::Unknown);
        m_rescan.start();
        break;
    case 1: // the next write is refused, and the light let go without a word
        order("set", { address, QStringLiteral("writes"), QStringLiteral("refuse") });
        m_plugin->sendMessage(address, address.toLatin1());
        startOver(address);
        break;
    case 2:
        order("vanish", { address });
        m_plugin->sendMessage(address, address.toLatin1());
        startOver(address);
        break;
    case 3: // twice at once
        m_plugin->connectToDevice(address);
        m_plugin->reconnectDevice(address);
        startOver(address);
        break;
    case 4:
        order("set", { address, QStringLiteral("connect"),
                       m_random.bounded(2) ? QStringLiteral("refuse") : QStringLiteral("hang") });
        order("drop", { address });
        m_plugin->reconnectDevice(address);
        startOver(address);
        break;
    default:
        order("drop", { address });
        break;
    }
}

void Soak::breakSurroundings()
{
    switch (m_random.bounded(4)) {
    case 0:
        order("adapter", { QStringLiteral("off") });
        order("adapter", { QStringLiteral("on") });
        break;
    case 1:
        order("adapter", { QStringLiteral("remove") });
        order("adapter", { QStringLiteral("return") });
        break;
    case 2:
        order("daemon", { QStringLiteral("leave") });
        order("daemon", { QStringLiteral("return") });
        break;
    default:
        order("daemon", { QStringLiteral("kill") });
        order("daemon", { QStringLiteral("return") });
        break;
    }
}

void Soak::run(int cycles, QDeadlineTimer deadline)
{
    m_rescan.start();
    const int goal = m_cycles + cycles;
    while (m_cycles < goal && !deadline.hasExpired() && m_failure.isEmpty()) {
        const int before = m_cycles;
        if (!waitFor([&] { return m_cycles > before || !m_failure.isEmpty(); }))
            fail(QStringLiteral("nothing moves any more"));
    }
    if (!comeToRest())
        fail(QStringLiteral("a light stays connected"));
    if (m_disconnections != disconnectionsToTell) {
        fail(QStringLiteral("%1 disconnections were told of %2")
                     .arg(m_disconnections)
                     .arg(disconnectionsToTell.load()));
    }
    require(m_failure.isEmpty(),
            qPrintable(QStringLiteral("After %1 cycles: %2.").arg(m_cycles).arg(m_failure)));
}

bool Soak::comeToRest()
{
    m_isResting = true;
    m_isScanning = false;
    m_plugin->stop();
    const auto addresses = m_lights.keys();
    for (const QString &address : addresses)
        startOver(address);
    const bool isQuiet = waitFor([] { return order("connected").isEmpty(); }, lookInterval);
    // What was told last has yet to arrive.
    waitFor([this] { return m_disconnections >= disconnectionsToTell; }, lookInterval);
    m_rescan.stop();
    m_isResting = false;
    return isQuiet;
}

void Soak::printHead() const
{
    std::puts("  cycles  seconds  resident KiB  heap KiB  services kept  files  threads  matches  "
              "time limits");
}

Footprint Soak::printReport()
{
    const Footprint now = Footprint::now();
    std::printf("%8d %8lld %13lld %9lld %14d %6lld %8lld %8u %12d\n", m_cycles,
                static_cast<long long>(m_elapsed.elapsed() / 1000),
                static_cast<long long>(now.residentKilobytes),
                static_cast<long long>(now.heap / 1024), now.services,
                static_cast<long long>(now.files), static_cast<long long>(now.threads), now.matches,
                m_timeouts);
    std::fflush(stdout);
    return now;
}

namespace {

// The heap grows by the services that are kept, and by nothing else. Matches come and go with the
// links that are being dropped: some for each light, but no more.
void requireFlat(const Footprint &first, const Footprint &last, uint lights)
{
    const qint64 bytes = last.heap - first.heap;
    require(first.files == last.files && first.threads == last.threads
                    && last.matches <= first.matches + 4 * lights
                    && bytes <= qint64(mostOfAService) * (last.services - first.services),
            "The heap, files, threads or matches grew.");
}

} // namespace

int main(int argc, char *argv[])
{
    useOneArena();
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
            "Brings lights up and down at random and breaks them at random, through the loaded "
            "plugin.\nRun it by scripts/soak."));
    parser.addHelpOption();
    parser.addOptions({
            { QStringLiteral("minutes"), QStringLiteral("For how long (10)."),
              QStringLiteral("minutes"), QStringLiteral("10") },
            { QStringLiteral("cycles"), QStringLiteral("End after so many cycles."),
              QStringLiteral("cycles"), QString::number(std::numeric_limits<int>::max()) },
            { QStringLiteral("patience"),
              QStringLiteral("Give a light up after so many seconds (1); more for a slow build."),
              QStringLiteral("seconds"), QStringLiteral("1") },
            { QStringLiteral("seed"), QStringLiteral("Do as it was done with this seed."),
              QStringLiteral("seed"),
              QString::number(QRandomGenerator::global()->bounded(1000000)) },
    });
    parser.process(app);
    const auto minutes = std::chrono::duration<double, std::ratio<60>>(
            parser.value(QStringLiteral("minutes")).toDouble());
    const int cycles = parser.value(QStringLiteral("cycles")).toInt();
    const quint32 seed = parser.value(QStringLiteral("seed")).toUInt();
    qInstallMessageHandler(readLog);
    const int patience = parser.value(QStringLiteral("patience")).toInt();
    require(minutes.count() > 0 && cycles > 0 && patience > 0,
            "--minutes, --cycles and --patience take numbers above 0.");
    std::printf("seed %u\n", seed);
    QPluginLoader loader(QStringLiteral(PLUGIN_FILE));
    std::unique_ptr<CorvelKXBleInterface> plugin(
            qobject_cast<CorvelKXBleInterface *>(loader.instance()));
    require(plugin != nullptr, qPrintable(loader.errorString()));
    Soak soak(plugin.get(), seed, std::chrono::seconds(patience));
    soak.printHead();
    const QDeadlineTimer deadline(std::chrono::duration_cast<std::chrono::seconds>(minutes));
    // Two reports at the least, for they are compared.
    const int interval = std::clamp(cycles / 2, 1, reportInterval);
    std::vector<Footprint> reports;
    while (soak.cycles() < cycles && !deadline.hasExpired()) {
        soak.run(std::min(interval, cycles - soak.cycles()), deadline);
        reports.push_back(soak.printReport());
    }
    requireFlat(reports.front(), reports.back(), uint(lightsHere().size()));
    return EXIT_SUCCESS;
}

#include "soak.moc"
