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
    One light, as a host sees it: what it is, one state, and why it is not ready.

    \b Thread. The thread of its Host; call it there only. Nothing blocks.
    \b Ownership. Made and owned by its Host. It is deleted later than it is Gone, so that a slot may
    still use it; do not keep the pointer after Host::lightRemoved().
    \b Order. Host::load() comes first. No scan is needed: connectToDevice() looks for a light that
    was not seen.
    \b Failure. state() and reason() tell; reasonString() is a sentence for people.
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
    /*! Where a light is between unknown and ready. */
    enum class State {
        Unseen,        //!< has not been seen, and nobody asked for a connection
        Seen,          //!< was seen, is not connected, and nobody asks for a connection
        Connecting,    //!< is looked for, or an attempt to connect it is under way
        Ready,         //!< is connected and takes messages
        Waiting,       //!< is to be connected again: after a pause, or once it is seen
        Disconnecting, //!< was asked to disconnect
        Gone,          //!< was forgotten; this object goes, too
    };
    Q_ENUM(State)

    /*! Why a light is not ready. */
    enum class Reason {
        None,            //!< nothing went wrong
        NotSeen,         //!< a whole scan did not find it
        TimedOut,        //!< an attempt to connect it took too long
        LinkLost,        //!< the link ended, or could not be made
        NoAnswer,        //!< it did not answer within Host::Times::answer
        BluetoothFailed, //!< no scan is possible; Host::error() tells why
        Requested,       //!< the host asked for it
    };
    Q_ENUM(Reason)

    /*! The address, which is the light's identity: six upper-case hexadecimal pairs with colons. */
    QString address() const { return m_address; }
    /*! The name to show; empty until the light is seen. */
    QString name() const { return m_name; }
    /*! One of 1, 2, 3, 5, 6, 7, 162, 163 and 1001; 0 until the light is seen. */
    int protocolType() const { return m_protocolType; }

    /*! Where the light is now. */
    State state() const { return m_state; }
    /*! The state as a word for people. */
    QString stateString() const;
    /*! Whether the state is Ready. */
    bool isReady() const { return m_state == State::Ready; }
    /*! Why the light is not ready, or was last lost. None while it is ready. */
    Reason reason() const { return m_reason; }
    /*! The same as a sentence for people; empty for None. */
    QString reasonString() const;

    /*!
        How long until the state changes at the latest, in milliseconds: the rest of the time limit
        of an attempt, of a disconnection or of an answer, or of a pause; -1 where there is no limit.
    */
    qint64 remainingTime() const;

    /*! When the light was last seen in a scan; null if it was not. */
    QDateTime lastSeen() const { return m_lastSeen; }
    /*! How often the light was seen. */
    quint64 seenCount() const { return m_seenCount; }
    /*! How many payloads the light was sent. */
    quint64 sentCount() const { return m_sentCount; }
    /*! How many messages the light sent. */
    quint64 receivedCount() const { return m_receivedCount; }

    /*!
        Connects the light, once, within \a timeout. It is looked for where it was not seen lately,
        and attempts are repeated until the time is over. Ready tells of success, Seen or Unseen of
        failure; after an attempt that hangs, up to Host::Times::disconnection later.
        Nothing happens where a connection is there or under way. It ends at once where no scan is
        possible.
    */
    void connectToDevice(std::chrono::milliseconds timeout = std::chrono::seconds(30));

    /*!
        Disconnects the light, or ends the attempts; keepConnected() becomes false. The state is
        Disconnecting until the link is down, or until Host::Times::disconnection is over.
    */
    void disconnectFromDevice();

    /*!
        With \a keep, connects the light and brings it back whenever it is lost, with growing
        pauses, until told otherwise. Without, it stays connected as long as the link lasts.
    */
    void setKeepConnected(bool keep);
    /*! Whether the light is to be kept connected. */
    bool keepsConnected() const { return m_wish == Wish::Keep; }

    /*!
        Writes \a data, unchanged. Returns false where the light is not ready; then nothing is
        written. Payloads are written in the order of the calls. No answer comes by itself, and a
        payload that the light refuses ends the link without a signal: Host::Times::answer tells.
    */
    bool send(const QByteArray &data);

    /*! Disconnects the light and removes it from its Host. A scan may find it again, as a new one. */
    void forget();

signals:
    /*! The state changed to \a state, or the reason did. */
    void stateChanged(CorvelKX::Light::State state);
    /*! The light sent \a data in one notification; never empty, and in order. */
    void messageReceived(const QByteArray &data);
    /*! A payload was handed on to be written; whether the light got it, nobody tells. */
    void sent(const QByteArray &data);
    /*! The light was seen; emitted many times during a scan. */
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
    QDeadlineTimer m_giveUp { QDeadlineTimer::Forever };   //!< of the whole wish
    QDeadlineTimer m_settled;    //!< when the attempt no longer holds up others
    QDeadlineTimer m_freshUntil; //!< how long it can be connected without being seen again
    QDeadlineTimer m_nextTry;    //!< the end of the pause
    int m_failures = 0;          //!< in a row
    int m_timeouts = 0;          //!< attempts in a row that took too long
    bool m_isForgotten = false;
    bool m_wasLost = false;    //!< the plugin may be reconnecting it by itself
    bool m_joinedLate = false; //!< the scan had begun before the light was looked for
};

} // namespace CorvelKX
