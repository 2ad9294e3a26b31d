// A host that ends while it connects lights, in one of several ways; scripts/ends runs it. With
// "lives N", N plugin objects that are deleted while lights talk, for ThreadSanitizer.
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

constexpr quint32 longestLife = 200; // log lines, with two lights

// Log lines until the plugin object is deleted; any thread may log.
std::atomic_int linesLeft = 0;

void countLine(QtMsgType, const QMessageLogContext &, const QString &)
{
    --linesLeft;
    QCoreApplication::postEvent(qApp, new QEvent(QEvent::User)); // wakes waitFor()
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

// Connects all of \a wanted, which must outlive the plugin object.
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
        linesLeft = static_cast<int>(random.bounded(longestLife));
        QStringList wanted = Lights().command(u"lights"_s).mid(0, 2);
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
        require(waitFor([] { return linesLeft <= 0; }), "The plugin logs nothing more.");
        // Qt never ends a scan whose agent was deleted while scanning, and the next object needs
        // one.
        linesLeft = 1;
        plugin->stop();
        require(waitFor([] { return linesLeft <= 0; }), "The plugin does not stop the scan.");
        talked += hasTalked;
    }
    // Some objects must end before a light talks and some after, or the run proves little.
    require(talked > 0 && talked < lives, "Either all objects saw a light talk, or none did.");
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
        QStringList wanted = Lights().command(u"lights"_s);
        auto plugin = makePlugin();
        connectAll(plugin.get(), &wanted);
        const int status = QCoreApplication::exec();
        if (way == u"return"_s)
            plugin.release(); // NOLINT(bugprone-unused-return-value): it is Qt's to delete
        return status;
    }

    auto *host = new CorvelKX::Host; // never deleted for "leave"
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
