#include "BLEManager.h"
#include "CorvelKXBleInterface.h"
#include "TestSupport.h"

#include <QCborMap>
#include <QCborStreamReader>
#include <QJsonObject>
#include <QLibrary>
#include <QMetaMethod>
#include <QPluginLoader>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <cstring>
#include <memory>

using Qt::StringLiterals::operator""_s;

namespace {

const char light[] = "C0:FF:EE:00:00:03";

QStringList methodsOf(const QMetaObject &meta)
{
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        QStringList parameters;
        for (int p = 0; p < method.parameterCount(); ++p)
            parameters.append(QString::fromLatin1(method.parameterTypeName(p) + ' '
                                                  + method.parameterNames().at(p)));
        methods.append(u"%1(%2)"_s.arg(QString::fromLatin1(method.name()),
                                       parameters.join(QLatin1String(", "))));
    }
    return methods;
}

// Where the compiler files a virtual function: one more than its offset, by the common C++ ABI.
template<typename Function>
std::ptrdiff_t slotOf(Function function)
{
    std::ptrdiff_t offset = 0;
    std::memcpy(&offset, &function, sizeof(offset));
    return offset;
}

QStringList relays(const QStringList &names, const char *address)
{
    const QStringList signatures {
        u"(int protocolType, QString %1, QString devName)"_s,
        u"(QBluetoothDeviceDiscoveryAgent::Error error)"_s,
        u"()"_s,
        u"(QString %1)"_s,
        u"(QString %1)"_s,
        u"(QString %1, QByteArray data)"_s,
    };
    QStringList all;
    for (int i = 0; i < names.size(); ++i)
        all.append(
                names.at(i)
                + QString(signatures.at(i)).replace(QLatin1String("%1"), QLatin1String(address)));
    return all;
}

} // namespace

// What a host relies on, seen through the loader as a host sees it.
class TestContract : public QObject
{
    Q_OBJECT

private slots:
    void metadata();
    void shape();
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
    QVERIFY(!meta.contains(u"MetaData"_s) || meta.value(u"MetaData"_s).toObject().isEmpty());

    QLibrary library(QStringLiteral(PLUGIN_FILE));
    const auto query = reinterpret_cast<QPluginMetaData (*)()>(
            library.resolve("qt_plugin_query_metadata_v2"));
    QVERIFY(query);
    const QPluginMetaData block = query();
    QVERIFY(block.size >= 57);
    const auto *bytes = static_cast<const char *>(block.data);
    QCOMPARE(bytes[0], '\1');
    QCOMPARE(int(bytes[1]), QT_VERSION_MAJOR);
    QCOMPARE(int(bytes[2]), QT_VERSION_MINOR);
    QCborStreamReader reader(bytes + 4, 53);
    const QCborMap map = QCborValue::fromCbor(reader).toMap();
    QCOMPARE(map, QCborMap({ { 2, u"org.example.CorvelKXBleInterface"_s },
                             { 3, u"CorvelKXBleDLL"_s } }));
    QCOMPARE(bytes[56], '\xFF');
}

void TestContract::shape()
{
    const QStringList interfaceSignals = {
        u"sigDeviceDiscovered"_s,         u"sigDeviceDiscoveredErrorOccurred"_s,
        u"sigDeviceDiscoveredFinished"_s, u"sigDeviceConnected"_s,
        u"sigDeviceDisconnected"_s,       u"sigMessageReceived"_s,
    };
    const auto plugin = create();
    QCOMPARE(methodsOf(*plugin->metaObject()->superClass()), relays(interfaceSignals, "devAddr"));
    QCOMPARE(methodsOf(*plugin->metaObject()),
             relays({ u"slotDeviceDiscovered"_s, u"slotDeviceDiscoveredErrorOccurred"_s,
                      u"slotDeviceDiscvoeredFinished"_s, u"slotDeviceConnected"_s,
                      u"slotDeviceDisconnected"_s, u"slotMessageReceived"_s },
                    "devAddr"));

    const QStringList own = {
        u"slotDeviceDiscovered(QBluetoothDeviceInfo devInfo)"_s,
        u"slotDeviceConnected()"_s,
        u"slotDeviceDisconnected()"_s,
        u"slotControllerErrOccurred(QLowEnergyController::Error error)"_s,
        u"slotServiceDiscovered(QBluetoothUuid gatt)"_s,
        u"slotDevDiscoveryFinished()"_s,
        u"slotDevDiscoveryErrOccurred(QBluetoothDeviceDiscoveryAgent::Error error)"_s,
        u"slotCharacteristicChanged(QLowEnergyCharacteristic characteristic, QByteArray value)"_s,
        u"slotServiceStateChanged(QLowEnergyService::ServiceState state)"_s,
        u"slotServiceErrorOccurred(QLowEnergyService::ServiceError error)"_s,
        u"init()"_s,
        u"start()"_s,
        u"stop()"_s,
        u"connectToDevice(QString macAddr)"_s,
        u"disconnectFromDevice(QString macAddr)"_s,
        u"sendMessage(QString macAddr, QByteArray data)"_s,
        u"sendAuthMessage(QString macAddr, QByteArray data)"_s,
        u"reconnectDevice(QString macAddr)"_s,
        u"removeDevice(QString macAddr)"_s,
    };
    QCOMPARE(methodsOf(BLEManager::staticMetaObject), relays(interfaceSignals, "macAddr") + own);

    // What is sent through a queue must be known by name, without the host's help.
    const QMetaObject &manager = BLEManager::staticMetaObject;
    for (int i = manager.methodOffset(); i < manager.methodCount(); ++i) {
        const QMetaMethod method = manager.method(i);
        for (int p = 0; p < method.parameterCount(); ++p) {
            QVERIFY2(method.parameterMetaType(p).id() != QMetaType::UnknownType, method.name());
            QVERIFY(QMetaType::fromName(method.parameterTypeName(p)).isValid());
        }
    }

    const std::ptrdiff_t word = sizeof(void *);
    const std::ptrdiff_t first = slotOf(&CorvelKXBleInterface::bleInit);
    QVERIFY(first > slotOf(&QObject::eventFilter));
    QCOMPARE(slotOf(&CorvelKXBleInterface::start), first + word);
    QCOMPARE(slotOf(&CorvelKXBleInterface::stop), first + 2 * word);
    QCOMPARE(slotOf(&CorvelKXBleInterface::sendMessage), first + 3 * word);
    QCOMPARE(slotOf(&CorvelKXBleInterface::connectToDevice), first + 4 * word);
    QCOMPARE(slotOf(&CorvelKXBleInterface::reconnectDevice), first + 5 * word);
    QCOMPARE(slotOf(&CorvelKXBleInterface::removeDevice), first + 6 * word);
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
    QCOMPARE(static_cast<QObject *>(qobject_cast<CorvelKXBleInterface *>(object)), object);

    // The next one may get the same memory, but not the same life.
    QSignalSpy destroyed(object, &QObject::destroyed);
    delete object;
    QCOMPARE(destroyed.size(), 1);
    QObject *next = instance();
    QVERIFY(next);
    QCOMPARE(next->metaObject()->className(), "CorvelKXBleDLL");
    delete next;
    QVERIFY(m_loader.load());
}

void TestContract::relay()
{
    const auto plugin = create();
    const QString address = QString::fromLatin1(light);
    const QString name = u"n"_s;
    const auto error = QBluetoothDeviceDiscoveryAgent::PoweredOffError;
    QStringList seen;
    const auto note = [&seen](const char *what) { seen.append(QString::fromLatin1(what)); };
    connect(plugin.get(), &CorvelKXBleInterface::sigDeviceDiscovered, this,
            [&](int type, const QString &devAddr, const QString &devName) {
                note("discovered");
                QVERIFY(type == 7 && devAddr == address && devName == name);
            });
    connect(plugin.get(), &CorvelKXBleInterface::sigDeviceDiscoveredErrorOccurred, this,
            [&](QBluetoothDeviceDiscoveryAgent::Error e) {
                note("error");
                QCOMPARE(e, error);
            });
    connect(plugin.get(), &CorvelKXBleInterface::sigDeviceDiscoveredFinished, this,
            [&] { note("finished"); });
    connect(plugin.get(), &CorvelKXBleInterface::sigDeviceConnected, this,
            [&](const QString &devAddr) {
                note("connected");
                QCOMPARE(devAddr, address);
            });
    connect(plugin.get(), &CorvelKXBleInterface::sigDeviceDisconnected, this,
            [&](const QString &devAddr) {
                note("disconnected");
                QCOMPARE(devAddr, address);
            });
    connect(plugin.get(), &CorvelKXBleInterface::sigMessageReceived, this,
            [&](const QString &devAddr, const QByteArray &data) {
                note("message");
                QVERIFY(devAddr == address && data == QByteArray("\0\1", 2));
            });

    LogRecorder log;
    const auto invoke = [&plugin](const char *slot, auto... arguments) {
        QVERIFY(QMetaObject::invokeMethod(plugin.get(), slot, Qt::DirectConnection, arguments...));
    };
    invoke("slotDeviceDiscovered", Q_ARG(int, 7), Q_ARG(QString, address), Q_ARG(QString, name));
    invoke("slotDeviceDiscoveredErrorOccurred",
           Q_ARG(QBluetoothDeviceDiscoveryAgent::Error, error));
    invoke("slotDeviceDiscvoeredFinished");
    invoke("slotDeviceConnected", Q_ARG(QString, address));
    invoke("slotDeviceDisconnected", Q_ARG(QString, address));
    invoke("slotMessageReceived", Q_ARG(QString, address),
           Q_ARG(QByteArray, QByteArray("\0\1", 2)));

    QCOMPARE(seen,
             u"discovered error finished connected disconnected message"_s.split(QLatin1Char(' ')));
    QCOMPARE(log.take(),
             QStringList({
                     u"[CorvelKXBleDLL::slotDeviceDiscovered] devAddr:  \"C0:FF:EE:00:00:03\" "
                     " device Name:  \"n\""_s,
                     u"[CorvelKXBleDLL::slotDeviceDiscoveredErrorOccurred] error: "
                     " QBluetoothDeviceDiscoveryAgent::PoweredOffError"_s,
                     u"[CorvelKXBleDLL::slotDeviceDiscvoeredFinished]"_s,
                     u"[CorvelKXBleDLL::slotDeviceConnected] devAddr:  \"C0:FF:EE:00:00:03\""_s,
                     u"[CorvelKXBleDLL::slotDeviceDisconnected] devAddr:  \"C0:FF:EE:00:00:03\""_s,
             }));
}

void TestContract::commandsKeepTheirOrder()
{
    const LogRecorder log;
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
    plugin->stop();
    QVERIFY(waitFor([&] { return log.linesWith(u"::stop] enter"_s).size() == 2; }));

    QStringList worker = log.lines();
    worker.removeIf([](const QString &line) {
        return line.contains(QLatin1String("CorvelKXBleDLL::"))
               || line.contains(QLatin1String("slotDeviceDiscovered"))
               || line.contains(QLatin1String("supportedBleDevice"))
               || line.contains(QLatin1String("Management socket"));
    });
    QCOMPARE(worker, QStringList({
                             u"[BLEManager::start] enter"_s,
                             u"\"connectToDevice() error, device unsupported, mac address: "
                             "00:11:22:33:44:55\""_s,
                             u"[BLEManager::start] enter"_s,
                             u"[BLEManager::start] enter : stop curent, restart"_s,
                             u"[BLEManager::stop] enter..."_s,
                             u"[BLEManager::stop] m_discoveryAgent->stop()"_s,
                             // The second scanner is idle.
                             u"[BLEManager::stop] enter..."_s,
                     }));
    QCOMPARE(log.linesWith(u"[CorvelKXBleDLL::"_s),
             QStringList({
                     u"[CorvelKXBleDLL::connectToDevice] devAddr:  \"00:11:22:33:44:55\""_s,
                     u"[CorvelKXBleDLL::removeDevice] devAddr:  \"00:11:22:33:44:55\""_s,
                     u"[CorvelKXBleDLL::reconnectDevice] devAddr:  \"00:11:22:33:44:55\""_s,
             }) + log.linesWith(u"[CorvelKXBleDLL::slotDeviceDiscovered]"_s));
}

void TestContract::signalsOnTheHostsThread()
{
    const LogRecorder log;
    const auto plugin = create();
    const QString address = QString::fromLatin1(light);
    QSet<QThread *> threads;
    QByteArray answer;
    bool ready = false;
    bool gone = false;
    const auto note = [&threads] { threads.insert(QThread::currentThread()); };
    connect(
            plugin.get(), &CorvelKXBleInterface::sigDeviceDiscovered, this,
            [&](int, const QString &devAddr, const QString &) {
                note();
                if (devAddr != address)
                    return;
                plugin->stop();
                plugin->connectToDevice(devAddr);
            },
            Qt::DirectConnection);
    connect(
            plugin.get(), &CorvelKXBleInterface::sigDeviceConnected, this,
            [&](const QString &devAddr) {
                note();
                ready = true;
                plugin->sendMessage(devAddr, "hello");
            },
            Qt::DirectConnection);
    connect(
            plugin.get(), &CorvelKXBleInterface::sigMessageReceived, this,
            [&](const QString &devAddr, const QByteArray &data) {
                note();
                answer = data;
                plugin->removeDevice(devAddr);
            },
            Qt::DirectConnection);
    connect(
            plugin.get(), &CorvelKXBleInterface::sigDeviceDisconnected, this,
            [&](const QString &) {
                note();
                gone = true;
            },
            Qt::DirectConnection);

    plugin->start();
    QVERIFY(waitFor([&] { return gone; }));
    QVERIFY(ready);
    QCOMPARE(answer, QByteArray("hello"));
    QCOMPARE(threads, QSet<QThread *>({ QThread::currentThread() }));
    QVERIFY(log.linesWith(u"[CorvelKXBleDLL::slotMessageReceived"_s).isEmpty());
}

QTEST_GUILESS_MAIN(TestContract)
#include "tst_contract.moc"
