#include "CorvelKXLight.h"

#include "CorvelKXHost.h"

#include <utility>

using namespace std::chrono_literals;

namespace CorvelKX {

Light::Light(Host *host, QString address)
    : QObject(host), m_host(host), m_address(std::move(address))
{
}

QString Light::stateString() const
{
    switch (m_state) {
    case State::Unseen:
        return tr("not seen");
    case State::Seen:
        return m_reason == Reason::LinkLost ? tr("lost") : tr("seen");
    case State::Connecting:
        return tr("connecting");
    case State::Ready:
        return tr("ready");
    case State::Waiting:
        return tr("reconnecting");
    case State::Disconnecting:
        return m_isForgotten ? tr("forgotten") : tr("disconnecting");
    case State::Gone:
        return tr("forgotten");
    }
    return {};
}

QString Light::reasonString() const
{
    switch (m_reason) {
    case Reason::None:
        return {};
    case Reason::NotSeen:
        return tr("%1 was not found. Is it switched on, in range, and not connected to another "
                  "host?")
                .arg(m_address);
    case Reason::TimedOut:
        return tr("%1 did not become ready in time.").arg(m_address);
    case Reason::LinkLost:
        return tr("The link to %1 was lost.").arg(m_address);
    case Reason::NoAnswer:
        return tr("%1 did not answer.").arg(m_address);
    case Reason::BluetoothFailed:
        return m_host->errorString();
    case Reason::Requested:
        return tr("%1 was disconnected on request.").arg(m_address);
    }
    return {};
}

qint64 Light::remainingTime() const
{
    return Host::deadlineOf(*this).remainingTime();
}

void Light::connectToDevice(std::chrono::milliseconds timeout)
{
    if (m_wish == Wish::None)
        m_host->want(this, Wish::Once, QDeadlineTimer(timeout));
}

void Light::disconnectFromDevice()
{
    m_host->unwant(this);
}

void Light::setKeepConnected(bool keep)
{
    if (keep == keepsConnected())
        return;
    if (keep)
        m_host->want(this, Wish::Keep, QDeadlineTimer::Forever);
    else if (isReady())
        m_host->setWish(this, Wish::Once);
    else
        m_host->unwant(this);
}

bool Light::send(const QByteArray &data)
{
    return m_host->send(this, data);
}

void Light::forget()
{
    m_host->forget(this);
}

} // namespace CorvelKX
