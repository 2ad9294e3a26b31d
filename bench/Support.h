#pragma once

#include "Lights.h"

#include <QStringList>
#include <QVariantList>

/*! Gives the virtual lights an order and returns the lines of their answer. */
QStringList order(const char *name, const QVariantList &arguments = {});

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
