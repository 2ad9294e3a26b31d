#pragma once

#include <QDBusMessage>
#include <QStringList>
#include <QVariantList>

#include <functional>

/*! The message that gives the virtual lights an order. */
QDBusMessage orderMessage(const char *name, const QVariantList &arguments);
/*! Gives the virtual lights an order and returns the lines of their answer. */
QStringList order(const char *name, const QVariantList &arguments = {});

/*!
    Runs the event loop, which blocks between events, until \a done holds; returns false when
   nothing came of it for two minutes. It is asked after each event, and in \a interval milliseconds
   where what it asks tells nobody of a change.
*/
bool runUntil(const std::function<bool()> &done, int interval = 0);

/*! Ends the program with a sentence unless \a isDone, for nothing that comes after would be right.
 */
void require(bool isDone, const char *sentence = "Nothing moves any more.");

/*! The addresses of the lights among which the program runs; ends it where there are none. */
QStringList lightsHere();

/*! Has one arena serve all threads, so that heapSize() counts them all. Comes before any of them.
 */
void useOneArena();
/*! What is allocated, in bytes. */
qint64 heapSize();
