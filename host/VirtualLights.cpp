#include "VirtualLights.h"

#include "Platform.h"

#include <QCoreApplication>

bool areVirtualLightsHere()
{
    return qEnvironmentVariableIsSet("CORVELKX_LIGHTS");
}

QString replaceByNeighbour(const QString &name, const QStringList &arguments)
{
    const QString program = QCoreApplication::applicationDirPath() + QLatin1Char('/') + name;
    const QString reason = Platform::replaceProgram(program, arguments);
    return QStringLiteral("%1 cannot be started: %2").arg(program, reason);
}

QString enterVirtualLights(const QString &lights, const QStringList &arguments)
{
    if (!hasVirtualLights)
        return QStringLiteral("There are no virtual lights on this system; they need Linux.");
    QStringList words;
    if (!lights.isEmpty())
        words = { QStringLiteral("--lights"), lights };
    words += { QStringLiteral("--"), QCoreApplication::applicationFilePath() };
    return replaceByNeighbour(QStringLiteral("corvelkx-lights"), words + arguments);
}
