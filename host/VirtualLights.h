#pragma once

#include <QStringList>

/*! Whether there are virtual lights on this system at all. */
inline constexpr bool hasVirtualLights = CORVELKX_HAS_LIGHTS;

/*! Whether this program runs among virtual lights. */
bool areVirtualLightsHere();

/*!
    Runs the program \a name beside this one, with \a arguments, in place of this one. Returns only if
    it cannot be started, with a sentence that tells why.
*/
QString replaceByNeighbour(const QString &name, const QStringList &arguments);

/*!
    Runs this program with \a arguments among virtual lights: those of the file \a lights, or the
    usual ones without a file. Returns as replaceByNeighbour() does.
*/
QString enterVirtualLights(const QString &lights, const QStringList &arguments);
