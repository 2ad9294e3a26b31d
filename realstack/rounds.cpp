// corvelkx-rounds bare|plugin FILE: one measurement for each line on the standard input, with Qt
// Bluetooth alone or with the plugin FILE. Connects the first light that is found; prints the
// milliseconds from the scan's start until it is ready, and those of five payloads, each sent after
// the echo of the previous one.
#include "Central.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSocketNotifier>

#include <cstdio>
#include <unistd.h>

namespace {

constexpr char payloads = 5;

class Rounds : public QObject
{
public:
    explicit Rounds(std::unique_ptr<Central> central);
    void begin();

private:
    std::unique_ptr<Central> m_central;
    QElapsedTimer m_clock;
    QString m_light; // the one that was found in this round
    qint64 m_ready = 0;
};

Rounds::Rounds(std::unique_ptr<Central> central) : m_central(std::move(central))
{
    m_central->found = [this](const QString &address) {
        if (!m_light.isEmpty())
            return;
        m_light = address;
        m_central->stopScan();
        m_central->connectTo(address);
    };
    m_central->ready = [this](const QString &address) {
        m_ready = m_clock.restart();
        m_central->send(address, QByteArray(1, '\0'));
    };
    m_central->received = [this](const QString &address, const QByteArray &data) {
        if (data.front() + 1 < payloads) {
            m_central->send(address, QByteArray(1, char(data.front() + 1)));
            return;
        }
        std::printf("%lld %lld\n", m_ready, m_clock.elapsed());
        m_central->disconnectFrom(address);
    };
    m_central->gone = [](const QString &) { std::fflush(stdout); };
}

void Rounds::begin()
{
    m_light.clear();
    m_clock.start();
    m_central->startScan();
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList words = QCoreApplication::arguments();
    Rounds rounds(words.value(1) == QLatin1String("bare") ? bareCentral()
                                                          : pluginCentral(words.value(2)));
    QSocketNotifier commands(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&commands, &QSocketNotifier::activated, &rounds, [&rounds] {
        char line[16];
        if (read(STDIN_FILENO, line, sizeof(line)) > 0)
            rounds.begin();
        else
            QCoreApplication::quit();
    });
    return QCoreApplication::exec();
}
