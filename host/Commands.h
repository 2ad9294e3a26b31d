#pragma once

#include "Output.h"
#include "Session.h"
#include "Text.h"

#include <chrono>
#include <optional>

/*! What a wrong word on the command line ends with; a failure ends with EXIT_FAILURE. */
constexpr int usageError = 2;

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
    Commands(Session *session, Output *output, const Waits &waits);

    /*! Scans for \a duration, or as long as the plugin does. */
    int scan(std::optional<std::chrono::milliseconds> duration);
    /*! Finds and connects those of \a addresses that are not ready, and waits until all are. */
    int connectLights(const QStringList &addresses);
    int send(const QString &address, const QString &hex);
    int listen(const QStringList &addresses);
    int reconnect(const QString &address);
    int forget(const QString &address);

private:
    int find(const QStringList &addresses);
    int checkScan();
    int checkAddresses(const QStringList &addresses);
    int waitReady(const QStringList &addresses);
    int fail(const QString &sentence);
    QStringList notReady(const QStringList &addresses) const;

    Session *m_session;
    Output *m_output;
    Waits m_waits;
};

/*! Prints every ready, gone and received signal of \a session to \a output as it comes. */
void printSignals(Session *session, Output *output);

/*! The sentence for a scan that failed with \a error. */
QString scanFailure(QBluetoothDeviceDiscoveryAgent::Error error);

/*! One line about the light \a address that \a session has found. */
QString describe(const Session &session, const QString &address);
