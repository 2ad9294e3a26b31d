#include "Support.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QTimer>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>

namespace {

constexpr std::chrono::minutes stuckAfter(2);

} // namespace

QDBusMessage orderMessage(const char *name, const QVariantList &arguments)
{
    auto message = QDBusMessage::createMethodCall(QStringLiteral("org.example.CorvelKXLights"),
                                                  QStringLiteral("/org/example/CorvelKXLights"),
                                                  QStringLiteral("org.example.CorvelKXLights1"),
                                                  QLatin1String(name));
    message.setArguments(arguments);
    return message;
}

QStringList order(const char *name, const QVariantList &arguments)
{
    const QDBusMessage answer = QDBusConnection::systemBus().call(orderMessage(name, arguments));
    return answer.arguments().value(0).toStringList();
}

bool runUntil(const std::function<bool()> &done, int interval)
{
    bool isStuck = false;
    QTimer limit;
    QObject::connect(&limit, &QTimer::timeout, &limit, [&isStuck] { isStuck = true; });
    limit.start(stuckAfter);
    QTimer tick;
    if (interval > 0)
        tick.start(interval);
    while (!done()) {
        if (isStuck)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

void require(bool isDone, const char *sentence)
{
    if (isDone)
        return;
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", qPrintable(QCoreApplication::applicationName()), sentence);
    // The plugin may be stuck, and would not be let go.
    std::_Exit(EXIT_FAILURE);
}

QStringList lightsHere()
{
    QStringList addresses = order("lights");
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
