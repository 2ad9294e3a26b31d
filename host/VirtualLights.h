#pragma once

#include <QStringList>

/*! Whether this program runs among virtual lights. */
bool areVirtualLightsHere();

/*!
    Becomes the program \a name beside this one, with \a arguments; returns only to tell, in a
    sentence, why that failed.
*/
QString execProgram(const QString &name, const QStringList &arguments);

/*!
    Becomes this program with \a arguments among virtual lights: those of the file \a lights, or the
    usual ones without a file. Returns as execProgram() does.
*/
QString enterVirtualLights(const QString &lights, const QStringList &arguments);
