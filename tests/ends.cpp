// Hosts that end while they are connecting lights, in each of the ways in which hosts end: run by
// scripts/ends. And plugin objects that end while lights talk: for ThreadSanitizer.
#include "CorvelKXBleInterface.h"
#include "CorvelKXHost.h"
#include "Lights.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QPluginLoader>
#include <QRandomGenerator>
#include <QTimer>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>

using Qt::StringLiterals::operator""_s;

namespace {

constexpr quint32 linesOfALife = 200; // with two lights and what they say

// How much the plugin may still log, on whatever thread.
std::atomic_int linesLeft = 0;

void countLine(QtMsgType, const QMessageLogContext &, const QString &)
{
    --linesLeft;
    QCoreApplication::postEvent(qApp, new QEvent(QEvent::User)); // somebody waits for it
}

void require(bool isTrue, const char *sentence)
{
    if (isTrue)
        return;
    std::fprintf(stderr, "%s\n", sentence);
    std::_Exit(EXIT_FAILURE);
}

std::unique_ptr<CorvelKXBleInterface> makePlugin()
{
    QPluginLoader loader(QStringLiteral(PLUGIN_FILE));
    auto *plugin = qobject_cast<CorvelKXBleInterface *>(loader.instance());
    require(plugin != nullptr, qPrintable(loader.errorString()));
    return std::unique_ptr<CorvelKXBleInterface>(plugin);
}

// Connects all of \a wanted, which has to outlive the plugin.
void connectAll(CorvelKXBleInterface *plugin, QStringList *wanted)
{
    QObject::connect(plugin, &CorvelKXBleInterface::sigDeviceDiscovered, plugin,
                     [plugin, wanted](int, const QString &address) {
                         if (wanted->removeOne(address))
                             plugin->connectToDevice(address);
                         if (wanted->isEmpty())
                             plugin->stop();
                     });
    plugin->start();
}

void live(int lives)
{
    QRandomGenerator random(randomSeed());
    qInstallMessageHandler(countLine);
    int talked = 0;
    for (int life = 0; life < lives; ++life) {
        linesLeft = static_cast<int>(random.bounded(linesOfALife));
        QStringList wanted = Lights().order(u"lights"_s).mid(0, 2);
        const auto plugin = makePlugin();
        bool hasTalked = false;
        QObject::connect(plugin.get(), &CorvelKXBleInterface::sigDeviceConnected, plugin.get(),
                         [&](const QString &address) {
                             for (char i = 0; i < 5; ++i)
                                 plugin->sendMessage(address, QByteArray(20, i));
                         });
        QObject::connect(plugin.get(), &CorvelKXBleInterface::sigMessageReceived, plugin.get(),
                         [&](const QString &address, const QByteArray &data) {
                             hasTalked = true;
                             plugin->sendMessage(address, data);
                         });
        connectAll(plugin.get(), &wanted);
        require(waitFor([] { return linesLeft <= 0; }), "Nothing moves any more.");
        // An agent that is deleted while it scans would scan on, and be in the way of the next one.
        linesLeft = 1;
        plugin->stop();
        require(waitFor([] { return linesLeft <= 0; }), "The scan does not stop.");
        talked += hasTalked;
    }
    // Short lives and long ones, or nothing was tried.
    require(talked > 0 && talked < lives, "No life was long, or none was short.");
    std::printf("%d lives, in %d of them a light talked.\n", lives, talked);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList words = QCoreApplication::arguments();
    require(words.size() == 3, "corvelkx-ends WAY MILLISECONDS, or corvelkx-ends lives COUNT");
    const QString &way = words.at(1);
    const int number = words.at(2).toInt();
    if (way == u"lives"_s) {
        live(number);
        return EXIT_SUCCESS;
    }
    QLoggingCategory::setFilterRules(u"*.debug=false\n*.warning=false"_s);
    QTimer::singleShot(number, &app, &QCoreApplication::quit);

    if (way == u"return"_s || way == u"unload"_s) {
        QStringList wanted = Lights().order(u"lights"_s);
        auto plugin = makePlugin();
        connectAll(plugin.get(), &wanted);
        const int status = QCoreApplication::exec();
        if (way == u"return"_s)
            plugin.release(); // NOLINT(bugprone-unused-return-value): it is Qt's to delete
        return status;
    }

    auto *host = new CorvelKX::Host; // "leave" lets it live to the end
    const std::unique_ptr<CorvelKX::Host> owner(way == u"leave"_s ? nullptr : host);
    require(host->load(QStringLiteral(PLUGIN_FILE)), qPrintable(host->errorString()));
    QObject::connect(host, &CorvelKX::Host::lightAdded, &app,
                     [](CorvelKX::Light *light) { light->setKeepConnected(true); });
    QObject::connect(host, &CorvelKX::Host::closed, &app, &QCoreApplication::quit);
    host->startScan();
    const int status = QCoreApplication::exec();
    if (way != u"close"_s)
        return status;
    host->close();
    return QCoreApplication::exec();
}
