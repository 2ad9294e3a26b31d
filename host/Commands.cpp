#include "Commands.h"

#include "VirtualLights.h"

#include <QSet>
#include <QTimer>

#include <algorithm>
#include <memory>

using CorvelKX::Host;
using CorvelKX::Light;
using Outcome = Waiter::Outcome;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr seconds answerTime(1);
// main() replaces it by 128 + the number of the signal.
constexpr int interruptedStatus = EXIT_FAILURE;

bool isUnderWay(const Light *light)
{
    return light->state() == Light::State::Connecting || light->state() == Light::State::Waiting;
}

} // namespace

QString failureOf(const Host &host)
{
    return !hasVirtualLights || areVirtualLightsHere()
                   ? host.errorString()
                   : host.errorString() + QLatin1String(" Try --simulate for virtual lights.");
}

QString describe(const Light &light)
{
    return QStringLiteral("%1  %2  %3")
            .arg(QString::number(light.protocolType()).rightJustified(4), light.address(),
                 printable(light.name()));
}

QJsonObject fieldsOf(const Light &light)
{
    return { { QStringLiteral("type"), light.protocolType() },
             { QStringLiteral("address"), light.address() },
             { QStringLiteral("name"), light.name() } };
}

void printEvents(Host *host, Output *output)
{
    QObject::connect(host, &Host::lightStateChanged, output,
                     [output, ready = QSet<Light *>()](Light *light) mutable {
                         const QString &address = light->address();
                         if (light->isReady()) {
                             ready.insert(light);
                             output->report(QStringLiteral("ready"), about(address),
                                            address + QLatin1String(" is ready"));
                         } else if (light->state() != Light::State::Disconnecting
                                    && ready.remove(light)) {
                             output->report(QStringLiteral("gone"), about(address),
                                            address + QLatin1String(" is gone"));
                         }
                     });
    QObject::connect(host, &Host::messageReceived, output,
                     [output](const Light *light, const QByteArray &data) {
                         output->report(QStringLiteral("received"), about(light->address(), data),
                                        QStringLiteral("%1 says %2")
                                                .arg(light->address(), toHex(data)));
                     });
}

Commands::Commands(Host *host, Waiter *waiter, Output *output, const Waits &waits)
    : m_host(host), m_waiter(waiter), m_output(output), m_waits(waits)
{
}

int Commands::fail(const QString &sentence)
{
    m_output->complain(sentence);
    return EXIT_FAILURE;
}

int Commands::lightsFor(const QStringList &addresses, QList<Light *> *lights)
{
    for (const QString &address : addresses) {
        Light *light = m_host->light(address.toUpper());
        if (!light) {
            m_output->complain(
                    QStringLiteral("\"%1\" is not an address: write six hexadecimal pairs "
                                   "with colons, such as C0:FF:EE:00:00:01.")
                            .arg(printable(address)));
            return usageError;
        }
        lights->append(light);
    }
    return EXIT_SUCCESS;
}

int Commands::scan(milliseconds duration)
{
    const auto showRemaining = [this] {
        m_output->live(QStringLiteral("scanning, %1 s left")
                               .arg((m_host->remainingScanTime() + 999) / 1000));
    };
    QTimer live;
    QObject::connect(&live, &QTimer::timeout, &live, showRemaining);
    QSet<Light *> seen;
    QObject context;
    QObject::connect(m_host, &Host::lightSeen, &context, [&](Light *light) {
        if (seen.contains(light))
            return;
        seen.insert(light);
        m_output->report(QStringLiteral("found"), fieldsOf(*light), describe(*light));
    });

    m_host->startScan(duration);
    showRemaining();
    live.start(seconds(1));
    const auto outcome = m_waiter->waitUntil([this] { return !m_host->isScanning(); }, unlimited);
    m_host->stopScan();
    m_output->live({});
    if (outcome == Outcome::Interrupted)
        return interruptedStatus;
    if (m_host->error() != Host::Error::NoError)
        return fail(failureOf(*m_host));
    const auto count = seen.size();
    m_output->report(QStringLiteral("finished"), { { QStringLiteral("count"), count } },
                     count == 1 ? QStringLiteral("1 light was found.")
                                : QStringLiteral("%1 lights were found.").arg(count));
    return EXIT_SUCCESS;
}

int Commands::connectLights(const QStringList &addresses)
{
    QList<Light *> lights;
    if (const int status = lightsFor(addresses, &lights))
        return status;
    for (Light *light : std::as_const(lights))
        light->connectToDevice(m_waits.timeout);
    return waitReady(lights);
}

int Commands::waitReady(const QList<Light *> &lights)
{
    m_output->live(QStringLiteral("connecting"));
    const auto outcome = m_waiter->waitUntil(
            [&] { return std::none_of(lights.cbegin(), lights.cend(), isUnderWay); }, unlimited);
    m_output->live({});
    if (outcome == Outcome::Interrupted)
        return interruptedStatus;
    int status = EXIT_SUCCESS;
    for (const Light *light : lights) {
        if (light->isReady())
            continue;
        // Print an error of the adapter once, not for each light.
        const bool isOfAll = light->reason() == Light::Reason::BluetoothFailed;
        status = fail(isOfAll ? failureOf(*m_host) : light->reasonString());
        if (isOfAll)
            break;
    }
    return status;
}

int Commands::send(const QString &address, const QString &hex)
{
    QList<Light *> lights;
    if (const int status = lightsFor({ address }, &lights))
        return status;
    const auto data = bytesFromHex(hex);
    if (!data) {
        m_output->complain(notHex(hex));
        return usageError;
    }
    if (const int status = connectLights({ address }))
        return status;

    Light *light = lights.constFirst();
    const quint64 before = light->receivedCount();
    light->send(*data);
    m_output->report(QStringLiteral("sent"), about(light->address(), *data),
                     QStringLiteral("%1 was sent %2").arg(light->address(), toHex(*data)));
    const auto outcome = m_waiter->waitUntil(
            [&] { return light->receivedCount() > before || !light->isReady(); },
            m_waits.answerRequired ? m_waits.timeout : answerTime);
    if (outcome == Outcome::Interrupted)
        return interruptedStatus;
    if (!light->isReady())
        return fail(light->reasonString());
    if (outcome == Outcome::TimedOut && m_waits.answerRequired)
        return fail(QStringLiteral("%1 did not answer.").arg(light->address()));
    return EXIT_SUCCESS;
}

int Commands::listen(const QStringList &addresses)
{
    if (const int status = connectLights(addresses))
        return status;
    QList<Light *> lights;
    lightsFor(addresses, &lights);
    const auto keep = [&lights](bool isOn) {
        for (Light *light : std::as_const(lights))
            light->setKeepConnected(isOn);
    };
    const auto received = [&lights] {
        quint64 count = 0;
        for (const Light *light : std::as_const(lights))
            count += light->receivedCount();
        return count;
    };
    keep(true);
    const quint64 wanted = received() + m_waits.messages;
    const auto outcome =
            m_waiter->waitUntil([&] { return m_waits.messages && received() >= wanted; },
                                m_waits.duration.value_or(unlimited));
    const auto lost = std::find_if(lights.cbegin(), lights.cend(),
                                   [](const Light *light) { return !light->isReady(); });
    const QString reason = lost == lights.cend() ? QString() : (*lost)->reasonString();
    keep(false);
    if (outcome == Outcome::Interrupted)
        return interruptedStatus;
    if (outcome == Outcome::TimedOut && m_waits.messages)
        return fail(QStringLiteral("Fewer than %1 messages came.").arg(m_waits.messages));
    return reason.isEmpty() ? EXIT_SUCCESS : fail(reason);
}

int Commands::forget(const QString &address)
{
    QList<Light *> lights;
    if (const int status = lightsFor({ address }, &lights))
        return status;
    const auto isThere = [this, light = lights.constFirst()] {
        return m_host->lights().contains(light);
    };
    lights.constFirst()->forget();
    const auto outcome = m_waiter->waitUntil([&] { return !isThere(); }, m_waits.timeout);
    return outcome == Outcome::Done ? EXIT_SUCCESS : interruptedStatus;
}
