#include "Commands.h"

#include <QDeadlineTimer>
#include <QMetaEnum>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

// The plugin ends a scan by itself; the longer time only guards against one that never does.
constexpr seconds scanTime(20);
constexpr seconds longestScan(25);
constexpr seconds answerTime(1);
// The program's end tells the signal; here it is just no success.
constexpr int interruptedStatus = EXIT_FAILURE;

QString reason(QBluetoothDeviceDiscoveryAgent::Error error)
{
    switch (error) {
    case QBluetoothDeviceDiscoveryAgent::InputOutputError:
        return QStringLiteral("No Bluetooth adapter can be used: there is none, or the Bluetooth "
                              "service does not run.");
    case QBluetoothDeviceDiscoveryAgent::PoweredOffError:
        return QStringLiteral("The Bluetooth adapter is switched off.");
    case QBluetoothDeviceDiscoveryAgent::MissingPermissionsError:
        return QStringLiteral("This program is not permitted to use Bluetooth.");
    default:
        return QStringLiteral("The scan failed: %1.")
                .arg(QLatin1String(
                        QMetaEnum::fromType<QBluetoothDeviceDiscoveryAgent::Error>().valueToKey(
                                error)));
    }
}

QString toHex(const QByteArray &data)
{
    return QString::fromLatin1(data.toHex());
}

QJsonObject about(const QString &address)
{
    return { { QStringLiteral("address"), address } };
}

QJsonObject about(const QString &address, const QByteArray &data)
{
    return { { QStringLiteral("address"), address }, { QStringLiteral("data"), toHex(data) } };
}

} // namespace

QString scanFailure(QBluetoothDeviceDiscoveryAgent::Error error)
{
    return qEnvironmentVariableIsSet("CORVELKX_LIGHTS")
                   ? reason(error)
                   : reason(error) + QLatin1String(" Try --simulate for virtual lights.");
}

QString describe(const Session &session, const QString &address)
{
    const Session::Found light = session.found().value(address);
    return QStringLiteral("%1  %2  %3")
            .arg(QString::number(light.type).rightJustified(4), address, printable(light.name));
}

void printSignals(Session *session, Output *output)
{
    auto *plugin = session->plugin();
    QObject::connect(plugin, &CorvelKXBleInterface::sigDeviceConnected, output,
                     [output](const QString &address) {
                         output->report(QStringLiteral("ready"), about(address),
                                        address + QLatin1String(" is ready"));
                     });
    QObject::connect(plugin, &CorvelKXBleInterface::sigDeviceDisconnected, output,
                     [output](const QString &address) {
                         output->report(QStringLiteral("gone"), about(address),
                                        address + QLatin1String(" is gone"));
                     });
    QObject::connect(plugin, &CorvelKXBleInterface::sigMessageReceived, output,
                     [output](const QString &address, const QByteArray &data) {
                         output->report(QStringLiteral("received"), about(address, data),
                                        QStringLiteral("%1 says %2").arg(address, toHex(data)));
                     });
}

Commands::Commands(Session *session, Output *output, const Waits &waits)
    : m_session(session), m_output(output), m_waits(waits)
{
}

int Commands::fail(const QString &sentence)
{
    m_output->complain(sentence);
    return EXIT_FAILURE;
}

int Commands::checkAddresses(const QStringList &addresses)
{
    static const QRegularExpression pattern(QStringLiteral("\\A[0-9A-F]{2}(:[0-9A-F]{2}){5}\\z"));
    for (const QString &address : addresses) {
        if (!pattern.match(address).hasMatch()) {
            m_output->complain(QStringLiteral("\"%1\" is not an address; one is six hexadecimal "
                                              "pairs separated by colons.")
                                       .arg(printable(address)));
            return usageError;
        }
    }
    return EXIT_SUCCESS;
}

int Commands::checkScan()
{
    const auto error = m_session->scanError();
    return error ? fail(scanFailure(*error)) : EXIT_SUCCESS;
}

int Commands::scan(std::optional<milliseconds> duration)
{
    const QDeadlineTimer end(duration.value_or(scanTime));
    const auto showRemaining = [this, end] {
        m_output->live(
                QStringLiteral("scanning, %1 s left").arg((end.remainingTime() + 999) / 1000));
    };
    QTimer live;
    QObject::connect(&live, &QTimer::timeout, &live, showRemaining);
    QObject context;
    QObject::connect(m_session, &Session::lightFound, &context, [this](const QString &address) {
        const Session::Found light = m_session->found().value(address);
        m_output->report(QStringLiteral("found"),
                         { { QStringLiteral("type"), light.type },
                           { QStringLiteral("address"), address },
                           { QStringLiteral("name"), light.name } },
                         describe(*m_session, address));
    });

    m_session->startScan();
    showRemaining();
    live.start(seconds(1));
    const auto outcome = m_session->waitUntil([this] { return m_session->hasScanEnded(); },
                                              duration.value_or(longestScan));
    if (!m_session->hasScanEnded())
        m_session->stopScan();
    m_output->live({});
    if (outcome == Session::Wait::Interrupted)
        return interruptedStatus;
    if (const int status = checkScan())
        return status;
    const auto count = m_session->seenCount();
    m_output->report(QStringLiteral("finished"), { { QStringLiteral("count"), count } },
                     count == 1 ? QStringLiteral("1 light was found.")
                                : QStringLiteral("%1 lights were found.").arg(count));
    return EXIT_SUCCESS;
}

int Commands::find(const QStringList &addresses)
{
    const auto isMissing = [this](const QString &address) {
        return !m_session->found().contains(address);
    };
    const auto missing = [&] {
        QStringList left = addresses;
        left.removeIf([&](const QString &address) { return !isMissing(address); });
        return left;
    };
    if (missing().isEmpty())
        return EXIT_SUCCESS;

    m_session->startScan();
    m_output->live(QStringLiteral("looking for %1").arg(missing().join(QLatin1String(", "))));
    const auto outcome =
            m_session->waitUntil([&] { return m_session->hasScanEnded() || missing().isEmpty(); },
                                 m_waits.timeout);
    m_output->live({});
    // An adapter that scans takes far longer to connect.
    m_session->stopScan();
    if (outcome == Session::Wait::Interrupted)
        return interruptedStatus;
    if (const int status = checkScan())
        return status;
    if (missing().isEmpty())
        return EXIT_SUCCESS;
    return fail(QStringLiteral("%1 was not seen; is the light switched on, near and not connected "
                               "to somebody else?")
                        .arg(missing().join(QLatin1String(", "))));
}

QStringList Commands::notReady(const QStringList &addresses) const
{
    QStringList waiting = addresses;
    waiting.removeIf([this](const QString &address) { return m_session->isReady(address); });
    return waiting;
}

int Commands::waitReady(const QStringList &addresses)
{
    const auto outcome = m_session->waitUntil([&] { return notReady(addresses).isEmpty(); },
                                              m_waits.timeout);
    if (outcome == Session::Wait::Interrupted)
        return interruptedStatus;
    if (outcome == Session::Wait::Done)
        return EXIT_SUCCESS;
    return fail(QStringLiteral("%1 did not become ready within %2 s.")
                        .arg(notReady(addresses).join(QLatin1String(", ")),
                             QString::number(double(m_waits.timeout.count()) / 1000)));
}

int Commands::connectLights(const QStringList &addresses)
{
    if (const int status = checkAddresses(addresses))
        return status;
    if (const int status = find(addresses))
        return status;
    // All at once: a light that does not answer holds up nobody then.
    m_session->connectTo(notReady(addresses));
    return waitReady(addresses);
}

int Commands::send(const QString &address, const QString &hex)
{
    if (const int status = checkAddresses({ address }))
        return status;
    const auto data = bytesFromHex(hex);
    if (!data) {
        m_output->complain(notHex(hex));
        return usageError;
    }
    if (const int status = connectLights({ address }))
        return status;

    const quint64 before = m_session->receivedFrom(address);
    m_session->plugin()->sendMessage(address, *data);
    m_output->report(QStringLiteral("sent"), about(address, *data),
                     QStringLiteral("%1 was sent %2").arg(address, toHex(*data)));
    const auto outcome = m_session->waitUntil(
            [&] {
                return m_session->receivedFrom(address) > before || !m_session->isReady(address);
            },
            m_waits.answerRequired ? m_waits.timeout : answerTime);
    if (outcome == Session::Wait::Interrupted)
        return interruptedStatus;
    if (!m_session->isReady(address))
        return fail(QStringLiteral("%1 was lost while it was sent to.").arg(address));
    if (outcome == Session::Wait::TimedOut && m_waits.answerRequired)
        return fail(QStringLiteral("%1 did not answer.").arg(address));
    return EXIT_SUCCESS;
}

int Commands::listen(const QStringList &addresses)
{
    if (const int status = connectLights(addresses))
        return status;
    // On Linux the plugin rarely reconnects by itself, so a host asks again.
    QObject context;
    QObject::connect(
            m_session->plugin(), &CorvelKXBleInterface::sigDeviceDisconnected, &context,
            [this](const QString &address) { m_session->reconnectTo(address); },
            Qt::QueuedConnection);

    const quint64 wanted = m_session->receivedCount() + m_waits.messages;
    const auto outcome = m_session->waitUntil(
            [&] { return m_waits.messages && m_session->receivedCount() >= wanted; },
            m_waits.duration.value_or(unlimited));
    if (outcome == Session::Wait::Interrupted)
        return interruptedStatus;
    if (outcome == Session::Wait::TimedOut && m_waits.messages) {
        return fail(QStringLiteral("Fewer than %1 messages came.").arg(m_waits.messages));
    }
    const QStringList lost = notReady(addresses);
    if (!lost.isEmpty())
        return fail(QStringLiteral("%1 was lost.").arg(lost.join(QLatin1String(", "))));
    return EXIT_SUCCESS;
}

int Commands::reconnect(const QString &address)
{
    if (const int status = checkAddresses({ address }))
        return status;
    if (!m_session->found().contains(address))
        return fail(QStringLiteral("%1 is not known; scan for it first.").arg(address));
    m_session->reconnectTo(address);
    return waitReady({ address });
}

int Commands::forget(const QString &address)
{
    if (const int status = checkAddresses({ address }))
        return status;
    m_session->forget(address);
    const auto outcome = m_session->waitUntil([&] { return !m_session->isReady(address); },
                                              m_waits.timeout);
    if (outcome == Session::Wait::Interrupted)
        return interruptedStatus;
    if (outcome == Session::Wait::TimedOut)
        return fail(QStringLiteral("%1 is still connected.").arg(address));
    return EXIT_SUCCESS;
}
