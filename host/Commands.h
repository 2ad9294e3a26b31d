#pragma once

#include "CorvelKXHost.h"
#include "ExitStatus.h"
#include "Output.h"
#include "Text.h"
#include "Waiter.h"

#include <chrono>
#include <optional>

/*! What the options say about the waits. */
struct Waits
{
    std::chrono::milliseconds timeout { 30000 };       //!< of each single wait
    std::optional<std::chrono::milliseconds> duration; //!< how long to listen
    quint64 messages = 0;        //!< how many messages end listening; 0: any number
    bool answerRequired = false; //!< whether sending fails without an answer
};

/*!
    The host's commands. Each returns the exit status that it stands for, and has complained where
    that is not 0.
*/
class Commands
{
public:
    Commands(CorvelKX::Host *host, Waiter *waiter, Output *output, const Waits &waits);

    /*! Scans for \a duration. */
    int scan(std::chrono::milliseconds duration);
    /*! Connects those of \a addresses that are not ready, and waits until all are. */
    int connectLights(const QStringList &addresses);
    int send(const QString &address, const QString &hex);
    int listen(const QStringList &addresses);
    int forget(const QString &address);

private:
    int lightsFor(const QStringList &addresses, QList<CorvelKX::Light *> *lights);
    int waitReady(const QList<CorvelKX::Light *> &lights);
    int fail(const QString &sentence);

    CorvelKX::Host *m_host;
    Waiter *m_waiter;
    Output *m_output;
    Waits m_waits;
};

/*! Prints whatever becomes ready, goes or sends a message, as it happens. */
void printEvents(CorvelKX::Host *host, Output *output);

/*! The sentence for what keeps \a host from its lights, with what helps. */
QString failureOf(const CorvelKX::Host &host);

/*! One line about \a light. */
QString describe(const CorvelKX::Light &light);

/*! \a light as the fields of a JSON object. */
QJsonObject fieldsOf(const CorvelKX::Light &light);
