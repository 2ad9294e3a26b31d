#pragma once

#include "TestSupport.h"

#include <QDBusMessage>
#include <QObject>
#include <QVariantList>

#include <chrono>

/*! \a time, multiplied by the system's load if its CPUs are busy. */
std::chrono::milliseconds scaled(std::chrono::milliseconds time);

/*! The virtual lights that the test runs among. */
class Lights : public QObject
{
    Q_OBJECT

public:
    Lights();

    /*! The D-Bus message for a command of `corvelkx-lights ctl`. */
    static QDBusMessage message(const QString &name, const QVariantList &arguments = {});
    /*! Sends a command and returns the answer; may be called on any thread. */
    static QDBusMessage ask(const QString &name, const QVariantList &arguments = {});
    /*! Sends a command and returns the lines of the answer; if it is refused, the test fails. */
    QStringList command(const QString &name, const QVariantList &arguments = {});
    void set(const QString &address, const QString &key, const QString &value);
    bool isConnected(const QString &address);
    /*! Waits until no light is connected. */
    bool waitUntilFree();
    /*! Restores adapter and lights, and waits until no light is connected. */
    void restore();
    /*! "mode bytes" of each payload that was written to the light. */
    QStringList payloads(const QString &address);

private slots:
    // Only wakes the event loop, so that waitFor() checks its condition again.
    void onPropertiesChanged() { }
};
