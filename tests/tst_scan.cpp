#include "BLEManager.h"
#include "TestSupport.h"

#include <QSignalSpy>
#include <QTest>

class TestScan : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void restartAndStop();
    void timeOut();
    void failure_data();
    void failure();
    void rescanFindsKnownLightsAgain();

private:
    QStringList withoutSightings()
    {
        QStringList lines = m_log->take();
        lines.removeIf([](const QString &line) {
            return line.contains(QLatin1String("slotDeviceDiscovered"))
                   || line.startsWith(QLatin1String("supportedBleDevice"));
        });
        return lines;
    }

    Lights m_lights;
    std::unique_ptr<BLEManager> m_manager;
    std::unique_ptr<LogRecorder> m_log;
    QBluetoothDeviceDiscoveryAgent *m_agent = nullptr;
};

void TestScan::init()
{
    m_manager = std::make_unique<BLEManager>();
    m_log = std::make_unique<LogRecorder>();
    m_manager->init();
    m_agent = m_manager->findChild<QBluetoothDeviceDiscoveryAgent *>();
    QCOMPARE(m_agent->lowEnergyDiscoveryTimeout(), 20000);
    QCOMPARE(m_log->take(), QStringList());
}

void TestScan::cleanup()
{
    // Qt goes on scanning for an agent that is deleted while it scans.
    m_manager->stop();
    m_manager.reset();
    m_log.reset();
    m_lights.order(QStringLiteral("adapter"), { QStringLiteral("return") });
    m_lights.order(QStringLiteral("adapter"), { QStringLiteral("on") });
}

void TestScan::restartAndStop()
{
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    QSignalSpy finished(m_manager.get(), &BLEManager::sigDeviceDiscoveredFinished);
    m_manager->stop();
    QCOMPARE(m_log->take(), QStringList({ QStringLiteral("[BLEManager::stop] enter...") }));

    m_manager->start();
    QVERIFY(waitFor([&] { return !discovered.isEmpty(); }));
    QVERIFY(m_agent->isActive());
    m_manager->start();
    QVERIFY(m_agent->isActive());
    m_manager->stop();
    QVERIFY(!m_agent->isActive());
    QCOMPARE(withoutSightings(),
             QStringList({
                     QStringLiteral("[BLEManager::start] enter"),
                     QStringLiteral("[BLEManager::start] enter"),
                     QStringLiteral("[BLEManager::start] enter : stop curent, restart"),
                     QStringLiteral("[BLEManager::stop] enter..."),
                     QStringLiteral("[BLEManager::stop] m_discoveryAgent->stop()"),
             }));
    QVERIFY(finished.isEmpty());
}

void TestScan::timeOut()
{
    QSignalSpy finished(m_manager.get(), &BLEManager::sigDeviceDiscoveredFinished);
    QSignalSpy failed(m_manager.get(), &BLEManager::sigDeviceDiscoveredErrorOccurred);
    m_agent->setLowEnergyDiscoveryTimeout(50);
    m_manager->start();
    QVERIFY(waitFor([&] { return !finished.isEmpty(); }));
    QCOMPARE(finished.size(), 1);
    QCOMPARE(failed.size(), 0);
    QCOMPARE(withoutSightings(), QStringList({
                                         QStringLiteral("[BLEManager::start] enter"),
                                         QStringLiteral("[BLEManager::slotDevDiscoveryFinished]"),
                                         QStringLiteral("[BLEManager::stop] enter..."),
                                 }));
}

void TestScan::failure_data()
{
    QTest::addColumn<QString>("adapter");
    QTest::addColumn<QBluetoothDeviceDiscoveryAgent::Error>("error");
    QTest::newRow("off") << QStringLiteral("off")
                         << QBluetoothDeviceDiscoveryAgent::PoweredOffError;
    QTest::newRow("missing") << QStringLiteral("remove")
                             << QBluetoothDeviceDiscoveryAgent::InputOutputError;
}

void TestScan::failure()
{
    QFETCH(QString, adapter);
    QFETCH(QBluetoothDeviceDiscoveryAgent::Error, error);
    m_lights.order(QStringLiteral("adapter"), { adapter });

    QStringList order;
    connect(m_manager.get(), &BLEManager::sigDeviceDiscoveredErrorOccurred, this,
            [&](QBluetoothDeviceDiscoveryAgent::Error e) {
                QCOMPARE(e, error);
                order.append(QStringLiteral("error"));
            });
    connect(m_manager.get(), &BLEManager::sigDeviceDiscoveredFinished, this,
            [&] { order.append(QStringLiteral("finished")); });
    m_manager->start();
    QVERIFY(waitFor([&] { return order.size() >= 2; }));
    QCOMPARE(order, QStringList({ QStringLiteral("error"), QStringLiteral("finished") }));
    QCOMPARE(withoutSightings(),
             QStringList({
                     QStringLiteral("[BLEManager::start] enter"),
                     QStringLiteral("[BLEManager::slotDevDiscoveryErrOccurred], error:  %1")
                             .arg(int(error)),
                     QStringLiteral("[BLEManager::stop] enter..."),
             }));

    // The host may scan again as soon as there is something to scan with, and Qt has seen what
    // went.
    QCoreApplication::processEvents();
    m_lights.order(QStringLiteral("adapter"), { QStringLiteral("return") });
    m_lights.order(QStringLiteral("adapter"), { QStringLiteral("on") });
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    m_manager->start();
    QVERIFY(waitFor([&] { return !discovered.isEmpty(); }));
}

void TestScan::rescanFindsKnownLightsAgain()
{
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    m_manager->start();
    QVERIFY(waitFor([&] { return discovered.size() == 9; }));
    m_manager->stop();
    discovered.clear();
    m_manager->start();
    QVERIFY(waitFor([&] { return discovered.size() == 9; }));

    // Changed bytes are one more announcement, of the type that they tell.
    discovered.clear();
    m_lights.order(QStringLiteral("advertise"),
                   { QStringLiteral("C0:FF:EE:00:00:01"), QStringLiteral("3c050000a70000") });
    QVERIFY(waitFor([&] { return !discovered.isEmpty(); }));
    QCOMPARE(discovered.at(0).at(0).toInt(), 1001);
    m_lights.set(QStringLiteral("C0:FF:EE:00:00:01"), QStringLiteral("type"), QStringLiteral("1"));
}

QTEST_GUILESS_MAIN(TestScan)
#include "tst_scan.moc"
