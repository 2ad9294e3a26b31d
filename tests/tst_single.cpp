#include "MYBLE.h"
#include "TestSupport.h"

#include <QMetaMethod>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using Qt::StringLiterals::operator""_s;

class TestSingle : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void shape();
    void traceWhereCharacteristicsComeAtOnce();
    void traceWhereCharacteristicsComeLater();
    void nameMustBeExact();
    void notifications();
    void writesBeforeBinding();
    void writeModes_data();
    void writeModes();
    void oneService_data();
    void oneService();
    void destructionAtEachStep_data();
    void destructionAtEachStep();

private:
    static constexpr QLatin1String light { "C0:FF:EE:00:00:03" };

    static QStringList linesOf(const QString &text) { return text.split(u'\n'); }
    QStringList trace() const;
    bool isReady() const;
    void create() { m_client = std::make_unique<MYBLE>(); }
    void bindLater();

    Lights m_lights;
    std::unique_ptr<LogRecorder> m_log;
    std::unique_ptr<MYBLE> m_client;
};

void TestSingle::init()
{
    m_log = std::make_unique<LogRecorder>();
}

void TestSingle::cleanup()
{
    m_client.reset();
    m_log.reset();
    m_lights.restore();
}

// The trace from the light's discovery on; what was seen before it depends on the neighbours.
QStringList TestSingle::trace() const
{
    QStringList lines = m_log->lines();
    return lines.mid(lines.indexOf(u"Corvel light(DM41) is found! "_s));
}

bool TestSingle::isReady() const
{
    const auto services = m_client->findChildren<QLowEnergyService *>();
    return !services.isEmpty()
           && std::all_of(services.cbegin(), services.cend(), [](const QLowEnergyService *service) {
                  return service->state() == QLowEnergyService::RemoteServiceDiscovered;
              });
}

// As on platforms where a service's characteristics are not known before its details are: the end
// of the scan for services finds nothing.
void TestSingle::bindLater()
{
    QVERIFY(waitFor([this] { return m_client->findChild<QLowEnergyController *>(); }));
    auto *controller = m_client->findChild<QLowEnergyController *>();
    connect(controller, &QLowEnergyController::stateChanged, m_client.get(),
            [this, controller](QLowEnergyController::ControllerState state) {
                if (state == QLowEnergyController::DiscoveringState) {
                    disconnect(controller, &QLowEnergyController::discoveryFinished, nullptr,
                               nullptr);
                    m_client->serviceScanDone();
                }
            });
}

void TestSingle::shape()
{
    QStringList methods;
    const QMetaObject &meta = MYBLE::staticMetaObject;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        methods.append(QString::fromLatin1(meta.method(i).methodSignature()));
    QCOMPARE(methods, QStringList({
                              u"dataReceived(QByteArray)"_s,
                              u"deviceDiscovered(QBluetoothDeviceInfo)"_s,
                              u"deviceConnected()"_s,
                              u"serviceDiscovered(QBluetoothUuid)"_s,
                              u"serviceStateChanged(QLowEnergyService::ServiceState)"_s,
                              u"serviceScanDone()"_s,
                              u"updateCharacteristicValue(QLowEnergyCharacteristic,QByteArray)"_s,
                              u"characteristicWritten(QLowEnergyCharacteristic,QByteArray)"_s,
                              u"characteristicRead(QLowEnergyCharacteristic,QByteArray)"_s,
                              u"handleError(QLowEnergyController::Error)"_s,
                      }));
    QCOMPARE(MYBLE::getKxBlockCharUuid().toString(QUuid::WithoutBraces),
             u"f000ffc2-0451-4000-b000-000000000000"_s);

    QObject parent;
    QTest::ignoreMessage(
            QtWarningMsg,
            "QObject::connect(QLowEnergyController, MYBLE): invalid nullptr parameter");
    auto *client = new MYBLE(&parent);
    QCOMPARE(client->parent(), &parent);
    m_log->take();
    client->handleError(QLowEnergyController::NetworkError);
    QCOMPARE(m_log->take(),
             QStringList({ u"Bluetooth error occurred: QLowEnergyController::NetworkError"_s }));
}

void TestSingle::traceWhereCharacteristicsComeAtOnce()
{
    create();
    QVERIFY(waitFor([this] { return isReady(); }));
    QCOMPARE(trace(), linesOf(uR"(Corvel light(DM41) is found! 
 开始 connectToDevice : Corvel light(DM41) ! 
 Enter deviceConnected funtion ! 
 Enter serviceDiscovered ...  ! 
gatt： "{0000180a-0000-1000-8000-00805f9b34fb}"
 Enter serviceDiscovered ...  ! 
gatt： "{0000fff0-0000-1000-8000-00805f9b34fb}"
发现gatt==KX_SERVICEORDER_UUID，准备创建对象和连接信号
 进入Enter to serviceStateChanged ! 
state:  QLowEnergyService::RemoteServiceDiscovering
Is equal to QLowEnergyService::RemoteServiceDiscovered:  false
发现gatt==KX_SERVICEORDER_UUID，服务打开
 Enter serviceDiscovered ...  ! 
gatt： "{f000ffc0-0451-4000-b000-000000000000}"
发现gatt==KX_SERVICE_UUID，准备创建对象和连接信号
 进入Enter to serviceStateChanged ! 
state:  QLowEnergyService::RemoteServiceDiscovering
Is equal to QLowEnergyService::RemoteServiceDiscovered:  false
发现gatt==KX_SERVICE_UUID，服务打开
找到writeCharacteristic可用
找到writeCharacteristicOreder可用
 进入Enter to serviceStateChanged ! 
state:  QLowEnergyService::RemoteServiceDiscovered
Is equal to QLowEnergyService::RemoteServiceDiscovered:  true
 进入Enter to serviceStateChanged ! 
state:  QLowEnergyService::RemoteServiceDiscovered
Is equal to QLowEnergyService::RemoteServiceDiscovered:  true)"_s));

    // The scan's end has bound the characteristic, so that the identification byte never goes out.
    m_client->sendMessageOrder("o");
    m_client->sendMessage("m");
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"newvalue is"_s).isEmpty(); }));
    QCOMPARE(m_lights.payloads(light), QStringList({ u"command 6f"_s, u"request 6d"_s }));
}

void TestSingle::traceWhereCharacteristicsComeLater()
{
    m_lights.set(light, u"authenticationFirst"_s, u"true"_s);
    create();
    bindLater();
    QVERIFY(waitFor([this] { return isReady() && !m_log->linesWith(u"newvalue is"_s).isEmpty(); }));
    const QStringList lines = trace();
    QCOMPARE(lines.mid(3, 2), linesOf(u"writeCharacteristic不可用\n"
                                      "writeCharacteristicOrder不可用"_s));
    QCOMPARE(lines.mid(lines.indexOf(u"state:  QLowEnergyService::RemoteServiceDiscovered"_s)),
             linesOf(uR"(state:  QLowEnergyService::RemoteServiceDiscovered
Is equal to QLowEnergyService::RemoteServiceDiscovered:  true
遍历service的character的uuid :  "{f000ffc1-0451-4000-b000-000000000000}"
 找到了KX特征getKxIDCharUuid()  "{f000ffc1-0451-4000-b000-000000000000}"
 执行service->writeCharacteristic完成发送.  "{f000ffc1-0451-4000-b000-000000000000}"
 发送 0x5C
writeCharacteristic是可用的！！！
遍历service的character的uuid :  "{f000ffc2-0451-4000-b000-000000000000}"
遍历serviceOrder的characterOrder的uuid :  "{0000fff1-0000-1000-8000-00805f9b34fb}"
遍历serviceOrder的characterOrder的uuid :  "{0000fff2-0000-1000-8000-00805f9b34fb}"
 找到了KX特征getKxIDOrderCharUuid()  "{0000fff2-0000-1000-8000-00805f9b34fb}"
writeCharacteristicOrder是可用的！！！
 进入Enter to serviceStateChanged ! 
state:  QLowEnergyService::RemoteServiceDiscovered
Is equal to QLowEnergyService::RemoteServiceDiscovered:  true
进入了characteristicWritten函数，检测到特诊值发生了改变： "\\"
characteristic的uuid "{f000ffc1-0451-4000-b000-000000000000}"
newvalue is  "\\")"_s));

    for (QLowEnergyService *service : m_client->findChildren<QLowEnergyService *>())
        emit service->stateChanged(QLowEnergyService::RemoteServiceDiscovered);
    m_client->sendMessage("m");
    QVERIFY(waitFor([this] { return m_log->linesWith(u"newvalue is"_s).size() == 2; }));
    QCOMPARE(m_lights.payloads(light), QStringList({ u"request 5c"_s, u"request 6d"_s }));
}

void TestSingle::nameMustBeExact()
{
    // The neighbour's name differs by a space, then by case, and is passed by.
    const QString right = u"C0:FF:EE:00:00:FF"_s;
    m_lights.order(u"add"_s, { u"{\"address\": \"C0:FF:EE:00:00:FF\", \"type\": 3, "
                               "\"name\": \"Corvel light(DM41)\"}"_s });
    for (const QString &name : { u"\"Corvel light(DM41) \""_s, u"corvel light(DM41)"_s }) {
        // What the daemon remembers goes with the adapter.
        m_lights.order(u"adapter"_s, { u"remove"_s });
        m_lights.set(light, u"name"_s, name);
        m_lights.order(u"adapter"_s, { u"return"_s });
        QCoreApplication::processEvents();
        create();
        QVERIFY(waitFor([this] { return m_client->findChild<QLowEnergyController *>(); }));
        QCOMPARE(m_client->findChild<QLowEnergyController *>()->remoteAddress().toString(), right);
        m_client.reset();
    }
    m_lights.order(u"forget"_s, { right });
    m_lights.order(u"adapter"_s, { u"remove"_s });
    QCoreApplication::processEvents();
}

void TestSingle::notifications()
{
    create();
    QVERIFY(waitFor([this] { return isReady(); }));
    QSignalSpy received(m_client.get(), &MYBLE::dataReceived);
    m_log->take();
    QList<QVariantList> expected;
    for (QLowEnergyService *service : m_client->findChildren<QLowEnergyService *>()) {
        for (const QLowEnergyCharacteristic &characteristic : service->characteristics()) {
            const QByteArray value = characteristic.uuid().toByteArray().left(9);
            emit service->characteristicChanged(characteristic, value);
            expected.append({ value });
        }
    }
    QCOMPARE(received, expected);
    QCOMPARE(expected.size(), 4);
    QCOMPARE(m_log->take().mid(0, 3),
             linesOf(u"触发updateCharacteristicValue槽函数，传递的值是 \"{0000fff1\"\n"
                     "触发updateCharacteristicValue的uuid "
                     "\"{0000fff1-0000-1000-8000-00805f9b34fb}\"\n"
                     "Received data : 发送信号emit dataReceived(value) OrderdataRecvd= "
                     "\"{0000fff1\""_s));

    auto *service = m_client->findChild<QLowEnergyService *>();
    emit service->characteristicRead(service->characteristics().constFirst(), "\xAB");
    QCOMPARE(m_log->take(), linesOf(u"回调Read characteristic "
                                    "\"{0000fff1-0000-1000-8000-00805f9b34fb}\" value \"ab\""_s));
    // Nobody switched them on.
    QVERIFY(m_lights.order(u"calls"_s).filter(u"StartNotify"_s).isEmpty());
}

void TestSingle::writesBeforeBinding()
{
    create();
    m_client->sendMessage("1");
    m_client->sendMessageOrder("2");
    QVERIFY(waitFor([this] { return !trace().filter(u"KX_SERVICE_UUID，服务打开"_s).isEmpty(); }));
    QVERIFY(m_log->linesWith(u"完成发送"_s).isEmpty());
    // Bound, but still being looked into: Qt takes the write and forgets it.
    m_client->sendMessage("3");
    QCOMPARE(m_log->linesWith(u"完成发送"_s).size(), 1);
    QVERIFY(waitFor([this] { return isReady(); }));
    m_client->sendMessage("4");
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"newvalue is"_s).isEmpty(); }));
    QCOMPARE(m_lights.payloads(light), QStringList({ u"request 34"_s }));
}

void TestSingle::writeModes_data()
{
    QTest::addColumn<QString>("flags");
    QTest::addColumn<bool>("writable");
    QTest::newRow("without response") << u"[\"write-without-response\"]"_s << true;
    QTest::newRow("with response") << u"[\"write\"]"_s << true;
    QTest::newRow("neither") << u"[\"indicate\"]"_s << false;
}

void TestSingle::writeModes()
{
    QFETCH(QString, flags);
    QFETCH(bool, writable);
    m_lights.set(light, u"writeFlags"_s, flags);
    create();
    QVERIFY(waitFor([this] { return isReady(); }));
    m_client->sendMessageOrder("o");
    m_client->sendMessage("m");
    QCOMPARE(m_log->linesWith(u"完成发送"_s).size(), writable ? 2 : 0);
    if (!writable)
        return;
    QVERIFY(waitFor([this] { return m_lights.payloads(light).size() == 2; }));
    QCOMPARE(m_lights.payloads(light), QStringList({ u"command 6f"_s, u"request 6d"_s }));
}

void TestSingle::oneService_data()
{
    QTest::addColumn<QString>("missing");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("payload");
    QTest::newRow("no main service")
            << u"f000ffc0"_s << u"writeCharacteristic不可用"_s << u"command 6f"_s;
    QTest::newRow("no order service")
            << u"0000fff0"_s << u"writeCharacteristicOrder不可用"_s << u"request 6d"_s;
}

void TestSingle::oneService()
{
    QFETCH(QString, missing);
    QFETCH(QString, line);
    QFETCH(QString, payload);
    m_lights.set(light, u"omit"_s, missing);
    create();
    QVERIFY(waitFor([this] { return isReady(); }));
    QCOMPARE(m_log->linesWith(u"不可用"_s), QStringList({ line }));
    m_client->sendMessageOrder("o");
    m_client->sendMessage("m");
    QVERIFY(waitFor([this] { return m_lights.payloads(light).size() == 1; }));
    QCOMPARE(m_lights.payloads(light), QStringList({ payload }));
}

void TestSingle::destructionAtEachStep_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("connect");
    QTest::newRow("scanning") << u"Enter deviceDiscovered"_s << u"accept"_s;
    QTest::newRow("connecting") << u"connectToDevice"_s << u"hang"_s;
    QTest::newRow("refused") << u"connectToDevice"_s << u"refuse"_s;
    QTest::newRow("discovering") << u"deviceConnected"_s << u"accept"_s;
    QTest::newRow("details") << u"RemoteServiceDiscovering"_s << u"accept"_s;
    QTest::newRow("bound") << u"Is equal to QLowEnergyService::RemoteServiceDiscovered:  true"_s
                           << u"accept"_s;
    QTest::newRow("dropped") << u"InvalidService"_s << u"accept"_s;
}

void TestSingle::destructionAtEachStep()
{
    QFETCH(QString, line);
    QFETCH(QString, connect);
    m_lights.set(light, u"connect"_s, connect);
    create();
    if (line == u"InvalidService"_s) {
        QVERIFY(waitFor([this] { return isReady(); }));
        m_lights.order(u"drop"_s, { QString(light) });
    }
    QVERIFY(waitFor([&] { return !m_log->linesWith(line).isEmpty(); }));
    m_client->sendMessage("x");
    m_client.reset();
    QVERIFY(waitFor([this] { return m_lights.order(u"connected"_s).isEmpty(); }));
}

QTEST_GUILESS_MAIN(TestSingle)
#include "tst_single.moc"
