#include "Demo.h"

#include "Commands.h"

#include <QMetaEnum>
#include <QProcess>

#include <algorithm>

using CorvelKX::Host;
using CorvelKX::Light;

namespace {

constexpr qsizetype maximumLights = 3;
constexpr std::chrono::seconds scanTime(2);

// corvelkx-lights if the host runs among virtual lights, otherwise empty.
QString lightsProgram()
{
    return qEnvironmentVariable("CORVELKX_LIGHTS");
}

QStringList command(const QStringList &words)
{
    QProcess program;
    program.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    program.start(lightsProgram(), QStringList { QStringLiteral("ctl") } + words);
    program.waitForFinished();
    return QString::fromLocal8Bit(program.readAllStandardOutput())
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

Demo::Demo(Host *host, Waiter *waiter, Output *output, std::chrono::milliseconds timeout)
    : m_host(host), m_waiter(waiter), m_output(output), m_timeout(timeout)
{
    const QString library = QStringLiteral("library");
    connect(host, &Host::lightAdded, this,
            [=](Light *light) { tell(library, QLatin1String("lightAdded ") + describe(*light)); });
    connect(host, &Host::lightStateChanged, this, [=](Light *light) {
        const char *state = QMetaEnum::fromType<Light::State>().valueToKey(int(light->state()));
        QString text = QStringLiteral("%1 %2").arg(light->address(), QLatin1String(state));
        if (light->state() == Light::State::Waiting)
            text += QStringLiteral(" (%1)").arg(light->reasonString());
        tell(library, text);
    });
    connect(host, &Host::messageReceived, this, [=](Light *light, const QByteArray &data) {
        tell(library, QStringLiteral("messageReceived %1 %2").arg(light->address(), toHex(data)));
    });
}

bool Demo::run()
{
    return scan() && connectLights() && talk() && lose() && forget();
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
    const auto outcome = m_waiter->waitUntil(done, m_timeout);
    if (outcome == Waiter::Outcome::TimedOut)
        m_output->complain(complaint);
    return outcome == Waiter::Outcome::Done;
}

void Demo::tellWhatLightsGot()
{
    if (lightsProgram().isEmpty())
        return;
    for (const Light *light : std::as_const(m_lights)) {
        const QStringList payloads = command({ QStringLiteral("written"), light->address() });
        for (auto i = m_told.value(light->address()); i < payloads.size(); ++i)
            tell(QStringLiteral("light"),
                 QStringLiteral("%1 got %2").arg(light->address(), payloads.at(i)));
        m_told.insert(light->address(), payloads.size());
    }
}

bool Demo::scan()
{
    chapter(QStringLiteral("Scan: all lights are found, other devices are ignored"));
    tell(QStringLiteral("host"), QStringLiteral("startScan()"));
    m_host->startScan(scanTime);
    if (m_waiter->waitUntil([this] { return !m_host->isScanning(); }, unlimited)
        == Waiter::Outcome::Interrupted)
        return false;
    if (m_host->error() != Host::Error::NoError) {
        m_output->complain(failureOf(*m_host));
        return false;
    }
    m_lights = m_host->lights().mid(0, maximumLights);
    if (m_lights.isEmpty())
        m_output->complain(QStringLiteral("No light was found."));
    return !m_lights.isEmpty();
}

bool Demo::connectLights()
{
    chapter(QStringLiteral("Connect: a light is ready when it takes payloads"));
    for (Light *light : std::as_const(m_lights)) {
        tell(QStringLiteral("host"), light->address() + QLatin1String(" setKeepConnected(true)"));
        light->setKeepConnected(true);
    }
    const auto isReady = [](const Light *light) { return light->isReady(); };
    const bool done = wait([&] { return std::all_of(m_lights.cbegin(), m_lights.cend(), isReady); },
                           QStringLiteral("Not every light became ready."));
    tellWhatLightsGot();
    return done;
}

bool Demo::sendToAll(char number)
{
    quint64 missing = 0;
    for (Light *light : std::as_const(m_lights)) {
        missing += light->receivedCount() + 1;
        const QByteArray data = QByteArray("\xA5") + number++;
        tell(QStringLiteral("host"),
             QStringLiteral("%1 send(%2)").arg(light->address(), toHex(data)));
        light->send(data);
    }
    const bool answered = wait(
            [&] {
                quint64 received = 0;
                for (const Light *light : std::as_const(m_lights))
                    received += light->receivedCount();
                return received >= missing;
            },
            QStringLiteral("Not every light answered."));
    tellWhatLightsGot();
    return answered;
}

bool Demo::talk()
{
    chapter(QStringLiteral("Talk: each light gets a payload and answers"));
    return sendToAll(1);
}

bool Demo::lose()
{
    const Light *light = m_lights.constFirst();
    const QString address = light->address();
    chapter(QStringLiteral("Lose a link: the library reconnects the light"));
    if (lightsProgram().isEmpty()) {
        m_output->say(QStringLiteral("  Please switch %1 off and on again.").arg(address));
    } else {
        tell(QStringLiteral("light"), address + QLatin1String(" drops the link"));
        command({ QStringLiteral("drop"), address });
    }
    return wait([light] { return !light->isReady(); },
                address + QLatin1String(" did not disconnect."))
           && wait([light] { return light->isReady(); },
                   address + QLatin1String(" was not ready again."))
           && sendToAll(0x10);
}

bool Demo::forget()
{
    chapter(QStringLiteral("Forget: the lights are disconnected and removed"));
    for (Light *light : std::as_const(m_lights)) {
        tell(QStringLiteral("host"), light->address() + QLatin1String(" forget()"));
        light->forget();
    }
    const auto isThere = [this](Light *light) { return m_host->lights().contains(light); };
    return wait([&] { return std::none_of(m_lights.cbegin(), m_lights.cend(), isThere); },
                QStringLiteral("Not every light disconnected."));
}
