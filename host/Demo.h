#pragma once

#include "CorvelKXHost.h"
#include "Output.h"
#include "Waiter.h"

#include <QMap>

/*!
    Demonstrates the library with a few lights, from scan to disconnection. Each line says who did
    something (the host, the library or a light) and what.

    A step returns false, after an error message, if the demo cannot continue.
*/
class Demo : public QObject
{
    Q_OBJECT

public:
    Demo(CorvelKX::Host *host, Waiter *waiter, Output *output, std::chrono::milliseconds timeout);

    bool run();

private:
    bool scan();
    bool connectLights();
    bool talk();
    bool lose();
    bool forget();

    void chapter(const QString &title);
    void tell(const QString &who, const QString &what);
    void tellWhatLightsGot();
    bool sendToAll(char number);
    bool wait(const std::function<bool()> &done, const QString &complaint);

    CorvelKX::Host *m_host;
    Waiter *m_waiter;
    Output *m_output;
    std::chrono::milliseconds m_timeout;
    QList<CorvelKX::Light *> m_lights;
    QMap<QString, qsizetype> m_told; //!< how many received payloads of each light were printed
};
