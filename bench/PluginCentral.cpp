#include "Central.h"

#include "CorvelKXBleInterface.h"
#include "Support.h"

#include <QPluginLoader>

namespace {

class PluginCentral : public Central
{
public:
    explicit PluginCentral(const QString &fileName);
    ~PluginCentral() override { m_loader.unload(); }

    void startScan() override { m_plugin->start(); }
    void stopScan() override { m_plugin->stop(); }
    void connectTo(const QString &address) override { m_plugin->connectToDevice(address); }
    void send(const QString &address, const QByteArray &data) override
    {
        m_plugin->sendMessage(address, data);
    }
    void disconnectFrom(const QString &address) override { m_plugin->removeDevice(address); }

private:
    QPluginLoader m_loader;
    CorvelKXBleInterface *m_plugin;
};

PluginCentral::PluginCentral(const QString &fileName)
    : m_loader(fileName), m_plugin(qobject_cast<CorvelKXBleInterface *>(m_loader.instance()))
{
    require(m_plugin != nullptr, qPrintable(m_loader.errorString()));
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceDiscovered, this,
            [this](int, const QString &address) { found(address); });
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceConnected, this,
            [this](const QString &address) { ready(address); });
    connect(m_plugin, &CorvelKXBleInterface::sigDeviceDisconnected, this,
            [this](const QString &address) { gone(address); });
    connect(m_plugin, &CorvelKXBleInterface::sigMessageReceived, this,
            [this](const QString &address, const QByteArray &data) { received(address, data); });
}

} // namespace

std::unique_ptr<Central> pluginCentral(const QString &fileName)
{
    return std::make_unique<PluginCentral>(fileName);
}
