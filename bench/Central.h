#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

/*! What is measured: a host's way to the lights. Tells by calls on the thread that made it. */
class Central : public QObject
{
public:
    using Teller = std::function<void(const QString &address)>;

    virtual void startScan() = 0;
    virtual void stopScan() = 0;
    virtual void connectTo(const QString &address) = 0;
    virtual void send(const QString &address, const QByteArray &data) = 0;
    virtual void letGo(const QString &address) = 0;

    Teller found = [](const QString &) {};
    Teller ready = [](const QString &) {};
    Teller gone = [](const QString &) {};
    std::function<void(const QString &address, const QByteArray &data)> received =
            [](const QString &, const QByteArray &) {};
};

/*! Qt Bluetooth alone, on one thread, with the least that does the job. */
std::unique_ptr<Central> bareCentral();
/*! The plugin from \a fileName, as a host loads it. */
std::unique_ptr<Central> pluginCentral(const QString &fileName);
