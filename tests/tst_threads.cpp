#include "CorvelKXBleInterface.h"
#include "TestSupport.h"

#include <QPluginLoader>
#include <QRandomGenerator>
#include <QTest>

#include <atomic>
#include <memory>

using Qt::StringLiterals::operator""_s;

namespace {

constexpr int fewLives = 40;
constexpr quint32 linesOfALife = 200; // with two lights and what they say

} // namespace

// A host that makes plugin objects and lets them go at any moment, while lights talk. For a look at
// the threads by ThreadSanitizer as much as for what is asserted; CORVELKX_LIVES says how many.
class TestThreads : public QObject
{
    Q_OBJECT

private slots:
    void livesOfRandomLength();

private:
    Lights m_lights;
};

void TestThreads::livesOfRandomLength()
{
    bool isGiven = false;
    const int given = qEnvironmentVariableIntValue("CORVELKX_LIVES", &isGiven);
    const int lives = isGiven ? given : fewLives;
    QRandomGenerator random(randomSeed());
    const QStringList addresses { u"C0:FF:EE:00:00:02"_s, u"C0:FF:EE:00:00:03"_s };
    int talked = 0;
    // One of each for all lives: QThread orders the end of one before the next, by a lock that
    // ThreadSanitizer does not see.
    std::atomic_int linesLeft = 0;
    LogRecorder log;
    log.setHook([&linesLeft](const QString &) { --linesLeft; });
    for (int life = 0; life < lives; ++life) {
        linesLeft = static_cast<int>(random.bounded(linesOfALife));
        QPluginLoader loader(QStringLiteral(PLUGIN_FILE));
        std::unique_ptr<CorvelKXBleInterface> plugin(
                qobject_cast<CorvelKXBleInterface *>(loader.instance()));
        QVERIFY(plugin);
        QSet<QString> wanted(addresses.cbegin(), addresses.cend());
        bool hasTalked = false;
        connect(plugin.get(), &CorvelKXBleInterface::sigDeviceDiscovered, plugin.get(),
                [&](int, const QString &address) {
                    if (wanted.remove(address))
                        plugin->connectToDevice(address);
                    if (wanted.isEmpty())
                        plugin->stop();
                });
        connect(plugin.get(), &CorvelKXBleInterface::sigDeviceConnected, plugin.get(),
                [&](const QString &address) {
                    for (char i = 0; i < 5; ++i)
                        plugin->sendMessage(address, QByteArray(20, i));
                });
        connect(plugin.get(), &CorvelKXBleInterface::sigMessageReceived, plugin.get(),
                [&](const QString &address, const QByteArray &data) {
                    hasTalked = true;
                    plugin->sendMessage(address, data);
                });
        plugin->start();
        QVERIFY(waitFor([&] { return linesLeft <= 0; }));
        // A scanner that is deleted at work would scan on, and be in the way of the next one.
        plugin->stop();
        plugin.reset();
        talked += hasTalked;
        QVERIFY(waitFor([this] { return m_lights.order(u"connected"_s).isEmpty(); }));
    }
    // Short lives and long ones, or nothing was tried.
    QVERIFY(talked > 0 && talked < lives);
}

QTEST_GUILESS_MAIN(TestThreads)
#include "tst_threads.moc"
