#include "ManagerTest.h"

#include <QSignalSpy>
#include <QTest>

using Qt::StringLiterals::operator""_s;

void ManagerTest::createManager()
{
    m_manager = std::make_unique<BLEManager>();
    m_log = std::make_unique<LogRecorder>();
    m_manager->init();
    findLights();
    m_log->take();
}

void ManagerTest::findLights()
{
    QSignalSpy discovered(m_manager.get(), &BLEManager::sigDeviceDiscovered);
    m_manager->start();
    QVERIFY(waitFor([&] { return discovered.size() == 9; }));
    m_manager->stop();
}

void ManagerTest::deleteManager()
{
    // Qt goes on scanning for an agent that is deleted while it scans.
    m_manager->stop();
    m_manager.reset();
    m_log.reset();
    m_lights.restore();
}
