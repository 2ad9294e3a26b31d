#include "BLEManager.h"
#include "CorvelKXBleInterface.h"
#include "MYBLE.h"
#include "TestSupport.h"

#include <QFile>
#include <QJsonObject>
#include <QLibrary>
#include <QMetaMethod>
#include <QPluginLoader>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <array>
#include <memory>

using Qt::StringLiterals::operator""_s;

namespace {

QStringList methodsOf(const QMetaObject &meta)
{
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        QStringList parameters;
        for (int p = 0; p < method.parameterCount(); ++p)
            parameters.append(QString::fromLatin1(method.parameterTypeName(p) + ' '
                                                  + method.parameterNames().at(p))
                                      .trimmed());
        const char *access = method.access() == QMetaMethod::Private ? "private" : "public";
        const char *kinds[] = { "method", "signal", "slot" };
        methods.append(u"%1 %2 %3::%4(%5)"_s.arg(QLatin1String(access),
                                                 QLatin1String(kinds[method.methodType()]),
                                                 QLatin1String(meta.className()),
                                                 QString::fromLatin1(method.name()),
                                                 parameters.join(u", "_s)));
    }
    return methods;
}

// The virtual functions in the order of their declaration, which every compiler keeps.
QStringList commandsOf(const QString &header)
{
    QFile file(header);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QString text = QString::fromUtf8(file.readAll());
    static const QRegularExpression command(u"virtual ([^;]*) = 0;"_s);
    QStringList commands;
    for (const auto &match : command.globalMatch(text))
        commands.append(match.captured(1));
    return commands;
}

} // namespace

// What a host relies on, seen through the loader as a host sees it.
class TestContract : public QObject
{
    Q_OBJECT

private slots:
    void metadata();
    void declarations();
    void oneInstance();
    void relay();
    void commandsKeepTheirOrder();
    void signalsOnTheHostsThread();

private:
    std::unique_ptr<CorvelKXBleInterface> create()
    {
        return std::unique_ptr<CorvelKXBleInterface>(
                qobject_cast<CorvelKXBleInterface *>(m_loader.instance()));
    }

    QPluginLoader m_loader { QStringLiteral(PLUGIN_FILE) };
};

void TestContract::metadata()
{
    const QJsonObject meta = m_loader.metaData();
    QVERIFY(!m_loader.isLoaded());
    QCOMPARE(meta.value(u"IID"_s).toString(), u"org.example.CorvelKXBleInterface"_s);
    QCOMPARE(meta.value(u"className"_s).toString(), u"CorvelKXBleDLL"_s);
    QVERIFY(meta.value(u"MetaData"_s).toObject().isEmpty());

    QLibrary library(QStringLiteral(PLUGIN_FILE));
    const auto query = reinterpret_cast<QPluginMetaData (*)()>(
            library.resolve("qt_plugin_query_metadata_v2"));
    QVERIFY(query);
    const auto block = query();
    const auto *bytes = static_cast<const char *>(block.data);
    QCOMPARE(QByteArray(bytes, 3),
             QByteArray("\1").append(QT_VERSION_MAJOR).append(QT_VERSION_MINOR));
    // Two entries end the block; the loader has read them above.
    QVERIFY(block.size >= 57);
    QCOMPARE(bytes[56], '\xFF');
}

void TestContract::declarations()
{
    const auto plugin = create();
    compareTrace(commandsOf(QStringLiteral(INTERFACE_FILE))
                         + methodsOf(CorvelKXBleInterface::staticMetaObject)
                         + methodsOf(*plugin->metaObject())
                         + methodsOf(BLEManager::staticMetaObject)
                         + methodsOf(MYBLE::staticMetaObject),
                 u"declarations.trace"_s);
    // What is sent through a queue must be known by name, without the host's help.
    const QMetaObject &manager = BLEManager::staticMetaObject;
    for (int i = manager.methodOffset(); i < manager.methodCount(); ++i) {
        for (int p = 0; p < manager.method(i).parameterCount(); ++p) {
            QVERIFY(manager.method(i).parameterMetaType(p).id() != QMetaType::UnknownType);
            QVERIFY(QMetaType::fromName(manager.method(i).parameterTypeName(p)).isValid());
        }
    }
}

void TestContract::oneInstance()
{
    QLibrary library(QStringLiteral(PLUGIN_FILE));
    const auto instance = reinterpret_cast<QObject *(*)()>(library.resolve("qt_plugin_instance"));
    QVERIFY(instance);
    QObject *object = instance();
    QCOMPARE(instance(), object);
    QCOMPARE(object->parent(), nullptr);
    QCOMPARE(object->qt_metacast("org.example.CorvelKXBleInterface"), object);

    // The next one may get the same memory, but not the same life.
    QSignalSpy destroyed(object, &QObject::destroyed);
    delete object;
    QCOMPARE(destroyed.size(), 1);
    const std::unique_ptr<QObject> next(instance());
    QCOMPARE(next->metaObject()->className(), "CorvelKXBleDLL");
    QVERIFY(m_loader.load());
}

void TestContract::relay()
{
    const auto plugin = create();
    // Each slot hands its own arguments to the signal of the same number, and to no other one.
    const QList<QVariantList> arguments {
        { 7, u"A"_s, u"n"_s },
        { QVariant::fromValue(QBluetoothDeviceDiscoveryAgent::PoweredOffError) },
        {},
        { u"B"_s },
        { u"C"_s },
        { u"D"_s, QByteArray("\0\1", 2) },
    };
    const QMetaObject &interface = CorvelKXBleInterface::staticMetaObject;
    LogRecorder log;
    for (int number = 0; number < arguments.size(); ++number) {
        std::array<std::unique_ptr<QSignalSpy>, 6> spies;
        for (int i = 0; i < arguments.size(); ++i)
            spies.at(std::size_t(i)) = std::make_unique<QSignalSpy>(plugin.get(),
                                                                    interface.method(
                                                                            interface.methodOffset()
                                                                            + i));
        const QMetaObject *meta = plugin->metaObject();
        QVariantList given = arguments.at(number);
        void *slotArguments[4] = {};
        for (int i = 0; i < given.size(); ++i)
            slotArguments[i + 1] = given[i].data();
        QMetaObject::metacall(plugin.get(), QMetaObject::InvokeMetaMethod,
                              meta->methodOffset() + number, slotArguments);
        for (int i = 0; i < arguments.size(); ++i)
            QCOMPARE(*spies.at(std::size_t(i)),
                     i == number ? QList<QVariantList> { given } : QList<QVariantList>());
    }
    compareTrace(log.take(), u"relay.trace"_s);
}

void TestContract::commandsKeepTheirOrder()
{
    LogRecorder log;
    const auto plugin = create();
    QVERIFY(log.lines().value(0).startsWith(
            u"CorvelKXBleDLL::CorvelKXBleDLL(), Plugin thread ID: "_s));
    const QString unknown = u"00:11:22:33:44:55"_s;
    plugin->start();
    plugin->sendMessage(unknown, "x");
    plugin->connectToDevice(unknown);
    plugin->removeDevice(unknown);
    QCOMPARE(plugin->reconnectDevice(unknown), true);
    plugin->stop();
    plugin->bleInit();
    plugin->stop(); // the second scanner, which is idle
    QVERIFY(waitFor([&] { return log.linesWith(u"::stop] enter"_s).size() == 2; }));
    const QStringList lines = log.take();
    // Two threads write them, each in its own order.
    compareTrace(lines.filter(QRegularExpression(u"^\\[BLEManager::st|unsupported"_s))
                         + lines.filter(QRegularExpression(u"^\\[CorvelKXBleDLL::\\w+Device\\]"_s)),
                 u"commands.trace"_s);
}

void TestContract::signalsOnTheHostsThread()
{
    const auto plugin = create();
    const QString light = u"C0:FF:EE:00:00:03"_s;
    QStringList told;
    const auto tell = [&](const QString &what) {
        QCOMPARE(QThread::currentThread(), thread());
        told.append(what);
    };
    connect(
            plugin.get(), &CorvelKXBleInterface::sigDeviceDiscovered, this,
            [&](int, const QString &address, const QString &) {
                if (address != light)
                    return;
                tell(u"found"_s);
                plugin->stop();
                plugin->connectToDevice(light);
            },
            Qt::DirectConnection);
    connect(
            plugin.get(), &CorvelKXBleInterface::sigDeviceConnected, this,
            [&] {
                tell(u"ready"_s);
                plugin->sendMessage(light, "hello");
            },
            Qt::DirectConnection);
    connect(
            plugin.get(), &CorvelKXBleInterface::sigMessageReceived, this,
            [&](const QString &, const QByteArray &data) {
                tell(QString::fromLatin1(data));
                plugin->removeDevice(light);
            },
            Qt::DirectConnection);
    connect(
            plugin.get(), &CorvelKXBleInterface::sigDeviceDisconnected, this,
            [&] { tell(u"gone"_s); }, Qt::DirectConnection);
    plugin->start();
    QVERIFY(waitFor([&] { return told.contains(u"gone"_s); }));
    QCOMPARE(told, QStringList({ u"found"_s, u"ready"_s, u"hello"_s, u"gone"_s }));
}

QTEST_GUILESS_MAIN(TestContract)
#include "tst_contract.moc"
