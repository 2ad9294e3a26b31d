#include "Control.h"

#include "BluetoothDaemon.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtEndian>

#include <algorithm>
#include <chrono>
#include <functional>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int longestRun = 500;

// A series of numbered notifications; ends with its link.
class Burst : public QObject
{
public:
    Burst(Backend *lights, Device *device, quint32 count, int size, int perSecond)
        : QObject(device->link.get()), m_lights(lights), m_device(device), m_count(count),
          m_perSecond(perSecond), m_value(size, '\0')
    {
        startTimer(perSecond ? 1 : 0, Qt::PreciseTimer);
    }

protected:
    void timerEvent(QTimerEvent *) override
    {
        for (quint32 sent = 0; sent < due() && m_next < m_count; ++sent) {
            qToBigEndian(m_next++, m_value.data());
            if (!m_lights->notify(m_device, m_value))
                m_next = m_count;
        }
        if (m_next == m_count)
            deleteLater();
    }

private:
    quint32 due() const
    {
        if (!m_perSecond)
            return longestRun;
        const std::chrono::duration<double> elapsed = Clock::now() - m_begin;
        return static_cast<quint32>(elapsed.count() * m_perSecond) >= m_next ? longestRun : 0;
    }

    Backend *m_lights;
    Device *m_device;
    quint32 m_next = 0;
    quint32 m_count;
    int m_perSecond;
    QByteArray m_value;
    Clock::time_point m_begin = Clock::now();
};

} // namespace

Control::Control(Backend *lights, BluetoothDaemon *daemon, QObject *parent)
    : QObject(parent), m_lights(lights), m_daemon(daemon)
{
}

void Control::fail(const QString &sentence)
{
    sendErrorReply(interface + QStringLiteral(".Error"), sentence);
}

bool Control::hasDaemon()
{
    if (!m_daemon)
        fail(QStringLiteral("\"%1\" does not work for lights on a real adapter.")
                     .arg(message().member()));
    return m_daemon;
}

Device *Control::device(const QString &address)
{
    Device *found = m_lights->find(address);
    if (!found)
        fail(QStringLiteral("There is no light %1.").arg(address));
    return found;
}

QStringList Control::lights()
{
    QStringList addresses;
    const auto devices = m_lights->devices();
    for (const Device *device : devices)
        addresses.append(device->light.address);
    return addresses;
}

void Control::add(const QString &json)
{
    if (!hasDaemon())
        return;
    Light light;
    const auto document = QJsonDocument::fromJson(json.toUtf8());
    QString wrong = document.isObject() ? light.apply(document.object())
                                        : QStringLiteral("a light is a JSON object");
    if (wrong.isEmpty() && m_lights->find(light.address))
        wrong = QStringLiteral("%1 is there already").arg(light.address);
    if (wrong.isEmpty())
        m_daemon->add(light);
    else
        fail(QStringLiteral("The light cannot be added: %1.").arg(wrong));
}

void Control::forget(const QString &address)
{
    Device *found = hasDaemon() ? device(address) : nullptr;
    if (found)
        m_daemon->forget(found);
}

// Returns what is wrong with the value, or an empty text.
QString Control::change(Device *device, const QString &key, const QJsonValue &value)
{
    Light changed = device->light;
    QString wrong = changed.set(key, value);
    if (wrong.isEmpty())
        wrong = m_lights->check(changed);
    if (wrong.isEmpty())
        device->light = changed;
    return wrong;
}

void Control::set(const QString &address, const QString &key, const QString &value)
{
    Device *found = device(address);
    if (!found)
        return;
    const QString wrong = key == QLatin1String("address")
                                  ? QStringLiteral("an address cannot be changed")
                                  : change(found, key, jsonValueFromText(value));
    if (!wrong.isEmpty())
        fail(QStringLiteral("Nothing was changed: %1.").arg(wrong));
    else
        m_lights->change(found);
}

void Control::advertise(const QString &address, const QString &hex)
{
    Device *found = device(address);
    if (!found)
        return;
    const QString wrong = change(found, QStringLiteral("manufacturer"), hex);
    if (wrong.isEmpty())
        m_lights->advertise(found);
    else
        fail(QStringLiteral("Nothing was advertised: %1.").arg(wrong));
}

void Control::drop(const QString &address)
{
    Device *found = device(address);
    if (found && !found->link)
        fail(QStringLiteral("%1 is not connected.").arg(address));
    else if (found)
        m_lights->dropLink(found);
}

void Control::vanish(const QString &address)
{
    if (Device *found = device(address))
        m_lights->vanishServices(found);
}

void Control::notify(const QString &address, const QString &hex)
{
    Device *found = device(address);
    if (!found)
        return;
    const auto value = bytesFromHex(hex);
    if (!value)
        fail(QStringLiteral("\"%1\" is not a payload: write hexadecimal pairs, such as 01ff.")
                     .arg(hex));
    else if (!m_lights->notify(found, *value))
        fail(QStringLiteral("No host has subscribed to %1.").arg(address));
}

void Control::burst(const QString &address, int count, int size, int perSecond)
{
    Device *found = device(address);
    if (!found)
        return;
    if (count < 0 || size < 4 || perSecond < 0)
        fail(QStringLiteral(
                "burst takes COUNT 0 or more, SIZE 4 or more and PERSECOND 0 or more."));
    else if (found->notifying.isEmpty())
        fail(QStringLiteral("No host has subscribed to %1.").arg(address));
    else
        new Burst(m_lights, found, static_cast<quint32>(count), size, perSecond);
}

void Control::adapter(const QString &state)
{
    if (!hasDaemon())
        return;
    if (state == QLatin1String("on"))
        m_daemon->setPowered(true);
    else if (state == QLatin1String("off"))
        m_daemon->setPowered(false);
    else if (state == QLatin1String("remove"))
        m_daemon->setPresent(false);
    else if (state == QLatin1String("return"))
        m_daemon->setPresent(true);
    else
        fail(QStringLiteral("\"%1\" is not a state of the adapter: use on, off, remove or return.")
                     .arg(state));
}

void Control::daemon(const QString &state)
{
    if (!hasDaemon())
        return;
    if (state == QLatin1String("leave"))
        m_daemon->leaveBus(BluetoothDaemon::Leaving::Clean);
    else if (state == QLatin1String("kill"))
        m_daemon->leaveBus(BluetoothDaemon::Leaving::Silent);
    else if (state == QLatin1String("return"))
        m_daemon->enterBus();
    else
        fail(QStringLiteral("\"%1\" is not a state of the daemon: use leave, kill or return.")
                     .arg(state));
}

QStringList Control::written(const QString &address)
{
    QStringList lines;
    if (const Device *found = device(address))
        std::transform(found->written.cbegin(), found->written.cend(), std::back_inserter(lines),
                       std::mem_fn(&Written::toString));
    return lines;
}

QStringList Control::connected()
{
    QStringList addresses;
    const auto devices = m_lights->devices();
    for (const Device *device : devices) {
        if (device->connected)
            addresses.append(device->light.address);
    }
    return addresses;
}

QStringList Control::calls()
{
    QStringList lines;
    const auto calls = hasDaemon() ? m_daemon->calls() : QMap<QString, quint64>();
    for (auto call = calls.cbegin(); call != calls.cend(); ++call)
        lines.append(QStringLiteral("%1 %2").arg(call.key(), QString::number(call.value())));
    return lines;
}

void Control::reset()
{
    if (!hasDaemon())
        return;
    m_daemon->resetCalls();
    const auto devices = m_lights->devices();
    for (Device *device : devices) {
        device->light = device->original;
        device->written.clear();
        device->writtenCount = 0;
    }
}

QString Control::report()
{
    QJsonArray lights;
    const auto devices = m_lights->devices();
    for (const Device *device : devices) {
        QJsonArray written;
        for (const Written &payload : device->written)
            written.append(payload.toString());
        lights.append(QJsonObject {
                { QStringLiteral("address"), device->light.address },
                { QStringLiteral("name"), device->light.name },
                { QStringLiteral("layout"), device->light.layout },
                { QStringLiteral("connected"), device->connected },
                { QStringLiteral("listening"), !device->notifying.isEmpty() },
                { QStringLiteral("writtenCount"), qint64(device->writtenCount) },
                { QStringLiteral("written"), written },
        });
    }
    QJsonObject report { { QStringLiteral("lights"), lights } };
    if (m_daemon) {
        QJsonObject calls;
        const auto counts = m_daemon->calls();
        for (auto call = counts.cbegin(); call != counts.cend(); ++call)
            calls.insert(call.key(), qint64(call.value()));
        report.insert(QStringLiteral("calls"), calls);
        report.insert(QStringLiteral("daemon"), m_daemon->isOnBus());
        report.insert(QStringLiteral("adapter"), m_daemon->isPresent());
        report.insert(QStringLiteral("powered"), m_daemon->isPowered());
        report.insert(QStringLiteral("scanning"), m_daemon->isScanning());
    }
    return QString::fromUtf8(QJsonDocument(report).toJson(QJsonDocument::Compact));
}
