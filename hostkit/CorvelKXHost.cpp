#include "CorvelKXHost.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QMetaEnum>
#include <QRegularExpression>

#include <algorithm>
#include <utility>

using namespace std::chrono_literals;
using std::chrono::milliseconds;

namespace CorvelKX {

namespace {

// Each attempt makes the plugin's thread wait for bluetoothd for up to a second.
constexpr int maximumAttempts = 3;
// The plugin ends a scan after 20 s; a longer one hangs.
constexpr auto pluginScan = 20s;
constexpr auto longestScan = 25s;
// bluetoothd forgets a light some 30 s after it last advertised.
constexpr auto freshness = 20s;

milliseconds grown(milliseconds first, milliseconds longest, int failures)
{
    return std::min(longest, first * (1 << std::min(failures, 10)));
}

// Only one Host may use the plugin, because all loaders share one plugin object.
Host *theUser = nullptr;

QString findPlugin()
{
    QStringList directories { QCoreApplication::applicationDirPath(),
                              QCoreApplication::applicationDirPath()
                                      + QStringLiteral("/" CORVELKX_PLUGIN_DIR_FROM_BIN) };
    const QStringList libraryPaths = QCoreApplication::libraryPaths();
    for (const QString &path : libraryPaths)
        directories.append(path + QStringLiteral("/corvelkx"));
    for (const QString &directory : std::as_const(directories)) {
        const QFileInfo file(QDir(directory), QStringLiteral(CORVELKX_PLUGIN_NAME));
        if (file.exists())
            return QDir::cleanPath(file.filePath());
    }
    return {};
}

} // namespace

Host::Host(QObject *parent) : QObject(parent)
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &Host::advance);
}

Host::~Host()
{
    if (theUser == this)
        theUser = nullptr;
    if (!m_plugin)
        return;
    // Do not delete the plugin object: its thread may be busy. It ends with the application.
    m_plugin->disconnect(this);
    m_plugin->stop();
    for (const Light *light : std::as_const(m_lights))
        m_plugin->removeDevice(light->m_address);
}

bool Host::load(const QString &fileName)
{
    if (m_plugin)
        return true;
    if (m_isClosed) {
        setError(Error::PluginError, tr("This CorvelKX::Host was closed; create another one."));
        return false;
    }
    if (theUser) {
        setError(Error::PluginError, tr("Another CorvelKX::Host uses the plugin already."));
        return false;
    }
    const QString file = fileName.isEmpty() ? findPlugin() : fileName;
    if (file.isEmpty()) {
        setError(Error::PluginError,
                 tr("The plugin %1 is neither beside the program nor in a library path.")
                         .arg(QStringLiteral(CORVELKX_PLUGIN_NAME)));
        return false;
    }
    // Qt would look for a relative path in the library paths only.
    m_loader.setFileName(QFileInfo(file).absoluteFilePath());
    const QString iid = m_loader.metaData().value(QLatin1String("IID")).toString();
    // If the file could not be read, the error of instance() below says why.
    if (!iid.isEmpty() && iid != QLatin1String(CORVELKX_BLE_INTERFACE_IID)) {
        setError(Error::PluginError, tr("%1 is a plugin for something else (%2).").arg(file, iid));
        return false;
    }
    m_plugin = qobject_cast<CorvelKXBleInterface *>(m_loader.instance());
    if (!m_plugin) {
        setError(Error::PluginError, tr("The plugin %1 cannot be loaded: %2")
                                             .arg(file, m_loader.errorString().simplified()));
        return false;
    }
    theUser = this;
    setError(Error::NoError);
    watchPlugin();
    return true;
}

void Host::watchPlugin()
{
    // Connect by name: a program that uses the interface itself compiles its meta-object code,
    // which must not be in this library as well.
    // clang-format off
    connect(m_plugin, SIGNAL(sigDeviceDiscovered(int,QString,QString)),
            SLOT(onDiscovered(int,QString,QString)));
    connect(m_plugin, SIGNAL(sigDeviceDiscoveredErrorOccurred(QBluetoothDeviceDiscoveryAgent::Error)),
            SLOT(onScanError(QBluetoothDeviceDiscoveryAgent::Error)));
    connect(m_plugin, SIGNAL(sigDeviceDiscoveredFinished()), SLOT(onScanFinished()));
    connect(m_plugin, SIGNAL(sigDeviceConnected(QString)), SLOT(onConnected(QString)));
    connect(m_plugin, SIGNAL(sigDeviceDisconnected(QString)), SLOT(onDisconnected(QString)));
    connect(m_plugin, SIGNAL(sigMessageReceived(QString,QByteArray)),
            SLOT(onMessage(QString,QByteArray)));
    // clang-format on
}

QString Host::errorString() const
{
    switch (m_error) {
    case Error::NoError:
        return {};
    case Error::NoAdapter:
        return tr("No Bluetooth adapter can be used: there is none, the Bluetooth service does not "
                  "run, or this program is not permitted to use it.");
    case Error::AdapterOff:
        return tr("The Bluetooth adapter is switched off.");
    case Error::NoPermission:
        return tr("This program is not permitted to use Bluetooth.");
    case Error::NotSupported:
        return tr("Qt Bluetooth cannot scan for lights on this system.");
    case Error::NotResponding:
        return tr("The Bluetooth service does not answer.");
    case Error::PluginError:
    case Error::ScanFailed:
        return m_errorText;
    }
    return {};
}

void Host::setError(Error error, const QString &text)
{
    if (error == m_error && text == m_errorText)
        return;
    m_error = error;
    m_errorText = text;
    emit errorChanged();
}

bool Host::isAddress(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("\\A[0-9A-F]{2}(:[0-9A-F]{2}){5}\\z"));
    return pattern.match(text).hasMatch();
}

Light *Host::light(const QString &address)
{
    if (Light *known = m_byAddress.value(address))
        return known;
    if (!isAddress(address) || m_isClosing)
        return nullptr;
    Light *light = add(address);
    emit lightAdded(light);
    return light;
}

Light *Host::add(const QString &address)
{
    auto *light = new Light(this, address);
    m_lights.append(light);
    m_byAddress.insert(address, light);
    connect(light, &Light::seen, this, [this, light] { emit lightSeen(light); });
    connect(light, &Light::stateChanged, this, [this, light] { emit lightStateChanged(light); });
    connect(light, &Light::messageReceived, this,
            [this, light](const QByteArray &data) { emit messageReceived(light, data); });
    return light;
}

// Whether commands can be carried out; sets an error if load() was not called.
bool Host::isUsable()
{
    if (!m_plugin && !m_isClosing && m_error == Error::NoError)
        setError(Error::PluginError, tr("The plugin was not loaded."));
    return m_plugin && !m_isClosing;
}

void Host::startScan(milliseconds duration)
{
    if (!isUsable())
        return;
    m_scanEnd = QDeadlineTimer(duration);
    stopPluginScan(); // a new scan reports all lights again
    if (!std::exchange(m_isScanWanted, true))
        emit scanningChanged();
    advance();
}

void Host::stopScan()
{
    endScan();
    advance();
}

qint64 Host::remainingScanTime() const
{
    return m_isScanWanted ? m_scanEnd.remainingTime() : 0;
}

void Host::endScan()
{
    if (!std::exchange(m_isScanWanted, false))
        return;
    m_scanEnd = QDeadlineTimer::Forever;
    emit scanningChanged();
    emit scanFinished();
}

void Host::onDiscovered(int protocolType, const QString &address, const QString &name)
{
    m_hasAnswered = true;
    setError(Error::NoError);
    m_seenInScan.insert(address);
    Light *light = m_byAddress.value(address);
    const bool isNew = !light;
    if (isNew)
        light = add(address);
    const bool isRenamed = light->m_name != name || light->m_protocolType != protocolType;
    light->m_name = name;
    light->m_protocolType = protocolType;
    light->m_lastSeen = QDateTime::currentDateTime();
    ++light->m_seenCount;
    // While a light is being removed, this signal may be older than the removal.
    if (light->m_phase != Phase::Removing)
        light->m_freshUntil = QDeadlineTimer(freshness);
    if (isNew) {
        light->m_state = stateOf(*light);
        emit lightAdded(light);
    } else if (isRenamed) {
        emit light->nameChanged();
    }

    // A discovery also shows that the adapter works again.
    const bool isAwaited = light->m_phase == Phase::Searching
                           || (light->m_phase == Phase::Pausing
                               && light->m_reason == Reason::BluetoothFailed);
    if (light->m_phase == Phase::Idle)
        enter(light, Phase::Idle);
    if (isAwaited)
        queue(light);
    emit light->seen();
    advance();
}

void Host::onScanFinished()
{
    m_hasAnswered = true;
    const auto error = std::exchange(m_scanError, std::nullopt);
    if (!m_isPluginScanning) // the scan was stopped in the meantime
        return;
    m_isPluginScanning = false;
    if (error) {
        onScanFailed(*error);
    } else {
        setError(Error::NoError);
        const auto lights = m_lights;
        for (Light *light : lights) {
            if (light->m_phase == Phase::Searching && !std::exchange(light->m_joinedLate, false))
                fail(light, Reason::NotSeen);
        }
    }
    advance();
}

void Host::onScanError(QBluetoothDeviceDiscoveryAgent::Error error)
{
    m_scanError = error;
}

void Host::onScanFailed(QBluetoothDeviceDiscoveryAgent::Error error)
{
    using AgentError = QBluetoothDeviceDiscoveryAgent;
    switch (error) {
    case AgentError::InputOutputError:
    case AgentError::InvalidBluetoothAdapterError:
        return failScan(Error::NoAdapter);
    case AgentError::PoweredOffError:
        return failScan(Error::AdapterOff);
    case AgentError::MissingPermissionsError:
        return failScan(Error::NoPermission);
    case AgentError::UnsupportedPlatformError:
    case AgentError::UnsupportedDiscoveryMethod:
        return failScan(Error::NotSupported);
    default:
        const char *name = QMetaEnum::fromType<AgentError::Error>().valueToKey(error);
        return failScan(Error::ScanFailed, tr("The scan failed: %1.").arg(QLatin1String(name)));
    }
}

void Host::failScan(Error error, const QString &text)
{
    setError(error, text);
    const auto lights = m_lights;
    for (Light *light : lights) {
        if (light->m_phase == Phase::Searching)
            fail(light, Reason::BluetoothFailed);
    }
    endScan();
}

void Host::onConnected(const QString &address)
{
    m_hasAnswered = true;
    Light *light = m_byAddress.value(address);
    if (!light || light->m_phase == Phase::Removing)
        return;
    if (light->m_wish == Wish::None) { // the attempt was given up in the meantime
        disconnectLight(light, light->m_reason);
    } else {
        // A light that was connected but did not answer has to answer first.
        if (light->m_reason != Reason::NoAnswer)
            light->m_failures = light->m_timeouts = 0;
        light->m_giveUp = QDeadlineTimer::Forever;
        enter(light, Phase::Ready, QDeadlineTimer::Forever, Reason::None);
    }
    advance();
}

void Host::onDisconnected(const QString &address)
{
    m_hasAnswered = true;
    Light *light = m_byAddress.value(address);
    if (!light)
        return;
    light->m_wasLost = true;
    if (light->m_phase == Phase::Removing) {
        onRemoved(light);
    } else if (light->m_phase == Phase::Attempting) {
        fail(light, Reason::LinkLost);
    } else if (light->m_phase == Phase::Ready) {
        light->m_nextTry = QDeadlineTimer(m_times.pause);
        if (light->m_wish == Wish::Once)
            light->m_giveUp = QDeadlineTimer(0);
        fail(light, Reason::LinkLost);
    }
    advance();
}

void Host::onMessage(const QString &address, const QByteArray &data)
{
    m_hasAnswered = true;
    Light *light = m_byAddress.value(address);
    if (!light)
        return;
    ++light->m_receivedCount;
    if (light->m_phase == Phase::Ready) {
        light->m_deadline = QDeadlineTimer::Forever;
        light->m_failures = 0;
    }
    emit light->messageReceived(data);
}

bool Host::send(Light *light, const QByteArray &data)
{
    if (!m_plugin || light->m_phase != Phase::Ready)
        return false;
    m_plugin->sendMessage(light->m_address, data);
    ++light->m_sentCount;
    emit light->sent(data);
    if (m_times.answer > 0ms && light->m_deadline.isForever()) {
        light->m_deadline = QDeadlineTimer(m_times.answer);
        schedule();
    }
    return true;
}

void Host::want(Light *light, Wish wish, QDeadlineTimer giveUp)
{
    if (!isUsable() || light->m_isForgotten)
        return;
    setWish(light, wish);
    light->m_giveUp = light->isReady() ? QDeadlineTimer::Forever : giveUp;
    if (light->m_phase == Phase::Idle) {
        light->m_failures = light->m_timeouts = 0;
        begin(light, Reason::None);
    } else {
        enter(light, light->m_phase, light->m_deadline); // the state may follow from the wish
    }
    advance();
}

void Host::setWish(Light *light, Wish wish)
{
    const bool kept = light->keepsConnected();
    light->m_wish = wish;
    if (kept != light->keepsConnected())
        emit light->keepConnectedChanged();
}

void Host::unwant(Light *light)
{
    setWish(light, Wish::None);
    light->m_giveUp = QDeadlineTimer::Forever;
    switch (light->m_phase) {
    case Phase::Searching:
    case Phase::Queued:
    case Phase::Pausing:
        enter(light, Phase::Idle, QDeadlineTimer::Forever, Reason::Requested);
        break;
    case Phase::Attempting:
    case Phase::Ready:
        disconnectLight(light, Reason::Requested);
        break;
    case Phase::Removing:
        enter(light, Phase::Removing, light->m_deadline, Reason::Requested);
        break;
    case Phase::Idle:
    case Phase::Gone:
        break;
    }
    advance();
}

void Host::forget(Light *light)
{
    if (std::exchange(light->m_isForgotten, true))
        return;
    unwant(light);
    if (light->m_phase != Phase::Idle)
        return; // onRemoved() deletes it once it is disconnected
    if (m_plugin)
        m_plugin->removeDevice(light->m_address);
    onRemoved(light);
}

// Starts one attempt: connects the light at once if a scan saw it recently, otherwise scans for it.
// So all attempts but the first begin with a scan, which also tells whether the adapter works.
void Host::begin(Light *light, Reason reason)
{
    light->m_nextTry = QDeadlineTimer(
            grown(m_times.pause, m_times.longestPause, light->m_failures));
    if (!light->m_freshUntil.hasExpired())
        return queue(light);
    light->m_joinedLate = m_isPluginScanning;
    enter(light, Phase::Searching, QDeadlineTimer::Forever, reason);
}

void Host::queue(Light *light)
{
    if (m_queue.isEmpty())
        m_gathered = QDeadlineTimer(m_times.gathering);
    enter(light, Phase::Queued);
    m_queue.append(light);
}

void Host::attempt(Light *light)
{
    light->m_settled = QDeadlineTimer(m_times.settling);
    light->m_freshUntil = QDeadlineTimer(0);
    enter(light, Phase::Attempting,
          QDeadlineTimer(grown(m_times.attempt, m_times.longestAttempt,
                               std::max(0, light->m_timeouts - 1))));
    m_hasAnswered = false;
    // After a disconnection the plugin may be reconnecting the light by itself.
    if (std::exchange(light->m_wasLost, false))
        m_plugin->reconnectDevice(light->m_address);
    else
        m_plugin->connectToDevice(light->m_address);
}

// Makes the plugin forget the light, which also ends an attempt that is under way.
void Host::disconnectLight(Light *light, Reason reason)
{
    light->m_freshUntil = QDeadlineTimer(0);
    enter(light, Phase::Removing, QDeadlineTimer(m_times.disconnection), reason);
    m_hasAnswered = false;
    m_plugin->removeDevice(light->m_address);
}

void Host::onRemoved(Light *light)
{
    light->m_wasLost = false;
    if (light->m_isForgotten) {
        enter(light, Phase::Gone, QDeadlineTimer::Forever, Reason::Requested);
        m_lights.removeOne(light);
        m_byAddress.remove(light->m_address);
        emit lightRemoved(light);
        light->deleteLater();
    } else if (light->m_wish == Wish::None) {
        enter(light, Phase::Idle);
    } else if (light->m_reason == Reason::Requested) {
        light->m_failures = light->m_timeouts = 0; // the host wants it again
        begin(light, Reason::None);
    } else {
        fail(light, light->m_reason);
    }
}

void Host::fail(Light *light, Reason reason)
{
    // connectToDevice() gives up at once if waiting cannot help.
    const bool isOver = light->m_giveUp.hasExpired() || reason == Reason::BluetoothFailed
                        || reason == Reason::NotSeen;
    if (light->m_wish == Wish::Once && isOver) {
        light->m_wish = Wish::None;
        light->m_giveUp = QDeadlineTimer::Forever;
        return enter(light, Phase::Idle, QDeadlineTimer::Forever, reason);
    }
    ++light->m_failures;
    enter(light, Phase::Pausing, light->m_nextTry, reason);
}

void Host::expire(Light *light)
{
    switch (light->m_phase) {
    case Phase::Searching:
    case Phase::Queued:
        return fail(light, Reason::NotSeen); // the time limit of connectToDevice() is over
    case Phase::Pausing:
        if (light->m_giveUp.hasExpired())
            return fail(light, light->m_reason);
        return begin(light, light->m_reason);
    case Phase::Attempting:
        ++light->m_timeouts;
        return disconnectLight(light, Reason::TimedOut);
    case Phase::Ready:
        return disconnectLight(light, Reason::NoAnswer);
    case Phase::Removing:
        return onRemoved(light);
    case Phase::Idle:
    case Phase::Gone:
        return;
    }
}

void Host::enter(Light *light, Phase phase, QDeadlineTimer deadline, std::optional<Reason> reason)
{
    if (phase != Phase::Queued)
        m_queue.removeOne(light);
    light->m_phase = phase;
    light->m_deadline = deadline;
    const auto before = std::make_pair(light->m_state, light->m_reason);
    light->m_reason = reason.value_or(light->m_reason);
    light->m_state = stateOf(*light);
    if (before != std::make_pair(light->m_state, light->m_reason))
        emit light->stateChanged(light->m_state);
}

Light::State Host::stateOf(const Light &light)
{
    switch (light.m_phase) {
    case Phase::Idle:
        return light.m_lastSeen.isNull() ? Light::State::Unseen : Light::State::Seen;
    case Phase::Searching:
        return light.m_reason == Reason::None ? Light::State::Connecting : Light::State::Waiting;
    case Phase::Queued:
    case Phase::Attempting:
        return Light::State::Connecting;
    case Phase::Ready:
        return Light::State::Ready;
    case Phase::Removing:
        return light.m_wish == Wish::None ? Light::State::Disconnecting : Light::State::Waiting;
    case Phase::Pausing:
        return Light::State::Waiting;
    case Phase::Gone:
        return Light::State::Gone;
    }
    return Light::State::Unseen;
}

bool Host::has(Phase phase) const
{
    return std::any_of(m_lights.cbegin(), m_lights.cend(),
                       [phase](const Light *light) { return light->m_phase == phase; });
}

int Host::unsettledCount() const
{
    return int(std::count_if(m_lights.cbegin(), m_lights.cend(), [](const Light *light) {
        return light->m_phase == Phase::Attempting && !light->m_settled.hasExpired();
    }));
}

QDeadlineTimer Host::deadlineOf(const Light &light)
{
    // m_giveUp limits attempts only, not a connection or a disconnection.
    const bool canBeGivenUp = light.m_phase != Phase::Removing && light.m_phase != Phase::Ready;
    return canBeGivenUp ? std::min(light.m_deadline, light.m_giveUp) : light.m_deadline;
}

// Does everything that is due. Called after each event and at the next deadline.
void Host::advance()
{
    const auto lights = m_lights;
    for (Light *light : lights) {
        if (deadlineOf(*light).hasExpired())
            expire(light);
    }
    if (m_isPluginScanning && m_scanGuard.hasExpired()) {
        m_isPluginScanning = false;
        failScan(Error::NotResponding);
    }
    if (m_scanEnd.hasExpired() && !isScanOverdue())
        endScan();
    if (m_plugin) {
        connectQueued();
        updateScan();
    }
    const bool areIdle = std::all_of(m_lights.cbegin(), m_lights.cend(), [](const Light *light) {
        return light->m_phase == Phase::Idle;
    });
    if (m_isClosing && (areIdle || m_closeEnd.hasExpired()))
        finishClose();
    else
        schedule();
}

void Host::connectQueued()
{
    while (!m_queue.isEmpty() && unsettledCount() < maximumAttempts) {
        if (m_isPluginScanning && !m_gathered.hasExpired())
            return; // the scan may find more lights
        // A scanning adapter takes far longer to connect.
        stopPluginScan();
        attempt(m_queue.constFirst());
    }
}

// Whether the plugin's scan should end about now but has not reported anything: either it found
// nothing and is about to end, or bluetoothd does not answer.
bool Host::isScanOverdue() const
{
    constexpr auto tolerance = 500ms;
    constexpr milliseconds rest = longestScan - pluginScan + tolerance;
    return m_isPluginScanning && !m_hasAnswered && m_scanGuard.remainingTime() <= rest.count();
}

void Host::stopPluginScan()
{
    if (!std::exchange(m_isPluginScanning, false))
        return;
    m_hasAnswered = false;
    m_plugin->stop();
}

void Host::updateScan()
{
    const bool isWanted = m_isScanWanted || has(Phase::Searching);
    if (!isWanted)
        stopPluginScan();
    if (!isWanted || !m_queue.isEmpty() || unsettledCount() > 0)
        return;
    // A running scan rarely reports a light twice, so a light that it has reported needs a new
    // scan.
    const bool isStale = std::any_of(m_lights.cbegin(), m_lights.cend(), [this](const Light *l) {
        return l->m_phase == Phase::Searching && m_seenInScan.contains(l->m_address);
    });
    if (m_isPluginScanning && !isStale)
        return;
    m_isPluginScanning = true;
    m_seenInScan.clear();
    m_scanError.reset();
    m_scanGuard = QDeadlineTimer(longestScan);
    m_hasAnswered = false;
    for (Light *light : std::as_const(m_lights))
        light->m_joinedLate = false;
    m_plugin->start();
}

void Host::schedule()
{
    QDeadlineTimer next = m_closeEnd;
    if (!m_scanEnd.hasExpired())
        next = std::min(next, m_scanEnd);
    if (m_isPluginScanning)
        next = std::min(next, m_scanGuard);
    if (!m_queue.isEmpty() && !m_gathered.hasExpired())
        next = std::min(next, m_gathered);
    const bool isHeldUp = !m_queue.isEmpty() || m_isScanWanted || has(Phase::Searching);
    for (const Light *light : std::as_const(m_lights)) {
        next = std::min(next, deadlineOf(*light));
        if (isHeldUp && light->m_phase == Phase::Attempting && !light->m_settled.hasExpired())
            next = std::min(next, light->m_settled);
    }
    if (next.isForever())
        m_timer.stop();
    else
        m_timer.start(int(std::min<qint64>(next.remainingTime(), INT_MAX - 1)) + 1);
}

void Host::close(milliseconds limit)
{
    if (std::exchange(m_isClosing, true))
        return;
    m_closeEnd = QDeadlineTimer(limit);
    endScan();
    const auto lights = m_lights;
    for (Light *light : lights)
        unwant(light);
    advance();
}

void Host::finishClose()
{
    if (std::exchange(m_isClosed, true))
        return;
    m_timer.stop();
    m_closeEnd = QDeadlineTimer::Forever;
    QStringList stillConnected;
    for (const Light *light : std::as_const(m_lights)) {
        if (light->m_phase != Phase::Idle)
            stillConnected.append(light->m_address);
    }
    if (m_plugin) {
        m_plugin->disconnect(this);
        stopPluginScan();
    }
    // Queued, because this may run in a slot of the plugin object.
    const auto end = [this, stillConnected, plugin = std::exchange(m_plugin, {})] {
        // The destructor waits for the plugin's thread for one second only. If bluetoothd does not
        // answer, leave the object alone; it ends with the application.
        if (stillConnected.isEmpty() && m_hasAnswered)
            delete plugin;
        if (theUser == this)
            theUser = nullptr;
        emit closed(stillConnected);
    };
    QMetaObject::invokeMethod(this, end, Qt::QueuedConnection);
}

} // namespace CorvelKX
