#include "ManagerTest.h"

#include <QSignalSpy>
#include <QTest>

using Qt::StringLiterals::operator""_s;

class TestScan : public ManagerTest
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { deleteManager(); }
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

void TestScan::restartAndStop()
{
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    QSignalSpy finished(m_manager.get(), &BLEManager::sigDeviceDiscoveredFinished);
    m_manager->stop();
    QCOMPARE(m_log->take(), QStringList({ u"[BLEManager::stop] enter..."_s }));

    m_manager->start();
    QVERIFY(waitFor([&] { return !discovered.isEmpty(); }));
    QVERIFY(m_agent->isActive());
    m_manager->start();
    QVERIFY(m_agent->isActive());
    m_manager->stop();
    QVERIFY(!m_agent->isActive());
    QCOMPARE(withoutSightings(), QStringList({
                                         u"[BLEManager::start] enter"_s,
                                         u"[BLEManager::start] enter"_s,
                                         u"[BLEManager::start] enter : stop curent, restart"_s,
                                         u"[BLEManager::stop] enter..."_s,
                                         u"[BLEManager::stop] m_discoveryAgent->stop()"_s,
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
                                         u"[BLEManager::start] enter"_s,
                                         u"[BLEManager::slotDevDiscoveryFinished]"_s,
                                         u"[BLEManager::stop] enter..."_s,
                                 }));
}

void TestScan::failure_data()
{
    QTest::addColumn<QString>("adapter");
    QTest::addColumn<QBluetoothDeviceDiscoveryAgent::Error>("error");
    QTest::newRow("off") << u"off"_s << QBluetoothDeviceDiscoveryAgent::PoweredOffError;
    QTest::newRow("missing") << u"remove"_s << QBluetoothDeviceDiscoveryAgent::InputOutputError;
}

void TestScan::failure()
{
    QFETCH(QString, adapter);
    QFETCH(QBluetoothDeviceDiscoveryAgent::Error, error);
    m_lights.order(u"adapter"_s, { adapter });

    QStringList order;
    connect(m_manager.get(), &BLEManager::sigDeviceDiscoveredErrorOccurred, this,
            [&](QBluetoothDeviceDiscoveryAgent::Error e) {
                QCOMPARE(e, error);
                order.append(u"error"_s);
            });
    connect(m_manager.get(), &BLEManager::sigDeviceDiscoveredFinished, this,
            [&] { order.append(u"finished"_s); });
    m_manager->start();
    QVERIFY(waitFor([&] { return order.size() >= 2; }));
    QCOMPARE(order, QStringList({ u"error"_s, u"finished"_s }));
    QCOMPARE(withoutSightings(),
             QStringList({
                     u"[BLEManager::start] enter"_s,
                     u"[BLEManager::slotDevDiscoveryErrOccurred], error:  %1"_s.arg(int(error)),
                     u"[BLEManager::stop] enter..."_s,
             }));

    // The host may scan again as soon as there is something to scan with, and Qt has seen what
    // went.
    QCoreApplication::processEvents();
    m_lights.order(u"adapter"_s, { u"return"_s });
    m_lights.order(u"adapter"_s, { u"on"_s });
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
    m_lights.order(u"advertise"_s, { u"C0:FF:EE:00:00:01"_s, u"3c050000a70000"_s });
    QVERIFY(waitFor([&] { return !discovered.isEmpty(); }));
    QCOMPARE(discovered.at(0).at(0).toInt(), 1001);
}

QTEST_GUILESS_MAIN(TestScan)
#include "tst_scan.moc"
