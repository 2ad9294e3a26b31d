#pragma once

#include "Lights.h"

#include <QStringList>
#include <QVariantList>

constexpr int pollInterval = 20; // ms, for conditions whose change sends no event

/*! Sends the virtual lights a command and returns the lines of the answer. */
QStringList command(const char *name, const QVariantList &arguments = {});

/*! Ends the program with \a sentence unless \a isDone. */
void require(bool isDone, const char *sentence = "An expected event did not happen in time.");

/*! The addresses of the virtual lights; ends the program if there are none. */
QStringList lightsHere();

/*! Lets all threads share one malloc arena, so that heapSize() counts them all. Call it first. */
void useOneArena();
/*! Allocated heap memory in bytes. */
qint64 heapSize();
