#include "MYBLE.h"

#include <QDebug>

namespace {

constexpr QLatin1String lightName("Corvel light(DM41)");
constexpr char identification = '\x5C';

bool isWritable(const QLowEnergyCharacteristic &characteristic)
{
    return characteristic.properties()
           & (QLowEnergyCharacteristic::Write | QLowEnergyCharacteristic::WriteNoResponse);
}

} // namespace

MYBLE::MYBLE(QObject *parent)
    : QObject(parent), discoveryAgent(new QBluetoothDeviceDiscoveryAgent(this))
{
    connect(discoveryAgent, &QBluetoothDeviceDiscoveryAgent::deviceDiscovered, this,
            &MYBLE::deviceDiscovered);
    // There is no controller yet, so Qt refuses this connection with a warning, and handleError()
    // is never called for controller errors. This is the expected behaviour of this client; keep
    // it.
    connect(controller, &QLowEnergyController::errorOccurred, this, &MYBLE::handleError);
    discoveryAgent->start();
}

MYBLE::~MYBLE()
{
    if (controller)
        controller->disconnectFromDevice();
    delete discoveryAgent;
}

const QBluetoothUuid &MYBLE::getKxServiceUuid()
{
    static const QBluetoothUuid uuid(QLatin1String("f000ffc0-0451-4000-b000-000000000000"));
    return uuid;
}

const QBluetoothUuid &MYBLE::getKxServiceOrderUuid()
{
    static const QBluetoothUuid uuid(QLatin1String("0000FFF0-0000-1000-8000-00805F9B34FB"));
    return uuid;
}

const QBluetoothUuid &MYBLE::getKxIDCharUuid()
{
    static const QBluetoothUuid uuid(QLatin1String("f000ffc1-0451-4000-b000-000000000000"));
    return uuid;
}

const QBluetoothUuid &MYBLE::getKxIDOrderCharUuid()
{
    static const QBluetoothUuid uuid(QLatin1String("0000FFF2-0000-1000-8000-00805F9B34FB"));
    return uuid;
}

const QBluetoothUuid &MYBLE::getKxBlockCharUuid()
{
    static const QBluetoothUuid uuid(QLatin1String("f000ffc2-0451-4000-b000-000000000000"));
    return uuid;
}

void MYBLE::deviceDiscovered(const QBluetoothDeviceInfo &device)
{
    qDebug() << "Enter deviceDiscovered funciton " << device.name();
    if (device.name() != lightName)
        return;

    qDebug() << "Corvel light(DM41) is found! ";
    discoveryAgent->stop();
    controller = QLowEnergyController::createCentral(device, this);
    connect(controller, &QLowEnergyController::connected, this, &MYBLE::deviceConnected);
    qDebug() << " 开始 connectToDevice : Corvel light(DM41) ! ";
    controller->connectToDevice();
}

void MYBLE::deviceConnected()
{
    qDebug() << " Enter deviceConnected funtion ! ";
    connect(controller, &QLowEnergyController::serviceDiscovered, this, &MYBLE::serviceDiscovered);
    connect(controller, &QLowEnergyController::discoveryFinished, this, &MYBLE::serviceScanDone);
    controller->discoverServices();
}

QLowEnergyService *MYBLE::openService(const QBluetoothUuid &gatt)
{
    QLowEnergyService *opened = controller->createServiceObject(gatt, this);
    if (!opened)
        return nullptr;
    connect(opened, &QLowEnergyService::characteristicWritten, this, &MYBLE::characteristicWritten);
    connect(opened, &QLowEnergyService::characteristicRead, this, &MYBLE::characteristicRead);
    connect(opened, &QLowEnergyService::stateChanged, this, &MYBLE::serviceStateChanged);
    connect(opened, &QLowEnergyService::characteristicChanged, this,
            &MYBLE::updateCharacteristicValue);
    return opened;
}

void MYBLE::serviceDiscovered(const QBluetoothUuid &gatt)
{
    qDebug() << " Enter serviceDiscovered ...  ! ";
    qDebug() << "gatt：" << gatt;
    // Set the member first: on some platforms discoverDetails() emits signals synchronously.
    if (gatt == getKxServiceUuid()) {
        qDebug() << "发现gatt==KX_SERVICE_UUID，准备创建对象和连接信号";
        service = openService(gatt);
        if (service)
            service->discoverDetails(QLowEnergyService::FullDiscovery);
        qDebug() << "发现gatt==KX_SERVICE_UUID，服务打开";
    }
    if (gatt == getKxServiceOrderUuid()) {
        qDebug() << "发现gatt==KX_SERVICEORDER_UUID，准备创建对象和连接信号";
        serviceOrder = openService(gatt);
        if (serviceOrder)
            serviceOrder->discoverDetails(QLowEnergyService::FullDiscovery);
        qDebug() << "发现gatt==KX_SERVICEORDER_UUID，服务打开";
    }
}

void MYBLE::serviceScanDone()
{
    const auto find = [](QLowEnergyService *in, const QBluetoothUuid &uuid) {
        return in ? in->characteristic(uuid) : QLowEnergyCharacteristic();
    };
    const QLowEnergyCharacteristic main = find(service, getKxIDCharUuid());
    if (main.isValid()) {
        writeCharacteristic = main;
        qDebug() << "找到writeCharacteristic可用";
    } else {
        qDebug() << "writeCharacteristic不可用";
    }
    const QLowEnergyCharacteristic order = find(serviceOrder, getKxIDOrderCharUuid());
    if (order.isValid()) {
        writeCharacteristicOrder = order;
        qDebug() << "找到writeCharacteristicOreder可用";
    } else {
        qDebug() << "writeCharacteristicOrder不可用";
    }
}

void MYBLE::serviceStateChanged(QLowEnergyService::ServiceState state)
{
    qDebug() << " 进入Enter to serviceStateChanged ! ";
    qDebug() << "state: " << state;
    qDebug() << "Is equal to QLowEnergyService::RemoteServiceDiscovered: "
             << (state == QLowEnergyService::RemoteServiceDiscovered);
    if (state != QLowEnergyService::RemoteServiceDiscovered)
        return;
    if (service && !writeCharacteristic.isValid())
        findMainCharacteristic();
    if (serviceOrder && !writeCharacteristicOrder.isValid())
        findOrderCharacteristic();
}

void MYBLE::findMainCharacteristic()
{
    const QList<QLowEnergyCharacteristic> characteristics = service->characteristics();
    for (const QLowEnergyCharacteristic &characteristic : characteristics) {
        qDebug() << "遍历service的character的uuid : " << characteristic.uuid();
        if (characteristic.uuid() != getKxIDCharUuid())
            continue;
        writeCharacteristic = characteristic;
        qDebug() << " 找到了KX特征getKxIDCharUuid() " << writeCharacteristic.uuid();
        sendMessage(QByteArray(1, identification));
        qDebug() << " 发送"
                 << "0x5C";
        if (writeCharacteristic.isValid())
            qDebug() << "writeCharacteristic是可用的！！！";
    }
}

void MYBLE::findOrderCharacteristic()
{
    const QList<QLowEnergyCharacteristic> characteristics = serviceOrder->characteristics();
    for (const QLowEnergyCharacteristic &characteristic : characteristics) {
        qDebug() << "遍历serviceOrder的characterOrder的uuid : " << characteristic.uuid();
        if (characteristic.uuid() != getKxIDOrderCharUuid())
            continue;
        writeCharacteristicOrder = characteristic;
        qDebug() << " 找到了KX特征getKxIDOrderCharUuid() " << writeCharacteristicOrder.uuid();
        if (writeCharacteristicOrder.isValid())
            qDebug() << "writeCharacteristicOrder是可用的！！！";
    }
}

void MYBLE::updateCharacteristicValue(const QLowEnergyCharacteristic &characteristic,
                                      const QByteArray &value)
{
    qDebug() << "触发updateCharacteristicValue槽函数，传递的值是" << value;
    qDebug() << "触发updateCharacteristicValue的uuid" << characteristic.uuid();
    OrderdataRecvd = value;
    qDebug() << "Received data : 发送信号emit dataReceived(value) OrderdataRecvd="
             << OrderdataRecvd;
    emit dataReceived(OrderdataRecvd);
}

void MYBLE::characteristicWritten(const QLowEnergyCharacteristic &characteristic,
                                  const QByteArray &newValue)
{
    qDebug() << "进入了characteristicWritten函数，检测到特诊值发生了改变：" << newValue;
    qDebug() << "characteristic的uuid" << characteristic.uuid();
    qDebug() << "newvalue is " << newValue;
}

void MYBLE::characteristicRead(const QLowEnergyCharacteristic &info, const QByteArray &value)
{
    qDebug() << "回调Read characteristic" << info.uuid().toString(QUuid::WithBraces) << "value"
             << value.toHex();
}

void MYBLE::handleError(QLowEnergyController::Error newError)
{
    qWarning() << "Bluetooth error occurred:" << newError;
}

void MYBLE::sendMessage(const QByteArray &data)
{
    if (!service || !writeCharacteristic.isValid() || !isWritable(writeCharacteristic))
        return;
    service->writeCharacteristic(writeCharacteristic, data, QLowEnergyService::WriteWithResponse);
    qDebug() << " 执行service->writeCharacteristic完成发送. " << writeCharacteristic.uuid();
}

void MYBLE::sendMessageOrder(const QByteArray &data)
{
    if (!serviceOrder || !writeCharacteristicOrder.isValid()
        || !isWritable(writeCharacteristicOrder))
        return;
    // Unlike sendMessage(), without response: the order service expects that.
    serviceOrder->writeCharacteristic(writeCharacteristicOrder, data,
                                      QLowEnergyService::WriteWithoutResponse);
    qDebug() << " 执行serviceOrder->writeCharacteristic完成发送. "
             << writeCharacteristicOrder.uuid();
}
