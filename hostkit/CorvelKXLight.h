#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QObject>
#include <QString>

#include <chrono>

namespace CorvelKX {

class Host;

/*!
    One light, with its state and the reason why it is not ready.

    \b Thread. Lives on the thread of its Host; call it only there. Nothing blocks.
    \b Ownership. Created and owned by its Host. Forgotten lights are deleted by deleteLater(), so
    that slots may still use them; do not keep the pointer after Host::lightRemoved().
    \b Order. Call Host::load() first. No scan is needed: connectToDevice() scans for a light that
    was not seen.
    \b Failure. state() and reason() tell; reasonString() is a sentence for users.
*/
class Light : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString address READ address CONSTANT)
    Q_PROPERTY(QString name READ name NOTIFY nameChanged)
    Q_PROPERTY(int protocolType READ protocolType NOTIFY nameChanged)
    Q_PROPERTY(CorvelKX::Light::State state READ state NOTIFY stateChanged)
    Q_PROPERTY(CorvelKX::Light::Reason reason READ reason NOTIFY stateChanged)
    Q_PROPERTY(QString reasonString READ reasonString NOTIFY stateChanged)
    Q_PROPERTY(bool keepConnected READ keepsConnected WRITE setKeepConnected NOTIFY
                       keepConnectedChanged)

public:
    /*! The state of a light. */
    enum class State {
        Unseen,        //!< not seen by a scan; no connection is requested
        Seen,          //!< seen by a scan; no connection is requested
        Connecting,    //!< being searched for, or being connected
        Ready,         //!< connected and subscribed; takes payloads
        Waiting,       //!< lost; will be connected again after a pause, or when a scan sees it
        Disconnecting, //!< being disconnected
        Gone,          //!< forgotten; this object is about to be deleted
    };
    Q_ENUM(State)

    /*! Why a light is not ready. */
    enum class Reason {
        None,            //!< nothing went wrong
        NotSeen,         //!< a complete scan did not find it
        TimedOut,        //!< a connection attempt took too long
        LinkLost,        //!< the link ended, or could not be established
        NoAnswer,        //!< it did not answer within Host::Times::answer
        BluetoothFailed, //!< scanning is impossible; Host::error() tells why
        Requested,       //!< the host disconnected it
    };
    Q_ENUM(Reason)

    /*! The address, which identifies the light: six upper-case hexadecimal pairs with colons. */
    QString address() const { return m_address; }
    /*! The name to display; empty until the light is seen. */
    QString name() const { return m_name; }
    /*! The protocol type: 1, 2, 3, 5, 6, 7, 162, 163 or 1001; 0 until the light is seen. */
    int protocolType() const { return m_protocolType; }

    /*! The current state. */
    State state() const { return m_state; }
    /*! The state as a word for users. */
    QString stateString() const;
    /*! Whether the state is Ready. */
    bool isReady() const { return m_state == State::Ready; }
    /*! Why the light is not ready; None while it is ready. */
    Reason reason() const { return m_reason; }
    /*! The same as a sentence for users; empty for None. */
    QString reasonString() const;

    /*!
        The milliseconds until the state changes at the latest, because a pause or the limit of an
        attempt, a disconnection or an answer is over; -1 if there is no such limit.
    */
    qint64 remainingTime() const;

    /*! When a scan last saw the light; invalid if none did. */
    QDateTime lastSeen() const { return m_lastSeen; }
    /*! How often scans reported the light. */
    quint64 seenCount() const { return m_seenCount; }
    /*! The number of payloads sent to the light. */
    quint64 sentCount() const { return m_sentCount; }
    /*! The number of messages received from the light. */
    quint64 receivedCount() const { return m_receivedCount; }

    /*!
        Connects the light once, within \a timeout: scans for it unless it was seen recently, and
        repeats failed attempts until the time is over. Then the state is Ready, or Seen or Unseen
        after a failure; if an attempt hangs, up to Host::Times::disconnection later. Fails at once
        if scanning is impossible. Does nothing if the light is connected or being connected.
    */
    void connectToDevice(std::chrono::milliseconds timeout = std::chrono::seconds(30));

    /*!
        Disconnects the light or ends the attempts, and sets keepsConnected() to false. The state is
        Disconnecting until the link is down, but no longer than Host::Times::disconnection.
    */
    void disconnectFromDevice();

    /*!
        If \a keep is true, connects the light, and reconnects it whenever it is lost, with growing
        pauses. If false, ends attempts; a light that is connected stays so until the link ends.
    */
    void setKeepConnected(bool keep);
    /*! Whether the light is kept connected. */
    bool keepsConnected() const { return m_wish == Wish::Keep; }

    /*!
        Writes \a data, unchanged and in the order of the calls. Returns false, and writes nothing,
        if the light is not ready. Nothing confirms the write. A refused payload ends the link
        without a signal, which is noticed only if Host::Times::answer is set.
    */
    bool send(const QByteArray &data);

    /*! Disconnects the light and removes it from its Host. A scan may add it again. */
    void forget();

signals:
    /*! The state, which is now \a state, or the reason changed. */
    void stateChanged(CorvelKX::Light::State state);
    /*! The light sent \a data in one notification; never empty, and in order. */
    void messageReceived(const QByteArray &data);
    /*! send() passed \a data to the plugin; whether the light received it is not known. */
    void sent(const QByteArray &data);
    /*! A scan reported the light; may be emitted many times. */
    void seen();
    /*! The name or the protocol type changed. */
    void nameChanged();
    /*! keepsConnected() changed. */
    void keepConnectedChanged();

private:
    friend class Host;
    enum class Phase { Idle, Searching, Queued, Attempting, Ready, Removing, Pausing, Gone };
    enum class Wish { None, Once, Keep };

    Light(Host *host, QString address);

    Host *m_host;
    QString m_address;
    QString m_name;
    int m_protocolType = 0;
    QDateTime m_lastSeen;
    quint64 m_seenCount = 0;
    quint64 m_sentCount = 0;
    quint64 m_receivedCount = 0;

    State m_state = State::Unseen;
    Reason m_reason = Reason::None;
    Phase m_phase = Phase::Idle;
    Wish m_wish = Wish::None;
    QDeadlineTimer m_deadline { QDeadlineTimer::Forever }; //!< of the phase
    QDeadlineTimer m_giveUp { QDeadlineTimer::Forever };   //!< of connectToDevice()
    QDeadlineTimer m_settled;    //!< when the attempt no longer delays others
    QDeadlineTimer m_freshUntil; //!< until when it can be connected without another scan
    QDeadlineTimer m_nextTry;    //!< the end of the pause
    int m_failures = 0;          //!< consecutive
    int m_timeouts = 0;          //!< consecutive
    bool m_isForgotten = false;
    bool m_wasLost = false;    //!< the plugin may be reconnecting it by itself
    bool m_joinedLate = false; //!< the search for it began during a running scan
};

} // namespace CorvelKX
