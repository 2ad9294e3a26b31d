#include "CorvelKXBleInterface.h"
#include "Lights.h"

#include <QPluginLoader>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

#include <memory>

using Qt::StringLiterals::operator""_s;

// What a host relies on, tested through the loaded plugin among virtual lights.
class TestCommands : public QObject
{
    Q_OBJECT

private slots:
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

void TestCommands::commandsKeepTheirOrder()
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
    plugin->stop(); // of the second, idle discovery agent
    QVERIFY(waitFor([&] { return log.linesWith(u"::stop] enter"_s).size() == 2; }));
    const QStringList lines = log.take();
    // Two threads write these lines, so compare the lines of each thread separately.
    compareTrace(lines.filter(QRegularExpression(u"^\\[BLEManager::st|unsupported"_s))
                         + lines.filter(QRegularExpression(u"^\\[CorvelKXBleDLL::\\w+Device\\]"_s)),
                 u"commands.trace"_s);
}

void TestCommands::signalsOnTheHostsThread()
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

QTEST_GUILESS_MAIN(TestCommands)
#include "tst_commands.moc"
