// Measures the window of corvelkx-panel under load, and draws its picture.

#include "LogModel.h"
#include "MainWindow.h"
#include "Support.h"
#include "Text.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QStyleFactory>
#include <QtEndian>
#include <QtMath>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

using CorvelKX::Host;
using CorvelKX::Light;
using Qt::StringLiterals::operator""_s;

namespace {

constexpr int interval = 5;
constexpr double longestStall = 50;
// The lines of the log differ in length, so the heap may grow a little after the log is full.
constexpr double mostGrowth = 0.25;

// How long this thread was ready to run but had no processor, in milliseconds.
double waitedForProcessor()
{
    QFile file(u"/proc/thread-self/schedstat"_s);
    require(file.open(QIODevice::ReadOnly), "The system does not tell who waits.");
    return file.readAll().split(' ').value(1).toDouble() / 1e6;
}

double processorTime()
{
    timespec time {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return double(time.tv_sec) * 1e3 + double(time.tv_nsec) / 1e6;
}

// The longest time between two rounds of the event loop: in total, without the time for which other
// programs had the processor, and as CPU time, which does not depend on the load of the machine.
class Heartbeat
{
public:
    Heartbeat()
    {
        QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] {
            const double now = double(m_clock.nsecsElapsed()) / 1e6;
            const double waited = waitedForProcessor();
            const double gap = now - std::exchange(m_last, now) - interval;
            longest = std::max(longest, gap);
            const double worked = processorTime();
            longestWork = std::max(longestWork, worked - std::exchange(m_worked, worked));
            longestOwn = std::max(longestOwn, gap - (waited - std::exchange(m_waited, waited)));
        });
        m_timer.setTimerType(Qt::PreciseTimer);
        m_clock.start();
        m_timer.start(interval);
    }

    double longest = 0;
    double longestOwn = 0;
    double longestWork = 0;

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    double m_last = 0;
    double m_waited = waitedForProcessor();
    double m_worked = processorTime();
};

// Shows the window, scans, and connects the first count lights; all of them if that is 0.
QList<Light *> connectLights(MainWindow *window, qsizetype count)
{
    Host *host = window->host();
    window->show();
    const auto wanted = command("lights").filter(u"C0:FF"_s).size(); // the others are foreign
    require(waitFor([=] { return host->lights().size() == wanted; }), "Not all lights were seen.");
    QList<Light *> lights = host->lights();
    if (count > 0)
        lights = lights.mid(0, count);
    host->stopScan();
    for (Light *light : std::as_const(lights))
        light->connectToDevice();
    require(waitFor([&] {
        return std::all_of(lights.cbegin(), lights.cend(), std::mem_fn(&Light::isReady));
    }));
    return lights;
}

int measure(MainWindow *window, int seconds, int rate)
{
    const auto lights = connectLights(window, 0);
    window->findChild<QTableView *>(u"lights"_s)->selectAll();
    QHash<const Light *, quint32> next;
    quint64 received = 0;
    quint64 misplaced = 0;
    QObject::connect(window->host(), &Host::messageReceived, window,
                     [&](const Light *light, const QByteArray &data) {
                         ++received;
                         misplaced += qFromBigEndian<quint32>(data.constData()) != next[light]++;
                     });
    int batches = 0;
    QObject::connect(window->findChild<QTableView *>(u"table"_s)->model(),
                     &QAbstractItemModel::rowsInserted, window, [&batches] { ++batches; });

    const int each = rate / int(lights.size());
    const auto total = quint64(each) * quint64(seconds) * quint64(lights.size());
    for (const Light *light : lights)
        command("burst", { light->address(), each * seconds, 20, each });
    const Heartbeat heartbeat;
    QElapsedTimer clock;
    clock.start();
    require(waitFor([&] { return received >= LogModel::limit || received == total; }));
    const qint64 heapBefore = heapSize();
    require(waitFor([&] { return received == total; }), "Messages were lost.");
    const double elapsed = double(clock.elapsed()) / 1000;
    const double growth = double(heapSize()) / double(heapBefore) - 1;

    std::printf(
            "%d lights, %llu messages in %.1f s, %.0f a second; out of order: %llu\n"
            "longest stall of the event loop: %.1f ms; with what other programs took: %.1f ms;\n"
            "longest work in one: %.1f ms\n"
            "batches in the log: %.1f a second\n"
            "heap: %lld KiB with a full log, %+.1f %% at the end\n",
            int(lights.size()), static_cast<unsigned long long>(received), elapsed,
            double(received) / elapsed, static_cast<unsigned long long>(misplaced),
            heartbeat.longestOwn, heartbeat.longest, heartbeat.longestWork, batches / elapsed,
            static_cast<long long>(heapBefore / 1024), growth * 100);
    require(misplaced == 0, "Messages came in another order.");
    // CPU time: the stall also contains what other programs took.
    require(heartbeat.longestWork <= longestStall, "The event loop worked for too long.");
    require(batches / elapsed <= 20, "The log was updated too often.");
    require(growth <= mostGrowth, "The heap grew.");
    return EXIT_SUCCESS;
}

int draw(MainWindow *window, int seconds, const QString &fileName)
{
    auto *lights = window->findChild<QTableView *>(u"lights"_s);
    const auto ready = connectLights(window, 6);
    ready.at(1)->setKeepConnected(true);
    command("drop", { ready.at(5)->address() });
    lights->selectRow(0);
    window->findChild<QLineEdit *>(u"payload"_s)->setText(u"01 02 FF"_s);
    window->findChild<QCheckBox *>(u"repeat"_s)->click();
    window->findChild<QSpinBox *>(u"interval"_s)->setValue(400);
    window->findChild<QPushButton *>(u"send"_s)->click();
    for (int second = 0; second < seconds; ++second) {
        for (int i = 0; i < 4; ++i) {
            const int count = qRound(8 + 7 * qSin(second / (3.0 + i))) * (i + 1);
            command("burst", { ready.at(i)->address(), count, 8, count });
        }
        QElapsedTimer clock;
        clock.start();
        waitFor([&clock] { return clock.hasExpired(1000); }, 50);
    }
    return window->grab().save(fileName) ? EXIT_SUCCESS : EXIT_FAILURE;
}

QPalette darkPalette()
{
    QPalette palette(QColor(u"#353535"_s), QColor(u"#353535"_s));
    palette.setColor(QPalette::Base, QColor(u"#232323"_s));
    palette.setColor(QPalette::AlternateBase, QColor(u"#2b2b2b"_s));
    return palette;
}

} // namespace

int main(int argc, char *argv[])
{
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    useOneArena();
    const QApplication app(argc, argv);
    QCoreApplication::setApplicationName(u"corvelkx-panelbench"_s); // has its own settings
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOptions({
            { u"seconds"_s, u"Run for <n> seconds."_s, u"n"_s, u"60"_s },
            { u"rate"_s, u"Let all lights together notify <n> times a second."_s, u"n"_s,
              u"2000"_s },
            { u"picture"_s, u"Draw the window to <file>, with some traffic."_s, u"file"_s },
            { u"dark"_s, u"Draw it in dark colours."_s },
    });
    parser.process(app);
    enableLog(false);
    QApplication::setStyle(QStyleFactory::create(u"Fusion"_s));
    if (parser.isSet(u"dark"_s))
        QApplication::setPalette(darkPalette());
    lightsHere();
    const int seconds = parser.value(u"seconds"_s).toInt();
    MainWindow window { QString() };
    return parser.isSet(u"picture"_s) ? draw(&window, seconds, parser.value(u"picture"_s))
                                      : measure(&window, seconds, parser.value(u"rate"_s).toInt());
}
