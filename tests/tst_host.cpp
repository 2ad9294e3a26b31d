#include "CorvelKXHost.h"
#include "CorvelKXLightModel.h"
#include "Lights.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using CorvelKX::Host;
using CorvelKX::Light;
using CorvelKX::LightModel;
using Qt::StringLiterals::operator""_s;
using namespace std::chrono_literals;

// What CorvelKX::Host promises. tst_faults tests that it reconnects lights after every fault.
class TestHost : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void connectOnce();
    void whatIsWrong();
    void neverAnswers();
    void fewAtATime();
    void scanGivesWay();
    void connectAgainWhileDisconnecting();
    void unkeep();
    void closing();
    void model();

private:
    static constexpr QLatin1String address { "C0:FF:EE:00:00:03" };

    bool isScanning();
    int callsOf(const QString &method);
    bool becomes(Light *light, Light::State state);

    Lights m_lights;
    std::unique_ptr<Host> m_host;
    Light *m_light = nullptr;
    QList<Light::State> m_states; // of m_light
};

void TestHost::init()
{
    m_host = std::make_unique<Host>();
    m_host->setTimes({ 30s, 30s, scaled(1s), 20ms, 100ms, 0ms, 300ms, 20ms });
    QVERIFY(m_host->load(QStringLiteral(PLUGIN_FILE)));
    m_light = m_host->light(address);
    m_states.clear();
    connect(m_light, &Light::stateChanged, this,
            [this](Light::State state) { m_states.append(state); });
}

void TestHost::cleanup()
{
    QSignalSpy closed(m_host.get(), &Host::closed);
    m_host->close();
    QVERIFY(waitFor([&] { return closed.size() == 1; }));
    m_host.reset();
    m_lights.restore();
}

bool TestHost::isScanning()
{
    return m_lights.command(u"report"_s).constFirst().contains(u"\"scanning\":true"_s);
}

int TestHost::callsOf(const QString &method)
{
    const QString line = m_lights.command(u"calls"_s).filter(method).value(0);
    return line.section(u' ', 1).toInt();
}

bool TestHost::becomes(Light *light, Light::State state)
{
    return waitFor([=] { return light->state() == state; });
}

void TestHost::connectOnce()
{
    using State = Light::State;
    QVERIFY(!m_light->send("too early"));
    m_light->connectToDevice();
    m_light->connectToDevice(); // no second attempt
    QVERIFY(becomes(m_light, State::Ready));
    QVERIFY(m_light->send("hello"));
    QVERIFY(waitFor([this] { return m_light->receivedCount() == 1; }));
    QCOMPARE(m_light->name(), u"Corvel light(DM41)"_s);
    m_light->connectToDevice();
    m_light->disconnectFromDevice();
    QVERIFY(becomes(m_light, State::Seen));
    QCOMPARE(m_states,
             QList<State>({ State::Connecting, State::Ready, State::Disconnecting, State::Seen }));
    QCOMPARE(callsOf(u".Connect"_s), 1);

    // Without setKeepConnected(), a lost light is not reconnected.
    m_light->connectToDevice();
    QVERIFY(becomes(m_light, State::Ready));
    m_lights.command(u"drop"_s, { QString(address) });
    QVERIFY(becomes(m_light, State::Seen));
    QCOMPARE(m_light->reason(), Light::Reason::LinkLost);

    QSignalSpy removed(m_host.get(), &Host::lightRemoved);
    m_light->forget();
    QCOMPARE(removed.size(), 1);
    QVERIFY(!m_host->lights().contains(m_light));
}

void TestHost::whatIsWrong()
{
    QVERIFY(!m_host->light(u"c0:ff:ee:00:00:03"_s));
    Host other;
    QVERIFY(!other.load(u"/nowhere"_s));
    QCOMPARE(other.error(), Host::Error::PluginError);
    QVERIFY(!other.load(QCoreApplication::applicationFilePath()));

    Light *absent = m_host->light(u"11:22:33:44:55:66"_s);
    absent->connectToDevice(200ms);
    QVERIFY(waitFor([=] { return absent->state() == Light::State::Unseen; }));
    QCOMPARE(absent->reason(), Light::Reason::NotSeen);

    m_lights.set(address, u"connect"_s, u"refuse"_s);
    m_light->connectToDevice(600ms);
    QVERIFY(m_light->remainingTime() > 0);
    QVERIFY(becomes(m_light, Light::State::Seen));
    QCOMPARE(m_light->remainingTime(), -1);
    QCOMPARE(m_light->reason(), Light::Reason::TimedOut);
    QVERIFY(m_light->reasonString().contains(address));

    m_lights.command(u"adapter"_s, { u"off"_s });
    m_lights.set(address, u"connect"_s, u"accept"_s);
    m_light->connectToDevice();
    QVERIFY(becomes(m_light, Light::State::Seen));
    QCOMPARE(m_light->reason(), Light::Reason::BluetoothFailed);
    QCOMPARE(m_host->error(), Host::Error::AdapterOff);
    QCOMPARE(m_light->reasonString(), m_host->errorString());
    m_lights.command(u"adapter"_s, { u"on"_s });
    m_light->connectToDevice();
    QVERIFY(becomes(m_light, Light::State::Ready));
    QCOMPARE(m_host->error(), Host::Error::NoError);
}

void TestHost::neverAnswers()
{
    auto times = m_host->times();
    times.pause = 100ms;
    times.longestPause = 10s;
    times.answer = 20ms;
    m_host->setTimes(times);
    m_lights.set(address, u"echo"_s, u"false"_s);
    connect(m_light, &Light::stateChanged, this, [this] { m_light->send("hello"); });
    m_light->setKeepConnected(true);
    const auto attempts = [this] { return m_states.count(Light::State::Connecting); };
    QVERIFY(waitFor([&] { return attempts() >= 1; }));
    QElapsedTimer sinceFirst;
    sinceFirst.start();
    QVERIFY(waitFor([&] { return attempts() >= 5; }));
    QVERIFY(sinceFirst.elapsed() > 10 * times.pause.count()); // 1 + 2 + 4 + 8, with a margin
    m_lights.set(address, u"echo"_s, u"true"_s);
    QVERIFY(waitFor([this] { return m_light->receivedCount() > 0; }));
}

void TestHost::fewAtATime()
{
    // The lights never answer, so each attempt delays the others until Times::settling is over.
    const auto usual = m_host->times();
    auto times = usual;
    times.attempt = scaled(500ms);
    times.settling = scaled(600ms);
    m_host->setTimes(times);
    const QStringList addresses = m_lights.command(u"lights"_s).mid(0, 9);
    m_lights.command(u"reset"_s); // sets the call counts to 0
    for (const QString &each : addresses)
        m_lights.set(each, u"connect"_s, u"hang"_s);
    for (const QString &each : addresses)
        m_host->light(each)->setKeepConnected(true);
    const auto connecting = [&] {
        int count = 0;
        for (Light *light : m_host->lights())
            count += light->state() == Light::State::Connecting;
        return count;
    };
    QVERIFY(waitFor([&] { return callsOf(u".Connect"_s) == 3; }, 5));
    QVERIFY(connecting() >= 3);
    QVERIFY(!isScanning());
    // The other lights are tried in spite of the hanging attempts.
    QVERIFY(waitFor([&] { return callsOf(u".Connect"_s) >= 9; }, 5));
    m_host->setTimes(usual);
    for (const QString &each : addresses)
        m_lights.set(each, u"connect"_s, u"accept"_s);
    for (Light *light : m_host->lights())
        QVERIFY(becomes(light, Light::State::Ready));
}

void TestHost::scanGivesWay()
{
    QSignalSpy finished(m_host.get(), &Host::scanFinished);
    m_host->startScan(1min);
    QVERIFY(waitFor([this] { return m_host->lights().size() == 9; }));
    m_lights.set(address, u"latency"_s, u"100"_s);
    m_light->connectToDevice();
    QVERIFY(waitFor([this] { return callsOf(u".Connect"_s) == 1; }, 5));
    QVERIFY(!isScanning());
    QVERIFY(m_host->isScanning());
    QVERIFY(becomes(m_light, Light::State::Ready));
    QVERIFY(waitFor([this] { return isScanning(); }, 5));
    QCOMPARE(finished.size(), 0);
    m_host->stopScan();
    QCOMPARE(finished.size(), 1);
    QVERIFY(waitFor([this] { return !isScanning(); }, 5));
}

void TestHost::connectAgainWhileDisconnecting()
{
    m_lights.set(address, u"disconnectDelay"_s, u"100"_s);
    m_light->setKeepConnected(true);
    QVERIFY(becomes(m_light, Light::State::Ready));
    m_states.clear();
    m_light->disconnectFromDevice();
    QVERIFY(!m_light->keepsConnected());
    m_light->connectToDevice();
    QVERIFY(becomes(m_light, Light::State::Ready));
    // The new attempt waited for the end of the old link, which would have closed both.
    QCOMPARE(m_states.first(), Light::State::Disconnecting);
    QCOMPARE(callsOf(u".Disconnect"_s), 1);
    m_light->send("still there");
    QVERIFY(waitFor([this] { return m_light->receivedCount() == 1; }));
}

void TestHost::unkeep()
{
    m_lights.command(u"adapter"_s, { u"off"_s });
    m_light->setKeepConnected(true);
    QVERIFY(becomes(m_light, Light::State::Waiting));
    m_light->setKeepConnected(false);
    QCOMPARE(m_light->state(), Light::State::Unseen);
    m_lights.command(u"adapter"_s, { u"on"_s });
    m_light->setKeepConnected(true);
    QVERIFY(becomes(m_light, Light::State::Ready));
    m_light->setKeepConnected(false);
    QVERIFY(m_light->isReady());
    m_lights.command(u"drop"_s, { QString(address) });
    QVERIFY(becomes(m_light, Light::State::Seen));
}

void TestHost::closing()
{
    Light *slow = m_host->light(u"C0:FF:EE:00:00:01"_s);
    for (Light *light : { m_light, slow })
        light->setKeepConnected(true);
    QVERIFY(becomes(m_light, Light::State::Ready));
    QVERIFY(becomes(slow, Light::State::Ready));
    const auto limit = m_host->times().disconnection / 3;
    m_lights.set(slow->address(), u"disconnectDelay"_s, QString::number(3 * limit.count()));
    QSignalSpy closed(m_host.get(), &Host::closed);
    m_host->close(limit);
    Host second;
    second.startScan();
    QCOMPARE(second.error(), Host::Error::PluginError);
    QVERIFY(!second.load(QStringLiteral(PLUGIN_FILE))); // one at a time
    QVERIFY(second.errorString().contains(u"already"_s));
    QVERIFY(waitFor([&] { return closed.size() == 1; }));
    QCOMPARE(closed.at(0).at(0).toStringList(), QStringList { slow->address() });
    QVERIFY(!m_light->isReady());
    m_light->setKeepConnected(true); // has no effect after close()
    QCOMPARE(m_light->state(), Light::State::Seen);

    // A new host works, and deleting it disconnects its lights.
    QVERIFY(m_lights.waitUntilFree());
    init();
    m_light->setKeepConnected(true);
    QVERIFY(becomes(m_light, Light::State::Ready));
    m_host.reset();
    QVERIFY(m_lights.waitUntilFree());
    init();
}

void TestHost::model()
{
    LightModel model(m_host.get());
    QCOMPARE(model.rowCount(), 1);
    QSignalSpy changed(&model, &LightModel::dataChanged);
    const auto shown = [&](LightModel::Column column) {
        return model.data(model.indexOf(m_light, column)).toString();
    };
    QCOMPARE(shown(LightModel::State), u"not seen"_s);
    QCOMPARE(shown(LightModel::ProtocolType), QString());
    m_light->connectToDevice();
    QVERIFY(becomes(m_light, Light::State::Ready));
    m_light->send("hello"); // its answer shows that the host is subscribed
    QVERIFY(waitFor([&] { return shown(LightModel::ReceivedCount) == u"1"_s; }));
    QCOMPARE(model.rowCount(), 9);
    QCOMPARE(shown(LightModel::Name), u"Corvel light(DM41)"_s);
    QCOMPARE(shown(LightModel::State), u"ready"_s);
    // A thousand messages are reported in far fewer model changes.
    changed.clear();
    m_lights.command(u"burst"_s, { QString(address), 1000, 20, 0 });
    QVERIFY(waitFor([&] { return shown(LightModel::ReceivedCount) == u"1001"_s; }));
    QVERIFY(waitFor([&] { return !changed.isEmpty(); }));
    QVERIFY(changed.size() < 100);
    QCOMPARE(model.data(model.indexOf(m_light), LightModel::LightRole).value<Light *>(), m_light);
    m_light->forget();
    QVERIFY(waitFor([&] { return model.rowCount() == 8; }));
}

QTEST_GUILESS_MAIN(TestHost)
#include "tst_host.moc"
