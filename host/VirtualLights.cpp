#include "VirtualLights.h"

#include <QCoreApplication>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <vector>

bool areVirtualLightsHere()
{
    return qEnvironmentVariableIsSet("CORVELKX_LIGHTS");
}

QString execProgram(const QString &name, const QStringList &arguments)
{
    const QString program = QCoreApplication::applicationDirPath() + QLatin1Char('/') + name;
    const QStringList words = QStringList { program } + arguments;
    QList<QByteArray> bytes;
    for (const QString &word : words)
        bytes.append(QFile::encodeName(word));
    std::vector<char *> pointers;
    for (QByteArray &word : bytes)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    execv(pointers.front(), pointers.data());
    return QStringLiteral("%1 cannot be started: %2")
            .arg(program, QString::fromLocal8Bit(std::strerror(errno)));
}

QString enterVirtualLights(const QString &lights, const QStringList &arguments)
{
    QStringList words;
    if (!lights.isEmpty())
        words = { QStringLiteral("--lights"), lights };
    words += { QStringLiteral("--"), QCoreApplication::applicationFilePath() };
    return execProgram(QStringLiteral("corvelkx-lights"), words + arguments);
}
