#include "Support.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QTimer>

#include <chrono>
#include <malloc.h>

namespace {

constexpr std::chrono::minutes stuckAfter(2);

} // namespace

QStringList order(const char *name, const QVariantList &arguments)
{
    auto message = QDBusMessage::createMethodCall(QStringLiteral("org.example.CorvelKXLights"),
                                                  QStringLiteral("/org/example/CorvelKXLights"),
                                                  QStringLiteral("org.example.CorvelKXLights1"),
                                                  QLatin1String(name));
    message.setArguments(arguments);
    return QDBusConnection::systemBus().call(message).arguments().value(0).toStringList();
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

void useOneArena()
{
    mallopt(M_ARENA_MAX, 1);
}

qint64 heapSize()
{
    return static_cast<qint64>(mallinfo2().uordblks);
}
