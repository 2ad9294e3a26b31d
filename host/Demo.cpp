#include "Demo.h"

#include "Commands.h"

#include <QProcess>

#include <algorithm>

namespace {

constexpr qsizetype mostLights = 3;
constexpr std::chrono::seconds scanTime(2);

// The program that gives orders to the virtual lights, where the host runs among them.
QString lightsProgram()
{
    return qEnvironmentVariable("CORVELKX_LIGHTS");
}

QStringList order(const QStringList &words)
{
    QProcess program;
    program.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    program.start(lightsProgram(), QStringList { QStringLiteral("ctl") } + words);
    program.waitForFinished();
    return QString::fromLocal8Bit(program.readAllStandardOutput())
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

Demo::Demo(Session *session, Output *output, std::chrono::milliseconds timeout)
    : m_session(session), m_output(output), m_timeout(timeout)
{
    const QString plugin = QStringLiteral("plugin");
    connect(session, &Session::lightFound, this, [=](const QString &address) {
        tell(plugin, QLatin1String("sigDeviceDiscovered ") + describe(*session, address));
    });
    connect(session->plugin(), &CorvelKXBleInterface::sigDeviceConnected, this,
            [=](const QString &address) {
                tell(plugin, QLatin1String("sigDeviceConnected ") + address);
            });
    connect(session->plugin(), &CorvelKXBleInterface::sigDeviceDisconnected, this,
            [=](const QString &address) {
                tell(plugin, QLatin1String("sigDeviceDisconnected ") + address);
            });
    connect(session->plugin(), &CorvelKXBleInterface::sigMessageReceived, this,
            [=](const QString &address, const QByteArray &data) {
                tell(plugin, QStringLiteral("sigMessageReceived %1 %2")
                                     .arg(address, QString::fromLatin1(data.toHex())));
            });
}

bool Demo::run()
{
    return scan() && connectLights() && talk() && drop() && reconnect() && forget();
}

void Demo::chapter(const QString &title)
{
    m_output->report(QStringLiteral("chapter"), { { QStringLiteral("title"), title } },
                     QLatin1Char('\n') + m_output->bold(title));
}

void Demo::tell(const QString &who, const QString &what)
{
    m_output->report(who, { { QStringLiteral("what"), what } },
                     QStringLiteral("  %1 %2").arg(m_output->faint(who.leftJustified(7)), what));
}

bool Demo::wait(const std::function<bool()> &done, const QString &complaint)
{
    const auto outcome = m_session->waitUntil(done, m_timeout);
    if (outcome == Session::Wait::TimedOut)
        m_output->complain(complaint);
    return outcome == Session::Wait::Done;
}

void Demo::tellWhatLightsGot()
{
    if (lightsProgram().isEmpty())
        return;
    for (const QString &address : std::as_const(m_lights)) {
        const QStringList payloads = order({ QStringLiteral("written"), address });
        for (auto i = m_told.value(address); i < payloads.size(); ++i)
            tell(QStringLiteral("light"), QStringLiteral("%1 got %2").arg(address, payloads.at(i)));
        m_told.insert(address, int(payloads.size()));
    }
}

void Demo::send(const QString &address, const QByteArray &data)
{
    tell(QStringLiteral("host"),
         QStringLiteral("sendMessage(%1, %2)").arg(address, QString::fromLatin1(data.toHex())));
    m_session->plugin()->sendMessage(address, data);
}

bool Demo::scan()
{
    chapter(QStringLiteral("Scan: every supported light is announced, other devices are not"));
    tell(QStringLiteral("host"), QStringLiteral("start()"));
    m_session->startScan();
    const auto outcome = m_session->waitUntil([this] { return m_session->hasScanEnded(); },
                                              scanTime);
    if (outcome == Session::Wait::Interrupted)
        return false;
    if (const auto error = m_session->scanError()) {
        m_output->complain(scanFailure(*error));
        return false;
    }
    tell(QStringLiteral("host"), QStringLiteral("stop()"));
    m_session->stopScan();
    m_lights = m_session->found().keys().mid(0, mostLights);
    if (m_lights.isEmpty())
        m_output->complain(QStringLiteral("No light was found."));
    return !m_lights.isEmpty();
}

bool Demo::connectLights()
{
    chapter(QStringLiteral("Connect: all at once; ready is who is connected and bound"));
    for (const QString &address : std::as_const(m_lights))
        tell(QStringLiteral("host"), QStringLiteral("connectToDevice(%1)").arg(address));
    m_session->connectTo(m_lights);
    const bool ready = wait(
            [this] {
                return std::all_of(m_lights.cbegin(), m_lights.cend(),
                                   [this](const QString &a) { return m_session->isReady(a); });
            },
            QStringLiteral("Not every light became ready."));
    tellWhatLightsGot();
    return ready;
}

bool Demo::talk()
{
    chapter(QStringLiteral("Talk: a payload to each light, and what comes back"));
    char number = 1;
    for (const QString &address : std::as_const(m_lights))
        send(address, QByteArray("\xA5") + number++);
    const bool answered = wait(
            [this] {
                return std::all_of(m_lights.cbegin(), m_lights.cend(), [this](const QString &a) {
                    return m_session->receivedFrom(a) > 0;
                });
            },
            QStringLiteral("Not every light answered."));
    tellWhatLightsGot();
    return answered;
}

bool Demo::drop()
{
    const QString &light = m_lights.constFirst();
    chapter(QStringLiteral("Drop: the light goes by itself, and the host is told"));
    if (lightsProgram().isEmpty()) {
        m_output->say(QStringLiteral("  Please switch %1 off and on again.").arg(light));
    } else {
        tell(QStringLiteral("light"), light + QLatin1String(" drops the link"));
        order({ QStringLiteral("drop"), light });
    }
    return wait([this, &light] { return !m_session->isReady(light); },
                light + QLatin1String(" did not go."));
}

bool Demo::reconnect()
{
    const QString &light = m_lights.constFirst();
    chapter(QStringLiteral("Reconnect: the host asks again, and the light answers as before"));
    tell(QStringLiteral("host"), QStringLiteral("reconnectDevice(%1)").arg(light));
    m_session->reconnectTo(light);
    if (!wait([this, &light] { return m_session->isReady(light); },
              light + QLatin1String(" did not come back.")))
        return false;
    const quint64 before = m_session->receivedFrom(light);
    send(light, "\xA5\x10");
    return wait([&] { return m_session->receivedFrom(light) > before; },
                light + QLatin1String(" did not answer."));
}

bool Demo::forget()
{
    chapter(QStringLiteral("Forget: links end, and a forgotten light must be found anew"));
    for (const QString &address : std::as_const(m_lights)) {
        tell(QStringLiteral("host"), QStringLiteral("removeDevice(%1)").arg(address));
        m_session->forget(address);
    }
    return wait(
            [this] {
                return std::none_of(m_lights.cbegin(), m_lights.cend(),
                                    [this](const QString &a) { return m_session->isReady(a); });
            },
            QStringLiteral("Not every light was let go."));
}
