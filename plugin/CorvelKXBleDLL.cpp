#include "CorvelKXBleDLL.h"

#include "BLEManager.h"
#include "DefaultLog.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QList>
#include <QMutex>
#include <QThread>

#include <utility>

namespace {

// All objects with a running thread. The mutex is needed because hosts may create and delete them
// on any thread.
struct Running
{
    QMutex mutex;
    QList<CorvelKXBleDLL *> objects;
};

Running &running()
{
    static Running instance;
    return instance;
}

constexpr int endLimit = 10000;

} // namespace

// Called when the QCoreApplication is destroyed. If the host does not delete the object, Qt's
// plugin loader does so among the static destructors. By then Qt D-Bus has ended, and the worker
// thread may wait for a reply for ever.
void CorvelKXBleDLL::endThreads()
{
    const QMutexLocker locker(&running().mutex);
    const auto objects = std::exchange(running().objects, {});
    for (const CorvelKXBleDLL *object : objects) {
        object->m_bleThread->requestInterruption();
        object->m_bleThread->quit();
    }
    const QDeadlineTimer end(endLimit);
    for (CorvelKXBleDLL *object : objects) {
        if (object->m_bleThread->wait(end))
            object->m_bleMgr = nullptr;
    }
}

CorvelKXBleDLL::CorvelKXBleDLL()
    : m_bleMgr(new BLEManager(nullptr)), m_bleThread(new QThread(nullptr))
{
    m_bleMgr->moveToThread(m_bleThread);
    connect(m_bleThread, &QThread::finished, m_bleMgr, &QObject::deleteLater);

    connect(m_bleMgr, &BLEManager::sigDeviceDiscovered, this,
            &CorvelKXBleDLL::slotDeviceDiscovered);
    connect(m_bleMgr, &BLEManager::sigDeviceDiscoveredErrorOccurred, this,
            &CorvelKXBleDLL::slotDeviceDiscoveredErrorOccurred);
    connect(m_bleMgr, &BLEManager::sigDeviceDiscoveredFinished, this,
            &CorvelKXBleDLL::slotDeviceDiscvoeredFinished);
    connect(m_bleMgr, &BLEManager::sigDeviceConnected, this, &CorvelKXBleDLL::slotDeviceConnected);
    connect(m_bleMgr, &BLEManager::sigDeviceDisconnected, this,
            &CorvelKXBleDLL::slotDeviceDisconnected);
    connect(m_bleMgr, &BLEManager::sigMessageReceived, this, &CorvelKXBleDLL::slotMessageReceived);

    qCDebug(defaultLog) << "CorvelKXBleDLL::CorvelKXBleDLL(), Plugin thread ID:"
                        << QThread::currentThreadId();
    m_bleThread->start(QThread::InheritPriority);
    CorvelKXBleDLL::bleInit();

    const QMutexLocker locker(&running().mutex);
    if (running().objects.isEmpty())
        qAddPostRoutine(endThreads);
    running().objects.append(this);
}

CorvelKXBleDLL::~CorvelKXBleDLL()
{
    {
        // After the last object is deleted, the library may be unloaded.
        const QMutexLocker locker(&running().mutex);
        if (running().objects.removeOne(this) && running().objects.isEmpty())
            qRemovePostRoutine(endThreads);
    }
    if (m_bleThread) {
        m_bleThread->requestInterruption(); // do not begin connections that are still queued
        m_bleThread->quit();
        m_bleThread->wait(QDeadlineTimer(1000));
        delete m_bleThread;
    }
}

void CorvelKXBleDLL::bleInit()
{
    if (!m_bleMgr) {
        qCritical() << "[CorvelKXBleDLL::bleInit] m_bleMgr is nullptr";
        return;
    }
    QMetaObject::invokeMethod(m_bleMgr, "init", Qt::QueuedConnection);
}

void CorvelKXBleDLL::start()
{
    if (!m_bleMgr) {
        qCritical() << "[CorvelKXBleDLL::Start] m_bleMgr is nullptr";
        return;
    }
    QMetaObject::invokeMethod(m_bleMgr, "start", Qt::QueuedConnection);
}

void CorvelKXBleDLL::stop()
{
    if (m_bleMgr)
        QMetaObject::invokeMethod(m_bleMgr, "stop", Qt::QueuedConnection);
}

void CorvelKXBleDLL::sendMessage(const QString &devAddr, const QByteArray &data)
{
    if (m_bleMgr) {
        QMetaObject::invokeMethod(m_bleMgr, "sendMessage", Qt::QueuedConnection,
                                  Q_ARG(QString, devAddr), Q_ARG(QByteArray, data));
    }
}

void CorvelKXBleDLL::connectToDevice(const QString &devAddr)
{
    if (!m_bleMgr)
        return;
    qCDebug(defaultLog) << "[CorvelKXBleDLL::connectToDevice] devAddr: " << devAddr;
    QMetaObject::invokeMethod(m_bleMgr, "connectToDevice", Qt::QueuedConnection,
                              Q_ARG(QString, devAddr));
}

bool CorvelKXBleDLL::reconnectDevice(const QString &devAddr)
{
    if (!m_bleMgr)
        return false;
    qCDebug(defaultLog) << "[CorvelKXBleDLL::reconnectDevice] devAddr: " << devAddr;
    QMetaObject::invokeMethod(m_bleMgr, "reconnectDevice", Qt::QueuedConnection,
                              Q_ARG(QString, devAddr));
    return true;
}

void CorvelKXBleDLL::removeDevice(const QString &devAddr)
{
    if (!m_bleMgr)
        return;
    qCDebug(defaultLog) << "[CorvelKXBleDLL::removeDevice] devAddr: " << devAddr;
    QMetaObject::invokeMethod(m_bleMgr, "removeDevice", Qt::QueuedConnection,
                              Q_ARG(QString, devAddr));
}

void CorvelKXBleDLL::slotDeviceDiscovered(int protocolType, const QString &devAddr,
                                          const QString &devName)
{
    qCDebug(defaultLog) << "[CorvelKXBleDLL::slotDeviceDiscovered] devAddr: " << devAddr
                        << " device Name: " << devName;
    emit sigDeviceDiscovered(protocolType, devAddr, devName);
}

void CorvelKXBleDLL::slotDeviceDiscoveredErrorOccurred(QBluetoothDeviceDiscoveryAgent::Error error)
{
    qCDebug(defaultLog) << "[CorvelKXBleDLL::slotDeviceDiscoveredErrorOccurred] error: " << error;
    emit sigDeviceDiscoveredErrorOccurred(error);
}

void CorvelKXBleDLL::slotDeviceDiscvoeredFinished()
{
    qCDebug(defaultLog) << "[CorvelKXBleDLL::slotDeviceDiscvoeredFinished]";
    emit sigDeviceDiscoveredFinished();
}

void CorvelKXBleDLL::slotDeviceConnected(const QString &devAddr)
{
    qCDebug(defaultLog) << "[CorvelKXBleDLL::slotDeviceConnected] devAddr: " << devAddr;
    emit sigDeviceConnected(devAddr);
}

void CorvelKXBleDLL::slotDeviceDisconnected(const QString &devAddr)
{
    qCDebug(defaultLog) << "[CorvelKXBleDLL::slotDeviceDisconnected] devAddr: " << devAddr;
    emit sigDeviceDisconnected(devAddr);
}

void CorvelKXBleDLL::slotMessageReceived(const QString &devAddr, const QByteArray &data)
{
    // No log line: every notification of every light passes here.
    emit sigMessageReceived(devAddr, data);
}

// The interface is only a header, so its meta-object code is compiled here.
#include "moc_CorvelKXBleInterface.cpp" // NOLINT(bugprone-suspicious-include)
