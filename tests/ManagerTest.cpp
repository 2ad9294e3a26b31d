#include "ManagerTest.h"

#include <algorithm>

using Qt::StringLiterals::operator""_s;

void ManagerTest::init()
{
    m_log = std::make_unique<LogRecorder>();
    m_manager = std::make_unique<BLEManager>();
    m_manager->init();
    QCOMPARE(m_log->lines(), QStringList());
    const auto spy = [this](auto signal) {
        return std::make_unique<QSignalSpy>(m_manager.get(), signal);
    };
    m_discovered = spy(&BLEManager::sigDeviceDiscovered);
    m_connected = spy(&BLEManager::sigDeviceConnected);
    m_disconnected = spy(&BLEManager::sigDeviceDisconnected);
    m_received = spy(&BLEManager::sigMessageReceived);
    findLights();
    clear();
}

void ManagerTest::cleanup()
{
    // Qt never ends a scan whose agent was deleted while scanning.
    if (m_manager)
        m_manager->stop();
    m_manager.reset();
    m_log.reset();
    m_lights.restore();
}

void ManagerTest::clear()
{
    m_log->take();
    for (const auto &spy :
         { m_discovered.get(), m_connected.get(), m_disconnected.get(), m_received.get() })
        spy->clear();
}

void ManagerTest::findLights()
{
    m_discovered->clear();
    m_manager->start();
    QVERIFY(waitFor([this] { return m_discovered->size() == 9; }));
    m_manager->stop();
}

void ManagerTest::connectLight(const QString &address)
{
    const auto written = m_lights.payloads(address).size() + (address == secured ? 2 : 1);
    m_manager->connectToDevice(address);
    QVERIFY(waitFor([&] { return m_connected->contains(QVariantList { address }); }));
    m_manager->sendMessage(address, "hello");
    QVERIFY(waitFor([&] {
        return m_received->contains(QVariantList { address, QByteArray("hello") })
               && m_lights.payloads(address).size() == written;
    }));
    clear();
}

QList<QLowEnergyController *> ManagerTest::controllers() const
{
    return m_manager->findChildren<QLowEnergyController *>();
}

QLowEnergyService *ManagerTest::service(const char *prefix) const
{
    const auto services = m_manager->findChildren<QLowEnergyService *>();
    const auto found = std::find_if(services.cbegin(), services.cend(), [=](const auto *service) {
        return service->serviceUuid().toByteArray(QUuid::WithoutBraces).startsWith(prefix);
    });
    return found == services.cend() ? nullptr : *found;
}

void ManagerTest::deleteReleased()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}
