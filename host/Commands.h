#pragma once

#include "CorvelKXHost.h"
#include "ExitStatus.h"
#include "Output.h"
#include "Text.h"
#include "Waiter.h"

#include <chrono>
#include <optional>

/*! The options that limit the commands' waits. */
struct Waits
{
    std::chrono::milliseconds timeout { 30000 };       //!< of each operation
    std::optional<std::chrono::milliseconds> duration; //!< for how long to scan or listen
    quint64 messages = 0;        //!< end listening after this many messages; 0: no limit
    bool answerRequired = false; //!< send fails without an answer
};

/*!
    The host's commands. Each returns an exit status; if that is not 0, it has printed why, unless
    the user interrupted it.
*/
class Commands
{
public:
    Commands(CorvelKX::Host *host, Waiter *waiter, Output *output, const Waits &waits);

    /*! Scans for \a duration. */
    int scan(std::chrono::milliseconds duration);
    /*! Connects \a addresses, and waits until all are ready or have failed. */
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

/*! Prints when a light becomes ready, disconnects or sends a message. */
void printEvents(CorvelKX::Host *host, Output *output);

/*! The error of \a host, with a hint at --simulate if there are no virtual lights. */
QString failureOf(const CorvelKX::Host &host);

/*! One line about \a light. */
QString describe(const CorvelKX::Light &light);

/*! \a light as the fields of a JSON object. */
QJsonObject fieldsOf(const CorvelKX::Light &light);
