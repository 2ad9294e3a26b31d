// corvelkx-signals PLUGIN: a host that is controlled by a script. Prints each signal of the plugin,
// and reads commands from its standard input, one a line: those of the plugin's interface, and
//     new | unload          loads or unloads the plugin
//     unload-at TEXT        unloads it as soon as it logs a line that contains TEXT
//     end | leave           ends the process; end unloads the plugin first
//     keep ADDRESS          keeps a light connected through CorvelKX::Host
//     tell ADDRESS HEX      sends a payload through CorvelKX::Host
#include "CorvelKXBleInterface.h"
#include "CorvelKXHost.h"

#include <QCoreApplication>
#include <QMutex>
#include <QPluginLoader>
#include <QSocketNotifier>

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {

void print(const QString &line)
{
    std::puts(qPrintable(line));
    std::fflush(stdout);
}

class Host : public QObject
{
public:
    explicit Host(const QString &plugin) : m_loader(plugin) { }
    void obey(const QString &command, const QString &address, const QString &detail);
    void onLogged(const QString &line);

private:
    void load();
    void unload();
    void keep(const QString &address);

    std::unique_ptr<CorvelKX::Host> m_library;
    QPluginLoader m_loader;
    CorvelKXBleInterface *m_plugin = nullptr;
    QMutex m_mutex; // the plugin logs on its own thread, too
    QString m_unloadAt;
};

void Host::load()
{
    using Lights = CorvelKXBleInterface;
    m_plugin = qobject_cast<Lights *>(m_loader.instance());
    if (!m_plugin)
        qFatal("%s", qPrintable(m_loader.errorString()));
    connect(m_plugin, &Lights::sigDeviceDiscovered, this,
            [](int type, const QString &address, const QString &name) {
                print(QStringLiteral("%1 found %2 %3").arg(address).arg(type).arg(name));
            });
    connect(m_plugin, &Lights::sigDeviceDiscoveredFinished, this,
            [] { print(QStringLiteral("scan finished")); });
    connect(m_plugin, &Lights::sigDeviceDiscoveredErrorOccurred, this,
            [](int error) { print(QStringLiteral("scan error %1").arg(error)); });
    connect(m_plugin, &Lights::sigDeviceConnected, this,
            [](const QString &address) { print(address + QStringLiteral(" ready")); });
    connect(m_plugin, &Lights::sigDeviceDisconnected, this,
            [](const QString &address) { print(address + QStringLiteral(" gone")); });
    connect(m_plugin, &Lights::sigMessageReceived, this,
            [](const QString &address, const QByteArray &data) {
                print(QStringLiteral("%1 says %2").arg(address, QString::fromLatin1(data.toHex())));
            });
}

void Host::keep(const QString &address)
{
    using CorvelKX::Light;
    m_library = std::make_unique<CorvelKX::Host>();
    m_library->load(m_loader.fileName());
    CorvelKX::Host::Times times;
    times.answer = std::chrono::seconds(3);
    m_library->setTimes(times);
    Light *light = m_library->light(address);
    light->setKeepConnected(true);
    connect(light, &Light::stateChanged, this, [light](Light::State state) {
        if (state == Light::State::Ready)
            print(light->address() + QStringLiteral(" ready"));
        else if (state == Light::State::Waiting)
            print(QStringLiteral("%1 waiting %2")
                          .arg(light->address(), QVariant::fromValue(light->reason()).toString()));
    });
    connect(light, &Light::messageReceived, this, [light](const QByteArray &data) {
        print(QStringLiteral("%1 says %2")
                      .arg(light->address(), QString::fromLatin1(data.toHex())));
    });
}

void Host::unload()
{
    if (!m_plugin)
        return;
    m_plugin = nullptr;
    m_loader.unload();
    print(QStringLiteral("unloaded"));
}

void Host::obey(const QString &command, const QString &address, const QString &detail)
{
    if (command == QLatin1String("new"))
        load();
    else if (command == QLatin1String("unload") || command == QLatin1String("end"))
        unload();
    else if (command == QLatin1String("unload-at")) {
        const QMutexLocker locker(&m_mutex);
        m_unloadAt = address + (detail.isEmpty() ? QString() : QLatin1Char(' ') + detail);
    } else if (command == QLatin1String("start"))
        m_plugin->start();
    else if (command == QLatin1String("stop"))
        m_plugin->stop();
    else if (command == QLatin1String("connect"))
        m_plugin->connectToDevice(address);
    else if (command == QLatin1String("reconnect"))
        m_plugin->reconnectDevice(address);
    else if (command == QLatin1String("remove"))
        m_plugin->removeDevice(address);
    else if (command == QLatin1String("send"))
        m_plugin->sendMessage(address, QByteArray::fromHex(detail.toLatin1()));
    else if (command == QLatin1String("keep"))
        keep(address);
    else if (command == QLatin1String("tell"))
        m_library->light(address)->send(QByteArray::fromHex(detail.toLatin1()));
    if (command == QLatin1String("end") || command == QLatin1String("leave"))
        QCoreApplication::quit();
}

void Host::onLogged(const QString &line)
{
    const QMutexLocker locker(&m_mutex);
    if (m_unloadAt.isEmpty() || !line.contains(m_unloadAt))
        return;
    m_unloadAt.clear();
    QMetaObject::invokeMethod(this, &Host::unload, Qt::QueuedConnection);
}

Host *theHost = nullptr; // never deleted: the plugin's thread may log until the process ends

void onLog(QtMsgType, const QMessageLogContext &, const QString &line)
{
    std::fprintf(stderr, "%s\n", qPrintable(line));
    theHost->onLogged(line);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    theHost = new Host(QCoreApplication::arguments().value(1));
    qInstallMessageHandler(onLog);
    QSocketNotifier commands(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray typed;
    QObject::connect(&commands, &QSocketNotifier::activated, theHost, [&] {
        char bytes[512];
        const auto size = read(STDIN_FILENO, bytes, sizeof(bytes));
        if (size <= 0)
            return QCoreApplication::quit();
        typed.append(bytes, size);
        for (auto end = typed.indexOf('\n'); end >= 0; end = typed.indexOf('\n')) {
            const QString line = QString::fromLatin1(typed.left(end));
            typed.remove(0, end + 1);
            theHost->obey(line.section(QLatin1Char(' '), 0, 0),
                          line.section(QLatin1Char(' '), 1, 1), line.section(QLatin1Char(' '), 2));
        }
    });
    return QCoreApplication::exec();
}
