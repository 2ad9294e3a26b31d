#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

/*! The central that is measured. Calls its callbacks on the thread that created it. */
class Central : public QObject
{
public:
    using Callback = std::function<void(const QString &address)>;

    virtual void startScan() = 0;
    virtual void stopScan() = 0;
    virtual void connectTo(const QString &address) = 0;
    virtual void send(const QString &address, const QByteArray &data) = 0;
    virtual void disconnectFrom(const QString &address) = 0;

    Callback found = [](const QString &) {};
    Callback ready = [](const QString &) {};
    Callback gone = [](const QString &) {};
    std::function<void(const QString &address, const QByteArray &data)> received =
            [](const QString &, const QByteArray &) {};
};

/*! A minimal central on Qt Bluetooth alone, on one thread. */
std::unique_ptr<Central> bareCentral();
/*! The plugin \a fileName, loaded as a host loads it. */
std::unique_ptr<Central> pluginCentral(const QString &fileName);
