#include "Central.h"

#include <QBluetoothDeviceDiscoveryAgent>
#include <QBluetoothDeviceInfo>
#include <QHash>
#include <QLowEnergyController>
#include <QLowEnergyService>

namespace {

struct Link
{
    QLowEnergyController *controller = nullptr;
    QLowEnergyService *service = nullptr;
    QLowEnergyCharacteristic writable;
    QLowEnergyService::WriteMode mode = QLowEnergyService::WriteWithoutResponse;
};

bool begins(const QBluetoothUuid &uuid, const char *first, const char *second)
{
    const QString text = uuid.toString(QUuid::WithoutBraces);
    return text.startsWith(QLatin1String(first)) || text.startsWith(QLatin1String(second));
}

class BareCentral : public Central
{
public:
    BareCentral();

    void startScan() override { m_agent.start(QBluetoothDeviceDiscoveryAgent::LowEnergyMethod); }
    void stopScan() override { m_agent.stop(); }
    void connectTo(const QString &address) override;
    void send(const QString &address, const QByteArray &data) override;
    void disconnectFrom(const QString &address) override;

private:
    void onServiceDiscovered(const QString &address, const QBluetoothUuid &uuid);
    void bind(const QString &address);

    QBluetoothDeviceDiscoveryAgent m_agent;
    QHash<QString, QBluetoothDeviceInfo> m_infos;
    QHash<QString, Link> m_links;
};

BareCentral::BareCentral()
{
    m_agent.setLowEnergyDiscoveryTimeout(20000);
    connect(&m_agent, &QBluetoothDeviceDiscoveryAgent::deviceDiscovered, this,
            [this](const QBluetoothDeviceInfo &info) {
                const auto values = info.manufacturerData().values();
                if (values.isEmpty() || !values.constFirst().startsWith('\x3C'))
                    return;
                const QString address = info.address().toString();
                m_infos.insert(address, info);
                found(address);
            });
}

void BareCentral::connectTo(const QString &address)
{
    auto *controller = QLowEnergyController::createCentral(m_infos.value(address), this);
    m_links[address].controller = controller;
    connect(controller, &QLowEnergyController::connected, controller,
            &QLowEnergyController::discoverServices);
    connect(controller, &QLowEnergyController::serviceDiscovered, this,
            [this, address](const QBluetoothUuid &uuid) { onServiceDiscovered(address, uuid); });
    connect(controller, &QLowEnergyController::disconnected, this, [this, address] {
        const Link link = m_links.take(address);
        link.service->deleteLater();
        link.controller->deleteLater();
        gone(address);
    });
    controller->connectToDevice();
}

void BareCentral::onServiceDiscovered(const QString &address, const QBluetoothUuid &uuid)
{
    if (!begins(uuid, "0000fff0", "0000a002"))
        return;
    Link &link = m_links[address];
    link.service = link.controller->createServiceObject(uuid, this);
    connect(link.service, &QLowEnergyService::stateChanged, this,
            [this, address](QLowEnergyService::ServiceState state) {
                if (state == QLowEnergyService::RemoteServiceDiscovered)
                    bind(address);
            });
    connect(link.service, &QLowEnergyService::characteristicChanged, this,
            [this, address](const QLowEnergyCharacteristic &, const QByteArray &value) {
                received(address, value);
            });
    link.service->discoverDetails();
}

void BareCentral::bind(const QString &address)
{
    Link &link = m_links[address];
    const auto characteristics = link.service->characteristics();
    for (const QLowEnergyCharacteristic &characteristic : characteristics) {
        if (begins(characteristic.uuid(), "0000fff2", "0000c304")) {
            link.writable = characteristic;
            link.mode = characteristic.properties() & QLowEnergyCharacteristic::WriteNoResponse
                                ? QLowEnergyService::WriteWithoutResponse
                                : QLowEnergyService::WriteWithResponse;
        }
        const auto configuration = characteristic.clientCharacteristicConfiguration();
        if (configuration.isValid())
            link.service->writeDescriptor(configuration, QByteArray::fromHex("0100"));
    }
    ready(address);
}

void BareCentral::send(const QString &address, const QByteArray &data)
{
    const Link link = m_links.value(address);
    link.service->writeCharacteristic(link.writable, data, link.mode);
}

void BareCentral::disconnectFrom(const QString &address)
{
    m_links.value(address).controller->disconnectFromDevice();
}

} // namespace

std::unique_ptr<Central> bareCentral()
{
    return std::make_unique<BareCentral>();
}
