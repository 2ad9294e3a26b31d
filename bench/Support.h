#pragma once

#include <QStringList>
#include <QVariantList>

#include <functional>

/*! Gives the virtual lights an order and returns the lines of their answer. */
QStringList order(const char *name, const QVariantList &arguments = {});

/*!
    Runs the event loop, which blocks between events, until \a done holds; returns false when
   nothing came of it for two minutes. It is asked after each event, and in \a interval milliseconds
   where what it asks tells nobody of a change.
*/
bool runUntil(const std::function<bool()> &done, int interval = 0);

/*! Has one arena serve all threads, so that heapSize() counts them all. Comes before any of them.
 */
void useOneArena();
/*! What is allocated, in bytes. */
qint64 heapSize();
