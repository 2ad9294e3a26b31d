#pragma once

#include "TestSupport.h"

#include <QDBusMessage>
#include <QObject>
#include <QVariantList>

#include <chrono>

/*! A short time limit on a machine at rest; longer where its processors are busy. */
std::chrono::milliseconds scaled(std::chrono::milliseconds time);

/*! The virtual lights that the test runs among. */
class Lights : public QObject
{
    Q_OBJECT

public:
    Lights();

    /*! The message that gives an order. */
    static QDBusMessage message(const QString &name, const QVariantList &arguments = {});
    /*! Gives an order and returns the answer, on any thread. */
    static QDBusMessage ask(const QString &name, const QVariantList &arguments = {});
    /*! Gives an order and returns the lines of the answer; a refused order fails the test. */
    QStringList order(const QString &name, const QVariantList &arguments = {});
    void set(const QString &address, const QString &key, const QString &value);
    bool isConnected(const QString &address);
    /*! Waits until no light is connected. */
    bool waitUntilFree();
    /*! The same, and makes all as it was at first. */
    void restore();
    /*! "mode bytes" of each payload that the light was written, characteristics left out. */
    QStringList payloads(const QString &address);

private slots:
    // Wakes the event loop of whoever waits for something to change over there.
    void onPropertiesChanged() { }
};
