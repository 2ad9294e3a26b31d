#pragma once

#include "CorvelKXHost.h"
#include "Output.h"
#include "Waiter.h"

#include <QMap>

/*!
    A few lights from the first scan to the last disconnection, as a story: each line says who did
    what: the host, the library, a light.

    A step returns whether the story goes on; where it does not, it has told why.
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
    QMap<QString, qsizetype> m_told; //!< how many payloads each light was said to have got
};
