#include "Lights.h"
#include "MYBLE.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>

using Qt::StringLiterals::operator""_s;

class TestSingle : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void traceWhereCharacteristicsComeAtOnce();
    void traceWhereCharacteristicsComeLater();
    void notifications();
    void writesBeforeBinding();
    void writeModes_data();
    void writeModes();
    void oneService_data();
    void oneService();
    void destructionAtEachStep_data();
    void destructionAtEachStep();

private:
    static constexpr QLatin1String light { "C0:FF:EE:00:00:03" };

    QStringList trace() const;
    QList<QLowEnergyService *> services() const;
    void connectLight();
    void connectWithLateCharacteristics();

    Lights m_lights;
    std::unique_ptr<LogRecorder> m_log;
    std::unique_ptr<MYBLE> m_client;
};

void TestSingle::init()
{
    m_log = std::make_unique<LogRecorder>();
}

void TestSingle::cleanup()
{
    m_client.reset();
    m_log.reset();
    m_lights.restore();
}

// The log from the light's discovery on; before that it depends on the order of discovery.
QStringList TestSingle::trace() const
{
    QStringList lines = m_log->lines();
    return lines.mid(lines.indexOf(u"Corvel light(DM41) is found! "_s));
}

QList<QLowEnergyService *> TestSingle::services() const
{
    return m_client->findChildren<QLowEnergyService *>();
}

// Returns when the details of all services are discovered.
void TestSingle::connectLight()
{
    if (!m_client)
        m_client = std::make_unique<MYBLE>();
    QVERIFY(waitFor([this] {
        const auto all = services();
        return !all.isEmpty()
               && std::all_of(all.cbegin(), all.cend(), [](const QLowEnergyService *service) {
                      return service->state() == QLowEnergyService::RemoteServiceDiscovered;
                  });
    }));
}

// Simulates a platform that lists characteristics only with the details: serviceScanDone() is
// called before them and finds none.
void TestSingle::connectWithLateCharacteristics()
{
    m_client = std::make_unique<MYBLE>();
    QVERIFY(waitFor([this] { return m_client->findChild<QLowEnergyController *>(); }));
    auto *controller = m_client->findChild<QLowEnergyController *>();
    connect(controller, &QLowEnergyController::stateChanged, m_client.get(),
            [this, controller](QLowEnergyController::ControllerState state) {
                if (state == QLowEnergyController::DiscoveringState) {
                    disconnect(controller, &QLowEnergyController::discoveryFinished, nullptr,
                               nullptr);
                    m_client->serviceScanDone();
                }
            });
}

void TestSingle::traceWhereCharacteristicsComeAtOnce()
{
    connectLight();
    compareTrace(trace(), u"single-at-once.trace"_s);
    // serviceScanDone() found the characteristic, so the identification byte is never sent.
    m_client->sendMessageOrder("o");
    m_client->sendMessage("m");
    QVERIFY(waitFor([this] { return m_lights.payloads(light).size() == 2; }));
    QCOMPARE(m_lights.payloads(light), QStringList({ u"command 6f"_s, u"request 6d"_s }));
}

void TestSingle::traceWhereCharacteristicsComeLater()
{
    m_lights.set(light, u"authenticationFirst"_s, u"true"_s);
    connectWithLateCharacteristics();
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"newvalue is"_s).isEmpty(); }));
    connectLight();
    compareTrace(trace(), u"single-later.trace"_s);
    // The characteristic is kept, and the byte is sent once.
    for (QLowEnergyService *service : services())
        emit service->stateChanged(QLowEnergyService::RemoteServiceDiscovered);
    m_client->sendMessage("m");
    QVERIFY(waitFor([this] { return m_lights.payloads(light).size() == 2; }));
    QCOMPARE(m_lights.payloads(light), QStringList({ u"request 5c"_s, u"request 6d"_s }));
}

void TestSingle::notifications()
{
    connectLight();
    QSignalSpy received(m_client.get(), &MYBLE::dataReceived);
    m_log->take();
    for (QLowEnergyService *service : services())
        emit service->characteristicChanged(service->characteristics().constFirst(), "n");
    QCOMPARE(received, QList<QVariantList>(2, { QByteArray("n") }));
    emit services().at(0)->characteristicRead(services().at(0)->characteristics().at(0), "\xAB");
    m_client->handleError(QLowEnergyController::NetworkError);
    compareTrace(m_log->take(), u"single-notifications.trace"_s);
    // MYBLE does not subscribe.
    QVERIFY(m_lights.command(u"calls"_s).filter(u"StartNotify"_s).isEmpty());
}

void TestSingle::writesBeforeBinding()
{
    m_client = std::make_unique<MYBLE>();
    m_client->sendMessage("1");
    m_client->sendMessageOrder("2");
    QVERIFY(waitFor(
            [this] { return !m_log->linesWith(u"KX_SERVICE_UUID，服务打开"_s).isEmpty(); }));
    QVERIFY(m_log->linesWith(u"完成发送"_s).isEmpty());
    // The characteristic is known but the details are not: Qt drops the write.
    m_client->sendMessage("3");
    QCOMPARE(m_log->linesWith(u"完成发送"_s).size(), 1);
    connectLight();
    m_client->sendMessage("4");
    QVERIFY(waitFor([this] { return !m_lights.payloads(light).isEmpty(); }));
    QCOMPARE(m_lights.payloads(light), QStringList({ u"request 34"_s }));
}

void TestSingle::writeModes_data()
{
    QTest::addColumn<QString>("flags");
    QTest::addColumn<QStringList>("payloads");
    const QStringList both { u"command 6f"_s, u"request 6d"_s };
    QTest::newRow("without response") << u"[\"write-without-response\"]"_s << both;
    QTest::newRow("with response") << u"[\"write\"]"_s << both;
    QTest::newRow("neither") << u"[\"indicate\"]"_s << QStringList();
}

void TestSingle::writeModes()
{
    QFETCH(QString, flags);
    QFETCH(QStringList, payloads);
    m_lights.set(light, u"writeFlags"_s, flags);
    connectLight();
    m_client->sendMessageOrder("o");
    m_client->sendMessage("m");
    QCOMPARE(m_log->linesWith(u"完成发送"_s).size(), payloads.size());
    QVERIFY(waitFor([&] { return m_lights.payloads(light) == payloads; }));
}

void TestSingle::oneService_data()
{
    QTest::addColumn<QString>("missing");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("payload");
    QTest::newRow("no main service")
            << u"f000ffc0"_s << u"writeCharacteristic不可用"_s << u"command 6f"_s;
    QTest::newRow("no order service")
            << u"0000fff0"_s << u"writeCharacteristicOrder不可用"_s << u"request 6d"_s;
}

void TestSingle::oneService()
{
    QFETCH(QString, missing);
    QFETCH(QString, line);
    QFETCH(QString, payload);
    m_lights.set(light, u"omit"_s, missing);
    connectLight();
    QCOMPARE(m_log->linesWith(u"不可用"_s), QStringList({ line }));
    m_client->sendMessageOrder("o");
    m_client->sendMessage("m");
    QVERIFY(waitFor([&] { return m_lights.payloads(light) == QStringList { payload }; }));
}

void TestSingle::destructionAtEachStep_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("connect");
    const auto row = [](const char *title, const QString &line,
                        const QString &connect = u"accept"_s) {
        QTest::newRow(title) << line << connect;
    };
    row("scanning", u"Enter deviceDiscovered"_s);
    row("connecting", u"connectToDevice"_s, u"hang"_s);
    row("refused", u"connectToDevice"_s, u"refuse"_s);
    row("discovering services", u"deviceConnected"_s);
    row("discovering details", u"RemoteServiceDiscovering"_s);
    row("bound", u"Is equal to QLowEnergyService::RemoteServiceDiscovered:  true"_s);
}

void TestSingle::destructionAtEachStep()
{
    QFETCH(QString, line);
    QFETCH(QString, connect);
    m_lights.set(light, u"connect"_s, connect);
    m_client = std::make_unique<MYBLE>();
    QVERIFY(waitFor([&] { return !m_log->linesWith(line).isEmpty(); }));
    m_client->sendMessage("x");
    m_client.reset();
    QVERIFY(m_lights.waitUntilFree());
}

QTEST_GUILESS_MAIN(TestSingle)
#include "tst_single.moc"
