#include "Session.h"

#include <QEventLoop>
#include <QTimer>

#include <algorithm>

namespace {

constexpr std::chrono::seconds halfWayLimit(1);

} // namespace

Session::Session(QObject *parent) : QObject(parent) { }

Session::~Session()
{
    if (m_loader.isLoaded())
        m_loader.unload();
}

QString Session::load(const QString &fileName)
{
    m_loader.setFileName(fileName);
    const QString iid = m_loader.metaData().value(QLatin1String("IID")).toString();
    // The loader's own reason is the better one where it could not even read the file.
    if (!iid.isEmpty() && iid != QLatin1String(CORVELKX_BLE_INTERFACE_IID))
        return QStringLiteral("%1 is a plugin for something else (%2).").arg(fileName, iid);
    m_plugin = qobject_cast<CorvelKXBleInterface *>(m_loader.instance());
    if (!m_plugin) {
        return QStringLiteral("The plugin %1 cannot be loaded: %2")
                .arg(fileName, m_loader.errorString().simplified());
    }
    watch();
    return {};
}

void Session::watch()
{
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceDiscovered, this,
            [this](int protocolType, const QString &devAddr, const QString &devName) {
                m_found.insert(devAddr, { protocolType, devName });
                const bool isNew = !m_seenInScan.contains(devAddr);
                m_seenInScan.insert(devAddr);
                if (isNew)
                    emit lightFound(devAddr);
                emit changed();
            });
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceDiscoveredErrorOccurred, this,
            [this](QBluetoothDeviceDiscoveryAgent::Error error) { m_scanError = error; });
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceDiscoveredFinished, this, [this] {
        m_hasScanEnded = true;
        emit changed();
    });
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceConnected, this,
            [this](const QString &devAddr) {
                m_ready.insert(devAddr);
                emit changed();
            });
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceDisconnected, this,
            [this](const QString &devAddr) {
                m_ready.remove(devAddr);
                m_open.remove(devAddr);
                emit changed();
            });
    connect(m_plugin, &CorvelKXBleInterface::sigMessageReceived, this,
            [this](const QString &devAddr) {
                ++m_receivedFrom[devAddr];
                ++m_receivedCount;
                emit changed();
            });
}

void Session::startScan()
{
    m_seenInScan.clear();
    m_scanError.reset();
    m_hasScanEnded = false;
    m_plugin->start();
}

void Session::stopScan()
{
    m_plugin->stop();
}

void Session::connectTo(const QStringList &addresses)
{
    for (const QString &address : addresses) {
        m_asked.insert(address);
        m_open.insert(address);
        m_plugin->connectToDevice(address);
    }
}

void Session::reconnectTo(const QString &address)
{
    m_asked.insert(address);
    m_open.insert(address);
    m_ready.remove(address);
    m_plugin->reconnectDevice(address);
}

void Session::forget(const QString &address)
{
    m_asked.remove(address);
    m_found.remove(address);
    m_plugin->removeDevice(address);
}

void Session::close(std::chrono::milliseconds limit)
{
    if (!m_plugin)
        return;
    resume();
    m_plugin->stop();
    const auto asked = m_asked.values();
    for (const QString &address : asked)
        forget(address);
    // A link that is just being made may end without a word, but it has to be let go all the same.
    const std::chrono::milliseconds patience = m_ready.contains(m_open) ? limit : halfWayLimit;
    waitUntil([this] { return m_open.isEmpty(); }, std::min(limit, patience));
}

Session::Wait Session::waitUntil(const std::function<bool()> &done,
                                 std::chrono::milliseconds limit) const
{
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    connect(this, &Session::changed, &loop, [&] {
        if (m_isInterrupted || done())
            loop.quit();
    });
    if (!m_isInterrupted && !done()) {
        timer.start(limit);
        loop.exec();
    }
    if (m_isInterrupted)
        return Wait::Interrupted;
    return done() ? Wait::Done : Wait::TimedOut;
}

void Session::interrupt()
{
    m_isInterrupted = true;
    emit changed();
}
