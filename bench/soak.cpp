// Keeps lights connected through CorvelKX::Host, causes faults at random, and reports whether
// memory, files or threads grow. Runs among virtual lights: corvelkx-lights --crowd 12 --
// corvelkx-soak
#include "CorvelKXBleInterface.h"
#include "CorvelKXHost.h"
#include "Support.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QPluginLoader>
#include <QRandomGenerator>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <limits>
#include <optional>

using CorvelKX::Host;
using CorvelKX::Light;
using Qt::StringLiterals::operator""_s;
using namespace std::chrono_literals;

namespace {

constexpr int reportInterval = 1000;
constexpr int serviceSizeLimit = 12000; // bytes of a kept service object; scripts/bench measures it

// Counted from the log lines of all threads.
std::atomic_int servicesMade = 0;
std::atomic_int disconnectionsLogged = 0;

void readLog(QtMsgType, const QMessageLogContext &, const QString &line)
{
    if (line.contains(QLatin1String(" contains uuid. uuid: ")))
        ++servicesMade;
    const bool isLost = line.startsWith(QLatin1String("BLEManager::slotDeviceDisconnected"))
                        || line.endsWith(QLatin1String("::InvalidBluetoothAdapterError"));
    if (isLost && !line.contains(QLatin1String("\"\"")))
        ++disconnectionsLogged;
    QCoreApplication::postEvent(qApp, new QEvent(QEvent::User)); // wakes waitFor()
}

struct Footprint
{
    qint64 residentKilobytes = 0;
    qint64 heap = heapSize();
    qsizetype files = entries("/proc/self/fd");
    qsizetype threads = entries("/proc/self/task");
    uint matches = 0; // D-Bus match rules
    int services = servicesMade;

    static Footprint now()
    {
        Footprint f;
        QFile statm(u"/proc/self/statm"_s);
        if (statm.open(QIODevice::ReadOnly))
            f.residentKilobytes = statm.readAll().split(' ').value(1).toLongLong() * 4;
        const QDBusConnection bus = QDBusConnection::systemBus();
        QDBusMessage call = QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s,
                                                           u"/org/freedesktop/DBus"_s,
                                                           u"org.freedesktop.DBus.Debug.Stats"_s,
                                                           u"GetConnectionStats"_s);
        call << bus.baseService();
        const QDBusReply<QVariantMap> reply = bus.call(call);
        f.matches = reply.value().value(u"MatchRules"_s).toUInt();
        return f;
    }

    static qsizetype entries(const char *path)
    {
        return QDir(QLatin1String(path))
                .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
                .size();
    }
};

// A host that keeps its lights connected, and causes the next fault when a light answers.
class Soak
{
public:
    Soak(quint32 seed, double slowness);

    // Runs \a cycles cycles, or until \a deadline. Ends the program if something goes wrong.
    void run(int cycles, QDeadlineTimer deadline);
    int cycles() const { return m_cycles; }
    Footprint report();
    qint64 longestRecovery() const { return m_longest; }
    void close();

private:
    void onStateChanged(Light *light);
    void onMessage(Light *light, const QByteArray &data);
    void breakSomething(Light *light);
    void breakSurroundings();
    void change(const QString &address, const char *key, const char *value);
    void later(const std::function<void()> &action);

    Host m_host;
    CorvelKXBleInterface *m_plugin = nullptr;
    QRandomGenerator m_random;
    QHash<Light *, QByteArray> m_payloads; // the last payload of each light
    QHash<Light *, QElapsedTimer> m_lost;
    QElapsedTimer m_elapsed;
    bool m_isResting = false;
    int m_cycles = 0;
    int m_disconnections = 0;
    int m_faults = 0; // still active
    quint32 m_number = 0;
    qint64 m_longest = 0;
};

Soak::Soak(quint32 seed, double slowness) : m_random(seed)
{
    const auto slow = [slowness](std::chrono::milliseconds time) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(time * slowness);
    };
    m_host.setTimes({ slow(1s), slow(4s), slow(300ms), 20ms, 300ms, slow(1s), slow(300ms), 20ms });
    require(m_host.load(QStringLiteral(PLUGIN_FILE)), qPrintable(m_host.errorString()));
    // The plugin object itself, because the library does not report each disconnection.
    QPluginLoader loader(QStringLiteral(PLUGIN_FILE));
    m_plugin = qobject_cast<CorvelKXBleInterface *>(loader.instance());
    QObject::connect(m_plugin, &CorvelKXBleInterface::sigDeviceDisconnected, &m_host,
                     [this] { ++m_disconnections; });
    QObject::connect(&m_host, &Host::lightStateChanged, &m_host,
                     [this](Light *light) { onStateChanged(light); });
    QObject::connect(&m_host, &Host::messageReceived, &m_host,
                     [this](Light *light, const QByteArray &data) { onMessage(light, data); });
    m_elapsed.start();
    const QStringList addresses = lightsHere();
    for (const QString &address : addresses)
        m_host.light(address)->setKeepConnected(true);
    std::puts("  cycles  seconds  resident KiB  heap KiB  services kept  files  threads  matches  "
              "slowest recovery ms");
}

void Soak::onStateChanged(Light *light)
{
    if (light->isReady()) {
        m_payloads[light] = light->address().toLatin1() + QByteArray::number(++m_number);
        light->send(m_payloads.value(light));
    } else if (light->state() == Light::State::Waiting && !m_lost.contains(light)) {
        m_lost[light].start();
    }
}

void Soak::onMessage(Light *light, const QByteArray &data)
{
    require(data.startsWith(light->address().toLatin1()),
            "A light answered with the payload of another one.");
    if (data != m_payloads.value(light))
        return;
    // While another fault is active, the recovery time says nothing about this light.
    if (m_lost.contains(light) && m_faults == 0)
        m_longest = std::max(m_longest, m_lost.value(light).elapsed());
    m_lost.remove(light);
    ++m_cycles;
    if (!m_isResting)
        breakSomething(light);
}

void Soak::change(const QString &address, const char *key, const char *value)
{
    command("set", { address, QLatin1String(key), QLatin1String(value) });
}

// Ends a fault after a random time. Recovery times count from the end of the last fault.
void Soak::later(const std::function<void()> &action)
{
    ++m_faults;
    QTimer::singleShot(m_random.bounded(300), &m_host, [this, action] {
        action();
        --m_faults;
        for (QElapsedTimer &lost : m_lost)
            lost.start();
    });
}

void Soak::breakSomething(Light *light)
{
    const QString address = light->address();
    if (m_random.bounded(100) == 0)
        breakSurroundings();
    switch (m_random.bounded(10)) {
    case 0: // the next write is refused; the link then ends without a signal
        change(address, "writes", "refuse");
        later([=] { change(address, "writes", "accept"); });
        break;
    case 1:
        command("vanish", { address });
        break;
    case 2:
        change(address, "connect", m_random.bounded(2) ? "refuse" : "hang");
        later([=] { change(address, "connect", "accept"); });
        command("drop", { address });
        break;
    case 3:
        light->disconnectFromDevice();
        light->setKeepConnected(true);
        return;
    default:
        command("drop", { address });
        break;
    }
    light->send(address.toLatin1()); // faults without a signal show by the missing answer
}

void Soak::breakSurroundings()
{
    const QStringList faults[] = { { u"adapter"_s, u"off"_s, u"on"_s },
                                   { u"adapter"_s, u"remove"_s, u"return"_s },
                                   { u"daemon"_s, u"leave"_s, u"return"_s },
                                   { u"daemon"_s, u"kill"_s, u"return"_s } };
    const QStringList fault = faults[m_random.bounded(4)];
    const QByteArray what = fault.at(0).toLatin1();
    command(what, { fault.at(1) });
    later([=] { command(what, { fault.at(2) }); });
}

void Soak::run(int cycles, QDeadlineTimer deadline)
{
    const int goal = m_cycles + cycles;
    const auto lights = m_host.lights();
    if (std::exchange(m_isResting, false)) {
        for (Light *light : lights)
            breakSomething(light);
    }
    while (m_cycles < goal && !deadline.hasExpired()) {
        const int before = m_cycles;
        require(waitFor([&] { return m_cycles > before; }));
    }
    // Cause no more faults, and wait until each light is ready and answers.
    m_isResting = true;
    const auto isLost = [this](Light *light) {
        return !light->isReady() || m_lost.contains(light);
    };
    if (!waitFor(
                [&] {
                    return m_faults == 0 && std::none_of(lights.cbegin(), lights.cend(), isLost);
                },
                pollInterval)) {
        for (Light *light : lights)
            std::printf("%s is %s.\n", qPrintable(light->address()),
                        qPrintable(light->stateString()));
        require(false, "A light was not ready again.");
    }
    // The last signals may still be on their way to this thread.
    require(waitFor([this] { return m_disconnections >= disconnectionsLogged; }, pollInterval)
                    && m_disconnections == disconnectionsLogged,
            "Not every disconnection was reported exactly once.");
}

Footprint Soak::report()
{
    const Footprint now = Footprint::now();
    std::printf("%8d %8lld %13lld %9lld %14d %6lld %8lld %8u %20lld\n", m_cycles,
                m_elapsed.elapsed() / 1000, now.residentKilobytes, now.heap / 1024, now.services,
                static_cast<long long>(now.files), static_cast<long long>(now.threads), now.matches,
                static_cast<long long>(m_longest));
    std::fflush(stdout);
    return now;
}

void Soak::close()
{
    bool isClosed = false;
    QObject::connect(&m_host, &Host::closed, &m_host, [&](const QStringList &stillConnected) {
        require(stillConnected.isEmpty(), "A light did not disconnect.");
        isClosed = true;
    });
    m_host.close(std::chrono::minutes(1)); // sanitizers are slow
    require(waitFor([&] { return isClosed && command("connected").isEmpty(); }, pollInterval),
            "A light stays connected.");
}

// The heap may grow only by the kept service objects. The number of match rules varies with the
// links that are being closed, by a few for each light.
void requireFlat(const Footprint &first, const Footprint &last, uint lights)
{
    const qint64 bytes = last.heap - first.heap;
    require(first.files == last.files && first.threads == last.threads
                    && last.matches <= first.matches + 4 * lights
                    && bytes <= qint64(serviceSizeLimit) * (last.services - first.services),
            "The heap, or the number of files, threads or match rules, grew.");
}

} // namespace

int main(int argc, char *argv[])
{
    useOneArena();
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
            u"Keeps lights connected and breaks them at random. Run it by scripts/soak."_s);
    parser.addHelpOption();
    const auto option = [&parser](const QString &name, const QString &text, const QString &value) {
        parser.addOption({ name, text, u"number"_s, value });
    };
    option(u"minutes"_s, u"For how long (10)."_s, u"10"_s);
    option(u"cycles"_s, u"End after so many cycles."_s,
           QString::number(std::numeric_limits<int>::max()));
    option(u"slowness"_s, u"Multiply all time limits, for a slow build (1)."_s, u"1"_s);
    option(u"seed"_s, u"Repeat what was done with this seed."_s,
           QString::number(QRandomGenerator::global()->bounded(1000000)));
    parser.process(app);
    const auto minutes = std::chrono::duration<double, std::ratio<60>>(
            parser.value(u"minutes"_s).toDouble());
    const int cycles = parser.value(u"cycles"_s).toInt();
    const double slowness = parser.value(u"slowness"_s).toDouble();
    const quint32 seed = parser.value(u"seed"_s).toUInt();
    require(minutes.count() > 0 && cycles > 0 && slowness > 0,
            "--minutes, --cycles and --slowness take numbers above 0.");
    qInstallMessageHandler(readLog);
    std::printf("seed %u\n", seed);
    Soak soak(seed, slowness);
    const QDeadlineTimer deadline(std::chrono::duration_cast<std::chrono::seconds>(minutes));
    std::optional<Footprint> first;
    Footprint last;
    while (soak.cycles() < cycles && !deadline.hasExpired()) {
        // At least two reports, because the first and the last are compared.
        const QDeadlineTimer quarter(std::chrono::duration_cast<std::chrono::seconds>(minutes / 4));
        soak.run(std::min({ std::max(cycles / 2, 1), reportInterval, cycles - soak.cycles() }),
                 std::min(deadline, quarter));
        last = soak.report();
        first = first.value_or(last);
    }
    soak.close();
    requireFlat(*first, last, uint(lightsHere().size()));
    std::printf("All lights were ready in the end; the slowest recovery took %lld ms.\n",
                static_cast<long long>(soak.longestRecovery()));
    return EXIT_SUCCESS;
}
