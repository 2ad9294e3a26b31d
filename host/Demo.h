#pragma once

#include "Output.h"
#include "Session.h"

#include <QStringList>

/*!
    The whole road of a few lights as a story: scan, connect, send, receive, drop, reconnect,
   forget. Each step says who did what: the host, the plugin, a light.

    A step returns whether the road goes on; where it does not, it has told why.
*/
class Demo : public QObject
{
    Q_OBJECT

public:
    Demo(Session *session, Output *output, std::chrono::milliseconds timeout);

    bool run();

private:
    bool scan();
    bool connectLights();
    bool talk();
    bool drop();
    bool reconnect();
    bool forget();

    void chapter(const QString &title);
    void tell(const QString &who, const QString &what);
    void tellWhatLightsGot();
    void send(const QString &address, const QByteArray &data);
    bool wait(const std::function<bool()> &done, const QString &complaint);

    Session *m_session;
    Output *m_output;
    std::chrono::milliseconds m_timeout;
    QStringList m_lights;
    QMap<QString, int> m_told; //!< how many payloads each light was said to have got
};
