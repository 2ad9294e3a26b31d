#include "CorvelKXBleInterface.h"
#include "CorvelKXHost.h"
#include "Lights.h"

#include <QAbstractEventDispatcher>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QMetaEnum>
#include <QPluginLoader>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <cstdio>
#include <memory>
#include <utility>

using Qt::StringLiterals::operator""_s;
using namespace std::chrono_literals;

namespace {

constexpr int pollInterval = 50;
const QString stopLine = u"[BLEManager::stop] enter..."_s;
constexpr QLatin1String light("C0:FF:EE:00:00:03");

// A step of the connection sequence, recognised by the log line that the worker thread writes
// there.
struct Step
{
    const char *name;
    const char *line;
};

enum { Connecting = 1, Busy = 5 };
constexpr Step steps[] = {
    { "scanning", "mac addr: \"C0:FF:EE:00:00:03\"  valid: true" },
    { "connecting", "QLowEnergyController::ConnectingState" },
    { "discovering services", "QLowEnergyController::DiscoveringState" },
    { "discovering details", "state: QLowEnergyService::RemoteServiceDiscovering" },
    { "subscribing", "update m_characteristicsMap. mac addr:" },
    { "ready and busy", "Received data:" },
};

struct Command
{
    QString name;
    QVariantList arguments;
};

} // namespace

// Causes each fault at each step of a connection: once through the loaded plugin alone, where
// commands reconnect the light, and once through CorvelKX::Host, which reconnects it by itself.
// The expected results are read from the tables in the documentation.
class TestFaults : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void keptAtStep_data() { faultAtStep_data(); }
    void keptAtStep();
    // Last: after a plugin was destroyed while it scanned, Qt never ends a scan of this process.
    void faultAtStep_data();
    void faultAtStep();
    void cleanup();

private:
    struct Fault
    {
        const char *name;
        Command begin; // sent to the lights, unless the fault is a hostAction
        Command end;
        void (TestFaults::*hostAction)() = nullptr;
        bool isEvent = true; // happens once; otherwise it lasts until the end command
    };

    static QList<Fault> faults();
    static QString withRepeats(const QStringList &events);

    void prepare();
    void makePlugin();
    void makeHost();
    void end();
    void inject(const QString &line);
    void doHostAction();
    void onDiscovered(const QString &address);
    void stopAndWait();
    void settle();
    bool comesBackBy(const QString &way);

    QString expectedReason() const
    {
        return m_expectedKept.value(QString::fromLatin1(m_fault.name)).value(m_step);
    }
    CorvelKX::Light *keptLight() const { return m_host->light(light); }

    void removeLight();
    void connectAgain();
    void reconnect();
    void destroy();

    Lights m_lights;
    QHash<QString, QStringList> m_expected; // by fault; one entry for each step
    QHash<QString, QStringList> m_expectedKept;
    std::unique_ptr<LogRecorder> m_log;
    std::unique_ptr<QPluginLoader> m_loader;
    CorvelKXBleInterface *m_plugin = nullptr;
    int m_step = 0;
    Fault m_fault { nullptr, {}, {} };
    std::atomic_bool m_isInjected = false;
    bool m_isDone = false;
    bool m_isWanted = false; // connect it as soon as it is discovered
    bool m_isReady = false;
    QStringList m_seen; // since the fault
    int m_disconnections = 0;
    QList<QByteArray> m_received;
    std::unique_ptr<CorvelKX::Host> m_host;
    QStringList m_reasons; // why the light was not ready, since the fault
};

QList<TestFaults::Fault> TestFaults::faults()
{
    const auto event = [](const char *name, const QString &command, const QString &argument = light,
                          const Command &end = {}) {
        return Fault { name, { command, { argument } }, end };
    };
    const auto setting = [](const char *name, const QString &key, const QString &value) {
        return Fault {
            name, { u"set"_s, { QString(light), key, value } }, { u"reset"_s, {} }, nullptr, false
        };
    };
    const auto there = [](const char *name, const QString &what, const QString &leave) {
        return Fault { name, { what, { leave } }, { what, { u"return"_s } } };
    };
    const auto host = [](const char *name, void (TestFaults::*hostAction)()) {
        return Fault { name, {}, { u"reset"_s, {} }, hostAction };
    };
    const QString description = u"{\"address\": \"%1\", \"type\": 3, \"authentication\": true, "
                                "\"name\": \"Corvel light(DM41)\"}"_s.arg(light);
    return {
        event("the link drops", u"drop"_s),
        event("the device disappears from the bus", u"forget"_s, light,
              { u"add"_s, { description } }),
        event("the services vanish, the link stays", u"vanish"_s),
        setting("a connection is refused", u"connect"_s, u"refuse"_s),
        setting("a connection hangs", u"connect"_s, u"hang"_s),
        setting("a connection aborts", u"connect"_s, u"abort"_s),
        setting("the services are never resolved", u"resolve"_s, u"false"_s),
        setting("the main service is missing", u"omit"_s, u"0000fff0"_s),
        setting("the characteristic to write is missing", u"omit"_s, u"0000fff2"_s),
        setting("the characteristic that notifies is missing", u"omit"_s, u"0000fff1"_s),
        setting("the descriptor is missing", u"omit"_s, u"00002902"_s),
        setting("reading fails", u"reads"_s, u"refuse"_s),
        setting("writing is refused", u"writes"_s, u"refuse"_s),
        event("the adapter is off for a while", u"adapter"_s, u"off"_s,
              { u"adapter"_s, { u"on"_s } }),
        there("the adapter is away for a while", u"adapter"_s, u"remove"_s),
        there("bluetoothd is away for a while", u"daemon"_s, u"leave"_s),
        there("bluetoothd is killed and started again", u"daemon"_s, u"kill"_s),
        host("the host removes the device", &TestFaults::removeLight),
        host("the host connects again", &TestFaults::connectAgain),
        host("the host asks to reconnect", &TestFaults::reconnect),
        host("the host destroys the plugin", &TestFaults::destroy),
    };
}

void TestFaults::initTestCase()
{
    QFile file(QStringLiteral(FAULTS_FILE));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const auto lines = QString::fromUtf8(file.readAll()).split(u'\n');
    for (const QString &line : lines) {
        QStringList cells = line.split(u'|');
        if (cells.size() != int(std::size(steps)) + 3)
            continue;
        for (QString &cell : cells)
            cell = cell.trimmed();
        auto &table = m_expected.contains(cells.at(1)) ? m_expectedKept : m_expected;
        table.insert(cells.at(1), cells.mid(2, std::size(steps)));
    }
}

void TestFaults::faultAtStep_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<int>("step");
    const auto all = faults();
    // To run in parallel: "1/3" takes every third row, from the second one on.
    const QString shard = qEnvironmentVariable("CORVELKX_SHARD", u"0/1"_s);
    const int shards = shard.section(u'/', 1).toInt();
    const int rows = int(all.size()) * int(std::size(steps));
    for (int row = shard.section(u'/', 0, 0).toInt(); row < rows; row += shards) {
        const int fault = row / int(std::size(steps));
        const int step = row % int(std::size(steps));
        QTest::addRow("%s, %s", all.at(fault).name, steps[step].name) << fault << step;
    }
}

void TestFaults::makePlugin()
{
    m_loader = std::make_unique<QPluginLoader>(QStringLiteral(PLUGIN_FILE));
    m_plugin = qobject_cast<CorvelKXBleInterface *>(m_loader->instance());
    QVERIFY(m_plugin);
    const auto see = [this](const QString &what) {
        if (m_isInjected)
            m_seen.append(what);
    };
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceDiscovered, this,
            [this](int, const QString &address) { onDiscovered(address); });
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceDiscoveredErrorOccurred, this,
            [see] { see(u"scan fails"_s); });
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceConnected, this, [=] {
        m_isReady = true;
        see(u"ready"_s);
        // While the host replaces the link, a payload would be a second fault.
        const int payloads = m_fault.hostAction && m_step != Busy ? 0 : 20;
        for (char i = 0; i < payloads; ++i)
            m_plugin->sendMessage(light, QByteArray(1, i));
    });
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceDisconnected, this, [=] {
        m_isReady = false;
        ++m_disconnections;
        see(u"gone"_s);
    });
    connect(m_plugin, &CorvelKXBleInterface::sigMessageReceived, this,
            [this](const QString &, const QByteArray &data) { m_received.append(data); });
}

void TestFaults::onDiscovered(const QString &address)
{
    if (address != light || !m_isWanted)
        return;
    m_isWanted = false;
    m_plugin->stop();
    m_plugin->connectToDevice(light);
}

// Called while the worker thread writes its log line, so that the fault happens at exactly that
// step.
void TestFaults::inject(const QString &line)
{
    if (m_isInjected || QThread::currentThread() == thread()
        || !line.contains(QLatin1String(steps[m_step].line)))
        return;
    m_isInjected = true;
    const auto begin = [this] {
        Lights::ask(m_fault.begin.name, m_fault.begin.arguments);
        QMetaObject::invokeMethod(
                this, [this] { m_isDone = true; }, Qt::QueuedConnection);
    };
    if (m_step == Busy)
        Lights::ask(u"burst"_s, { QString(light), 200, 20, 0 });
    if (m_fault.hostAction) {
        // The worker thread continues once the command is queued. Destruction waits for that
        // thread, so the thread must not wait for it.
        const bool isEnd = m_fault.hostAction == &TestFaults::destroy;
        QMetaObject::invokeMethod(this, &TestFaults::doHostAction,
                                  isEnd ? Qt::QueuedConnection : Qt::BlockingQueuedConnection);
    } else if (m_fault.isEvent && m_step == Connecting) {
        // The log line comes before Qt sends the connection request.
        QTimer::singleShot(0, QAbstractEventDispatcher::instance(), begin);
    } else {
        begin();
    }
}

void TestFaults::doHostAction()
{
    if (const auto hostAction = m_fault.hostAction)
        (this->*hostAction)();
    m_isDone = true;
}

void TestFaults::removeLight()
{
    if (!m_host)
        return m_plugin->removeDevice(light);
    keptLight()->disconnectFromDevice();
    keptLight()->setKeepConnected(true);
}

void TestFaults::connectAgain()
{
    if (!m_host)
        return m_plugin->connectToDevice(light);
    keptLight()->connectToDevice();
}

void TestFaults::reconnect()
{
    if (!m_host)
        m_plugin->reconnectDevice(light);
    else
        keptLight()->setKeepConnected(true);
}

void TestFaults::destroy()
{
    if (m_host) {
        m_host.reset();
        QVERIFY(m_lights.waitUntilFree());
        return makeHost();
    }
    delete m_plugin;
    m_plugin = nullptr;
    m_isReady = false;
}

// Returns when the worker thread has carried out all commands that were queued so far.
void TestFaults::stopAndWait()
{
    const auto before = m_log->linesWith(stopLine).size();
    m_plugin->stop();
    QVERIFY(waitFor([&] { return m_log->linesWith(stopLine).size() > before; }));
}

// Makes round trips through the lights, the manager and this thread until the log no longer grows.
void TestFaults::settle()
{
    qsizetype known = -1;
    for (int quiet = 0; quiet < 10; ++quiet) {
        m_lights.command(u"connected"_s);
        if (m_plugin)
            stopAndWait();
        QCoreApplication::processEvents();
        const auto lines = m_log->lines().size() - m_log->linesWith(stopLine).size();
        if (std::exchange(known, lines) != lines)
            quiet = 0;
    }
}

// Runs the commands that the table calls \a way (none if it is empty); returns whether the light
// then answers.
bool TestFaults::comesBackBy(const QString &way)
{
    if (way == QLatin1String("new object")) {
        if (m_plugin || !m_lights.waitUntilFree())
            return false;
        makePlugin();
    }
    if (!m_plugin)
        return false;
    if (!way.isEmpty())
        m_isReady = false;
    if (way == QLatin1String("reconnect"))
        m_plugin->reconnectDevice(light);
    if (way == QLatin1String("scan")) {
        m_plugin->removeDevice(light);
        settle();
        m_isReady = false;
    }
    if (way == QLatin1String("scan") || way == QLatin1String("new object")) {
        m_isWanted = true;
        m_plugin->start();
    }
    if (!waitFor([this] { return m_isReady; }))
        return false;
    m_plugin->sendMessage(light, "back");
    return waitFor([this] { return m_received.contains("back"); });
}

QString TestFaults::withRepeats(const QStringList &events)
{
    QStringList words;
    for (qsizetype i = 0; i < events.size();) {
        qsizetype end = i;
        while (end < events.size() && events.at(end) == events.at(i))
            ++end;
        words.append(end - i == 1 ? events.at(i) : u"%1 ×%2"_s.arg(events.at(i)).arg(end - i));
        i = end;
    }
    return words.join(u", "_s);
}

// Resets log and light, and arms the fault.
void TestFaults::prepare()
{
    QFETCH(int, fault);
    QFETCH(int, step);
    m_fault = faults().at(fault);
    m_step = step;
    // The connection must last long enough for the fault to happen in it.
    const bool hangs = m_fault.isEvent && step == Connecting;
    m_lights.set(light, u"connect"_s, hangs ? u"hang"_s : u"accept"_s);
    // As on a real adapter: disconnecting takes longer than connecting again.
    if (m_fault.hostAction && step != Connecting)
        m_lights.set(light, u"disconnectDelay"_s, u"200"_s);
    m_isInjected = false;
    m_isDone = false;
    m_isWanted = true;
    m_isReady = false;
    m_disconnections = 0;
    m_seen.clear();
    m_reasons.clear();
    m_received.clear();
    m_log = std::make_unique<LogRecorder>();
    m_log->setHook([this](const QString &line) { inject(line); });
}

void TestFaults::end()
{
    if (!m_fault.end.name.isEmpty())
        m_lights.command(m_fault.end.name, m_fault.end.arguments);
    m_lights.set(light, u"connect"_s, u"accept"_s);
}

void TestFaults::faultAtStep()
{
    prepare();
    const QString expected = m_expected.value(QString::fromLatin1(m_fault.name)).value(m_step);
    QVERIFY(!expected.isEmpty());
    QString expectedSeen = expected.section(u"; "_s, 0, 0);
    if (expectedSeen == QLatin1String("no signal") || expectedSeen == QLatin1String("no effect"))
        expectedSeen.clear();
    makePlugin();
    m_plugin->start();
    QVERIFY(waitFor([this] { return m_isDone; }));

    waitFor([&] { return withRepeats(m_seen) == expectedSeen; });
    settle();
    QCOMPARE(withRepeats(m_seen), expectedSeen);
    // One sigDeviceDisconnected for each disconnection that the system reports and for each attempt
    // without an adapter; none is lost and none is invented.
    const auto told = m_log->linesWith(u"::slotDeviceDisconnected, macAddr: \"%1\""_s.arg(light))
                              .size()
                      + m_log->linesWith(u"\"%1\" ,  QLowEnergyController::"
                                         "InvalidBluetoothAdapterError"_s.arg(light))
                                .size();
    if (m_plugin)
        QCOMPARE(m_disconnections, told);

    end();
    QVERIFY(comesBackBy(expected.section(u"; "_s, 1, 1)));
}

void TestFaults::makeHost()
{
    m_host = std::make_unique<CorvelKX::Host>();
    CorvelKX::Host::Times times;
    times.answer = 3s;
    // Only the limit that must be exceeded is short, for a busy machine could exceed the others.
    const auto limit = [reason = expectedReason()](const char *exceeded) {
        return scaled(reason == QLatin1String(exceeded) ? 500ms : 4s);
    };
    if (!qEnvironmentVariableIsSet("CORVELKX_DEFAULT_TIMES"))
        times = { limit("TimedOut"), scaled(4s), scaled(300ms), 20ms, 100ms,
                  limit("NoAnswer"), 100ms,      20ms };
    m_host->setTimes(times);
    QVERIFY(m_host->load(QStringLiteral(PLUGIN_FILE)));
    auto *kept = keptLight();
    connect(kept, &CorvelKX::Light::stateChanged, this, [this, kept] {
        const char *reason = QMetaEnum::fromType<CorvelKX::Light::Reason>().valueToKey(
                int(kept->reason()));
        if (m_isInjected && kept->reason() != CorvelKX::Light::Reason::None)
            m_reasons.append(QString::fromLatin1(reason));
        kept->send("hello");
    });
    connect(kept, &CorvelKX::Light::messageReceived, this,
            [this](const QByteArray &data) { m_received.append(data); });
    kept->setKeepConnected(true);
}

void TestFaults::keptAtStep()
{
    prepare();
    makeHost();
    m_loader = std::make_unique<QPluginLoader>(QStringLiteral(PLUGIN_FILE));
    m_plugin = qobject_cast<CorvelKXBleInterface *>(m_loader->instance());
    QVERIFY(waitFor([this] { return m_isDone; }));
    QDeadlineTimer pause(0);
    const auto answers = [&](const QByteArray &payload) {
        if (pause.hasExpired() && keptLight()->send(payload))
            pause.setRemainingTime(pollInterval);
        return m_received.contains(payload);
    };
    // End the fault when the library noticed it, or when the light answers in spite of it.
    QVERIFY(waitFor([&] { return !m_reasons.isEmpty() || answers("probe"); }, pollInterval));
    const QString reason = m_reasons.value(0, u"None"_s);
    end();
    QElapsedTimer sinceEnd;
    sinceEnd.start();
    QVERIFY(waitFor([&] { return answers("back"); }, pollInterval));
    std::printf("Recovered after %lld ms.\n", static_cast<long long>(sinceEnd.elapsed()));
    QCOMPARE(reason, expectedReason());
}

void TestFaults::cleanup()
{
    m_host.reset();
    if (QTest::currentTestFailed() && m_log)
        std::fputs(qPrintable(m_log->lines().join(u'\n') + u'\n'), stderr);
    // Qt never ends a scan whose agent was deleted while scanning.
    if (m_plugin)
        stopAndWait();
    destroy();
    m_log.reset();
    Lights::ask(u"daemon"_s, { u"return"_s });
    m_lights.restore();
}

QTEST_GUILESS_MAIN(TestFaults)
#include "tst_faults.moc"
