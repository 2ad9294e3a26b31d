// A host that ends in one of the ways in which hosts end, while it is connecting all lights that it
// finds. Run by scripts/ends.
#include "CorvelKXBleInterface.h"
#include "CorvelKXHost.h"
#include "Support.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QPluginLoader>
#include <QTimer>

#include <memory>

using Qt::StringLiterals::operator""_s;

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList words = QCoreApplication::arguments();
    require(words.size() == 3, "Run it by scripts/ends.");
    const QString &way = words.at(1);
    QLoggingCategory::setFilterRules(u"*.debug=false\n*.warning=false"_s);
    QTimer::singleShot(words.at(2).toInt(), &app, &QCoreApplication::quit);

    if (way == u"return"_s || way == u"unload"_s) {
        QPluginLoader loader(QStringLiteral(PLUGIN_FILE));
        auto *plugin = qobject_cast<CorvelKXBleInterface *>(loader.instance());
        require(plugin != nullptr, qPrintable(loader.errorString()));
        QStringList wanted = lightsHere();
        QObject::connect(plugin, &CorvelKXBleInterface::sigDeviceDiscovered, &app,
                         [&](int, const QString &address) {
                             if (wanted.removeOne(address))
                                 plugin->connectToDevice(address);
                             if (wanted.isEmpty())
                                 plugin->stop();
                         });
        plugin->start();
        const int status = QCoreApplication::exec();
        if (way == u"unload"_s)
            loader.unload();
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
