// Measures one workload once, with Qt Bluetooth alone, the plugin, or the plugin and its log.
// Prints a JSON object. bench.py runs it.
#include "BLEManager.h"
#include "Central.h"
#include "Support.h"

#include <QBluetoothDeviceDiscoveryAgent>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusAbstractInterface>
#include <QDBusConnection>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QPluginLoader>
#include <QSet>
#include <QTimer>
#include <QtEndian>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <sys/resource.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int payloadSize = 20;

double cpuTime()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto microseconds = [](const timeval &t) {
        return double(t.tv_sec) * 1e6 + double(t.tv_usec);
    };
    return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

double quantile(std::vector<double> &values, double part)
{
    const auto place = values.begin()
                       + static_cast<std::ptrdiff_t>(double(values.size() - 1) * part);
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

// Remembers when Qt Bluetooth last received a D-Bus message, on any thread.
class Application : public QCoreApplication
{
public:
    using QCoreApplication::QCoreApplication;

    bool notify(QObject *receiver, QEvent *event) override
    {
        if (m_isWatching && event->type() == QEvent::MetaCall
            && qobject_cast<QDBusAbstractInterface *>(receiver))
            m_lastMessage = Clock::now();
        return QCoreApplication::notify(receiver, event);
    }
    void watch() { m_isWatching = true; }
    Clock::time_point lastMessage() const { return m_lastMessage; }

private:
    std::atomic_bool m_isWatching = false;
    std::atomic<Clock::time_point> m_lastMessage { Clock::time_point() };
};

// Measures the longest stall of this thread's event loop.
class StallMeter
{
public:
    StallMeter()
    {
        m_timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] {
            const auto now = Clock::now();
            m_longest = std::max(m_longest, now - m_last);
            m_last = now;
        });
        m_timer.start(1);
    }
    double milliseconds() const { return Milliseconds(m_longest).count(); }

private:
    QTimer m_timer;
    Clock::time_point m_last = Clock::now();
    Clock::duration m_longest {};
};

QJsonObject named(const char *name, double value)
{
    return { { QLatin1String(name), value } };
}

// Calls \a begin, and returns when \a callback was called for each light.
template<typename Callback>
void awaitAll(Callback *callback, const QStringList &addresses, const std::function<void()> &begin)
{
    QSet<QString> missing(addresses.cbegin(), addresses.cend());
    *callback = [&missing](const QString &address, auto...) { missing.remove(address); };
    begin();
    require(waitFor([&missing] { return missing.isEmpty(); }));
    *callback = [](auto...) {};
}

void find(Central *central, const QStringList &addresses)
{
    awaitAll(&central->found, addresses, [central] { central->startScan(); });
    central->stopScan();
}

void connectAll(Central *central, const QStringList &addresses)
{
    awaitAll(&central->ready, addresses, [&] {
        for (const QString &address : addresses)
            central->connectTo(address);
    });
}

// Connects the lights, and waits for an answer of each so that nothing of the connection is
// pending.
void bringUp(Central *central, const QStringList &addresses)
{
    find(central, addresses);
    connectAll(central, addresses);
    awaitAll(&central->received, addresses, [&] {
        for (const QString &address : addresses)
            central->send(address, "hello");
    });
}

QJsonObject calls(Central *central, const QStringList &addresses, int)
{
    find(central, addresses);
    // Do not count the calls of the scan, including the one that stops it.
    require(waitFor(
            [] {
                return command("report").constFirst().contains(QLatin1String("\"scanning\":false"));
            },
            pollInterval));
    command("reset");
    connectAll(central, addresses);
    const QString &light = addresses.constFirst();
    awaitAll(&central->received, addresses,
             [&] { central->send(light, QByteArray(payloadSize, 'x')); });
    awaitAll(&central->gone, addresses, [&] { central->disconnectFrom(light); });
    double total = 0;
    const QStringList lines = command("calls");
    for (const QString &line : lines)
        total += line.section(QLatin1Char(' '), 1).toDouble();
    return named("calls", total);
}

QJsonObject rate(Central *central, const QStringList &addresses, int count)
{
    bringUp(central, addresses);
    int received = 0;
    Clock::time_point begin;
    central->received = [&](const QString &, const QByteArray &) {
        if (received++ == 0)
            begin = Clock::now();
    };
    command("burst", { addresses.constFirst(), count, payloadSize, 0 });
    const double before = cpuTime();
    require(waitFor([&] { return received == count; }));
    const std::chrono::duration<double> elapsed = Clock::now() - begin;
    return { { QStringLiteral("perSecond"), count / elapsed.count() },
             { QStringLiteral("processor"), (cpuTime() - before) / count } };
}

QJsonObject flood(Central *central, const QStringList &addresses, int seconds)
{
    constexpr int perSecond = 2000;
    const int rateOfOne = perSecond / static_cast<int>(addresses.size());
    const int count = rateOfOne * seconds;
    bringUp(central, addresses);
    QHash<QString, quint32> next;
    qint64 received = 0;
    double disorder = 0;
    central->received = [&](const QString &address, const QByteArray &data) {
        ++received;
        disorder += qFromBigEndian<quint32>(data.constData()) != next[address]++;
    };
    for (const QString &address : addresses)
        command("burst", { address, count, payloadSize, rateOfOne });
    const bool areAllThere = waitFor([&] { return received == count * addresses.size(); });
    return { { QStringLiteral("sent"), double(count) * double(addresses.size()) },
             { QStringLiteral("lost"),
               areAllThere ? 0 : double(count) * double(addresses.size()) - double(received) },
             { QStringLiteral("outOfOrder"), disorder } };
}

QJsonObject delay(Central *central, const QStringList &addresses, int count)
{
    auto *app = static_cast<Application *>(QCoreApplication::instance());
    bringUp(central, addresses);
    app->watch();
    std::vector<double> delays;
    central->received = [&](const QString &, const QByteArray &) {
        delays.push_back(Microseconds(Clock::now() - app->lastMessage()).count());
    };
    const QDBusMessage message = Lights::message(QStringLiteral("notify"),
                                                 { addresses.constFirst(),
                                                   QString::fromLatin1(QByteArray(40, '0')) });
    for (int i = 1; i <= count; ++i) {
        QDBusConnection::systemBus().send(message); // without waiting for the reply
        require(waitFor([&] { return int(delays.size()) == i; }));
    }
    return { { QStringLiteral("p50"), quantile(delays, 0.5) },
             { QStringLiteral("p99"), quantile(delays, 0.99) } };
}

QJsonObject writes(Central *central, const QStringList &addresses, int count)
{
    QJsonObject result;
    bringUp(central, addresses);
    const char *const names[] = { "withoutResponse", "withResponse" };
    for (int way = 0; way < 2; ++way) {
        int answered = 0;
        central->received = [&](const QString &, const QByteArray &) { ++answered; };
        const auto begin = Clock::now();
        for (int i = 0; i < count; ++i)
            central->send(addresses.at(way), QByteArray(payloadSize, 'x'));
        require(waitFor([&] { return answered == count; }));
        const std::chrono::duration<double> elapsed = Clock::now() - begin;
        result.insert(QLatin1String(names[way]), count / elapsed.count());
    }
    return result;
}

QJsonObject ready(Central *central, const QStringList &addresses, int)
{
    const auto begin = Clock::now();
    find(central, addresses);
    connectAll(central, addresses);
    return named("milliseconds", Milliseconds(Clock::now() - begin).count());
}

QJsonObject crowd(Central *central, const QStringList &addresses, int)
{
    find(central, addresses);
    const auto quiet = Clock::now() + std::chrono::milliseconds(500);
    double idle = 0;
    {
        const StallMeter gap;
        require(waitFor([&] { return Clock::now() > quiet; }, 1));
        idle = gap.milliseconds();
    }
    const StallMeter gap;
    const auto begin = Clock::now();
    connectAll(central, addresses);
    return { { QStringLiteral("milliseconds"), Milliseconds(Clock::now() - begin).count() },
             { QStringLiteral("gap"), gap.milliseconds() },
             { QStringLiteral("idleGap"), idle } };
}

QJsonObject connectedBytes(Central *central, const QStringList &addresses, int)
{
    // The first light allocates what all lights share.
    bringUp(central, addresses.mid(0, 1));
    const qint64 before = heapSize();
    bringUp(central, addresses.mid(1));
    return named("bytes", double(heapSize() - before) / double(addresses.size() - 1));
}

QBluetoothDeviceInfo advertisement(quint64 address, const QByteArray &bytes)
{
    QBluetoothDeviceInfo info(QBluetoothAddress(address), QStringLiteral("Corvel light(Desk)"), 0);
    info.setManufacturerData(0xFFFF, bytes);
    return info;
}

QJsonObject recognition(Central *, const QStringList &, int count)
{
    BLEManager manager;
    manager.init();
    auto *agent = manager.findChild<QBluetoothDeviceDiscoveryAgent *>();
    QJsonObject result;
    for (const bool isSupported : { true, false }) {
        const QBluetoothDeviceInfo info = advertisement(0xC0FFEE000001,
                                                        QByteArray::fromHex(
                                                                isSupported
                                                                        ? "3c0100000300010101010101"
                                                                        : "1002000003"));
        const auto begin = Clock::now();
        for (int i = 0; i < count; ++i)
            emit agent->deviceDiscovered(info);
        const std::chrono::duration<double, std::nano> elapsed = Clock::now() - begin;
        result.insert(isSupported ? QStringLiteral("supported") : QStringLiteral("foreign"),
                      elapsed.count() / count);
    }
    return result;
}

QJsonObject knownBytes(Central *, const QStringList &, int count)
{
    BLEManager manager;
    manager.init();
    auto *agent = manager.findChild<QBluetoothDeviceDiscoveryAgent *>();
    const auto bytes = QByteArray::fromHex("3c0100000300010101010101");
    const qint64 before = heapSize();
    for (int i = 0; i < count; ++i)
        emit agent->deviceDiscovered(advertisement(0xC0FFEE000000 + quint64(i), bytes));
    return named("bytes", double(heapSize() - before) / count);
}

// The memory that each reconnection keeps: service objects live as long as the manager, by design.
QJsonObject kept(Central *, const QStringList &addresses, int count)
{
    BLEManager manager;
    manager.init();
    bool isKnown = false;
    bool isReady = false;
    bool isGone = false;
    QObject::connect(&manager, &BLEManager::sigDeviceDiscovered, &manager, [&] { isKnown = true; });
    QObject::connect(&manager, &BLEManager::sigDeviceConnected, &manager, [&] { isReady = true; });
    QObject::connect(&manager, &BLEManager::sigDeviceDisconnected, &manager,
                     [&] { isGone = true; });
    manager.start();
    require(waitFor([&] { return isKnown; }));
    manager.stop();
    const auto reconnect = [&](int times) {
        for (int i = 0; i < times; ++i) {
            isReady = isGone = false;
            manager.reconnectDevice(addresses.constFirst());
            require(waitFor([&] { return isReady; }));
            command("drop", { addresses.constFirst() });
            require(waitFor([&] { return isGone; }));
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    };
    reconnect(50); // allocates what all reconnections share
    qDeleteAll(manager.findChildren<QLowEnergyService *>());
    const qint64 before = heapSize();
    reconnect(count);
    const qint64 after = heapSize();
    const auto services = manager.findChildren<QLowEnergyService *>();
    qDeleteAll(services);
    return { { QStringLiteral("bytes"), double(after - before) / count },
             { QStringLiteral("services"), double(services.size()) / count },
             { QStringLiteral("serviceBytes"),
               double(after - heapSize()) / double(services.size()) } };
}

QJsonObject version(Central *, const QStringList &, int)
{
    return { { QStringLiteral("qt"), QLatin1String(qVersion()) } };
}

QJsonObject load(Central *, const QStringList &, int)
{
    QPluginLoader loader(QStringLiteral(PLUGIN_FILE));
    const auto begin = Clock::now();
    require(loader.load());
    const auto loaded = Clock::now();
    require(loader.instance() != nullptr);
    const auto made = Clock::now();
    loader.unload();
    return { { QStringLiteral("load"), Milliseconds(loaded - begin).count() },
             { QStringLiteral("instance"), Milliseconds(made - loaded).count() } };
}

struct Workload
{
    const char *name = nullptr;
    QJsonObject (*run)(Central *central, const QStringList &addresses, int count) = nullptr;
    bool needsLights = true;
    bool needsCentral = true;
};

constexpr Workload workloads[] = {
    { "calls", calls },
    { "rate", rate },
    { "flood", flood },
    { "delay", delay },
    { "writes", writes },
    { "ready", ready },
    { "crowd", crowd },
    { "connectedBytes", connectedBytes },
    { "kept", kept, true, false },
    { "recognition", recognition, false, false },
    { "knownBytes", knownBytes, false, false },
    { "load", load, false, false },
    { "version", version, false, false },
};

} // namespace

int main(int argc, char *argv[])
{
    useOneArena();
    Application app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("way"), QStringLiteral("bare, plugin or logged"));
    parser.addPositionalArgument(QStringLiteral("workload"), QStringLiteral("what to do"));
    parser.addPositionalArgument(QStringLiteral("count"), QStringLiteral("how often"));
    parser.process(app);
    const QStringList words = parser.positionalArguments();
    const auto *workload = std::find_if(std::begin(workloads), std::end(workloads),
                                        [&words](const Workload &w) {
                                            return words.value(1) == QLatin1String(w.name);
                                        });
    if (workload == std::end(workloads))
        parser.showHelp(EXIT_FAILURE);

    // The log is formatted if it is enabled, and discarded.
    const bool isLogged = words.at(0) == QLatin1String("logged");
    QLoggingCategory::setFilterRules(isLogged ? QStringLiteral("*.debug=false\ndefault.debug=true")
                                              : QStringLiteral("*.debug=false"));
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &line) {
        if (type == QtFatalMsg)
            std::fprintf(stderr, "corvelkx-workload: %s\n", qPrintable(line));
    });
    std::unique_ptr<Central> central;
    if (workload->needsCentral) {
        central = words.at(0) == QLatin1String("bare") ? bareCentral()
                                                       : pluginCentral(QStringLiteral(PLUGIN_FILE));
    }
    const QStringList addresses = workload->needsLights ? lightsHere() : QStringList();
    const QJsonObject result = workload->run(central.get(), addresses, words.value(2).toInt());
    std::puts(QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    return EXIT_SUCCESS;
}
