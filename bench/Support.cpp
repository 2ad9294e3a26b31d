#include "Support.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <malloc.h>

QStringList command(const char *name, const QVariantList &arguments)
{
    return Lights::ask(QLatin1String(name), arguments).arguments().value(0).toStringList();
}

void require(bool isDone, const char *sentence)
{
    if (isDone)
        return;
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", qPrintable(QCoreApplication::applicationName()), sentence);
    // Not exit(): destroying the plugin may block while its thread hangs.
    std::_Exit(EXIT_FAILURE);
}

QStringList lightsHere()
{
    QStringList addresses = command("lights");
    require(!addresses.isEmpty(),
            "There are no virtual lights here; run it by corvelkx-lights -- COMMAND.");
    return addresses;
}

void useOneArena()
{
    mallopt(M_ARENA_MAX, 1);
}

qint64 heapSize()
{
    return static_cast<qint64>(mallinfo2().uordblks);
}
