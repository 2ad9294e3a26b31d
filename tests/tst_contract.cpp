#include "BLEManager.h"
#include "CorvelKXBleInterface.h"
#include "MYBLE.h"
#include "TestSupport.h"

#include <QFile>
#include <QJsonObject>
#include <QLibrary>
#include <QMetaMethod>
#include <QPluginLoader>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

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

// The pure virtual functions in the order of declaration, which is that of the vtable.
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

// What a host relies on, tested through QPluginLoader as a host uses it.
class TestContract : public QObject
{
    Q_OBJECT

private slots:
    void loadedAgain(); // first, because the others leave the library loaded
    void metadata();
    void declarations();
    void oneInstance();
    void relay();

private:
    std::unique_ptr<CorvelKXBleInterface> create()
    {
        return std::unique_ptr<CorvelKXBleInterface>(
                qobject_cast<CorvelKXBleInterface *>(m_loader.instance()));
    }

    QPluginLoader m_loader { QStringLiteral(PLUGIN_FILE) };
};

void TestContract::loadedAgain()
{
    QPluginLoader first(QStringLiteral(PLUGIN_FILE));
    QPointer<QObject> object = first.instance();
    QVERIFY2(object, qPrintable(first.errorString()));
    {
        QPluginLoader second(QStringLiteral(PLUGIN_FILE));
        QCOMPARE(second.instance(), object.data());
        QVERIFY(!second.unload()); // the first one still uses it
        QVERIFY(object);
    }
    QVERIFY(first.unload());
    QVERIFY(!object);
    QVERIFY2(qobject_cast<CorvelKXBleInterface *>(first.instance()),
             qPrintable(first.errorString()));
    QVERIFY(first.unload());
}

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
    // The CBOR map ends here; the loader has checked its entries above.
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
    // Queued calls need types that are registered by name without help from the host.
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

    // The next object may get the same address, so compare lifetimes.
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
    // Each slot emits the signal with the same index, with its own arguments, and no other.
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

QTEST_GUILESS_MAIN(TestContract)
#include "tst_contract.moc"
