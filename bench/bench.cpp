// What the plugin costs: runs each workload with Qt Bluetooth alone and through the plugin, in
// turn, among the same virtual lights, and prints a table.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QProcess>
#include <QRegularExpression>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

using Qt::StringLiterals::operator""_s;

namespace {

enum Way { Bare, Plugin, Logged };
constexpr const char *wayNames[] = { "bare", "plugin", "logged" };

enum class Comparison { Ratio, Difference, None };

// One row of the table: a value out of what a workload printed.
struct Row
{
    QString what;
    QString key;
    QString unit;
    QString goal;
    Comparison comparison = Comparison::Ratio;
    bool mustBeExact = false; // the plugin's values are those of Qt Bluetooth alone
};

struct Workload
{
    QString name;
    int lights;
    int count;
    QList<Way> ways;
    bool isRepeated;
    QList<Row> rows;
};

constexpr std::array allWays { Bare, Plugin, Logged };

QList<Workload> workloads(bool isShort)
{
    const QString stated = u"stated"_s;
    const QList<Way> everyWay(allWays.cbegin(), allWays.cend());
    QList<Workload> all {
        { u"calls"_s,
          1,
          0,
          everyWay,
          true,
          { { u"D-Bus calls: bring-up, write, disconnect"_s,
              u"calls"_s,
              {},
              u"1.00"_s,
              Comparison::Ratio,
              true } } },
        { u"rate"_s,
          1,
          isShort ? 5000 : 50000,
          everyWay,
          true,
          { { u"notifications, one light"_s, u"perSecond"_s, u"/s"_s, u"≥ 0.95"_s },
            { u"processor time of a notification"_s, u"processor"_s, u"µs"_s,
              u"≤ 1.25; log on ≤ 1.6"_s } } },
        { u"delay"_s,
          1,
          isShort ? 200 : 2000,
          everyWay,
          true,
          { { u"bus message to host, one at a time, p50"_s, u"p50"_s, u"µs"_s, stated,
              Comparison::Difference },
            { u"the same, p99"_s, u"p99"_s, u"µs"_s, u"≤ +100 µs"_s, Comparison::Difference } } },
        { u"writes"_s,
          2,
          isShort ? 300 : 3000,
          everyWay,
          true,
          { { u"writes without response, answered"_s, u"withoutResponse"_s, u"/s"_s, u"≥ 0.95"_s },
            { u"writes with response, answered"_s, u"withResponse"_s, u"/s"_s, u"≥ 0.95"_s } } },
        { u"road"_s,
          1,
          0,
          everyWay,
          true,
          { { u"start() to sigDeviceConnected, one light"_s, u"milliseconds"_s, u"ms"_s,
              u"≤ 1.05"_s } } },
    };
    for (const int lights : isShort ? QList<int> { 1, 10 } : QList<int> { 1, 10, 50 }) {
        const QString of = lights == 1 ? u"one light"_s : u"%1 lights"_s.arg(lights);
        all.append({ u"crowd"_s,
                     lights,
                     0,
                     everyWay,
                     true,
                     { { u"bring-up of "_s + of, u"milliseconds"_s, u"ms"_s, stated },
                       { u"longest gap of the host's loop meanwhile"_s, u"gap"_s, u"ms"_s,
                         u"that of no light"_s, Comparison::None },
                       { u"the same with no light at all"_s,
                         u"idleGap"_s,
                         u"ms"_s,
                         {},
                         Comparison::None } } });
    }
    all.append({ u"flood"_s,
                 12,
                 isShort ? 3 : 60,
                 everyWay,
                 false,
                 { { u"2,000 notifications a second, 12 lights, %1 s: sent"_s.arg(isShort ? 3 : 60),
                     u"sent"_s,
                     {},
                     {},
                     Comparison::None },
                   { u"lost"_s, u"lost"_s, {}, u"0"_s, Comparison::None, true },
                   { u"out of order"_s, u"outOfOrder"_s, {}, u"0"_s, Comparison::None, true } } });
    all.append(
            { u"recognition"_s,
              0,
              isShort ? 5000 : 100000,
              { Plugin, Logged },
              true,
              { { u"recognition, supported"_s, u"supported"_s, u"ns"_s, stated, Comparison::None },
                { u"recognition, foreign"_s, u"foreign"_s, u"ns"_s, stated, Comparison::None } } });
    all.append({ u"knownBytes"_s,
                 0,
                 1000,
                 { Plugin },
                 false,
                 { { u"one more light known"_s, u"bytes"_s, u"bytes"_s, stated,
                     Comparison::None } } });
    all.append({ u"connectedBytes"_s,
                 12,
                 0,
                 { Bare, Plugin },
                 false,
                 { { u"one more light connected, Qt's share included"_s, u"bytes"_s, u"bytes"_s,
                     stated } } });
    all.append({ u"load"_s,
                 0,
                 0,
                 { Plugin },
                 true,
                 { { u"library: loading"_s, u"load"_s, u"ms"_s, stated, Comparison::None },
                   { u"library: making the object"_s, u"instance"_s, u"ms"_s, stated,
                     Comparison::None } } });
    return all;
}

QString neighbour(const char *name)
{
    return QCoreApplication::applicationDirPath() + u'/' + QLatin1String(name);
}

QByteArray outputOf(const QString &program, const QStringList &words)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, words);
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != EXIT_SUCCESS) {
        QTextStream(stderr) << "corvelkx-bench: " << program << ' ' << words.join(u' ')
                            << " failed." << Qt::endl;
        std::exit(EXIT_FAILURE);
    }
    return process.readAllStandardOutput();
}

// Among so many lights; \a prefix is a program that runs the workload.
QJsonObject runWorkload(Way way, const QString &name, int lights, int count,
                        const QStringList &prefix = {})
{
    QStringList words = prefix;
    words << neighbour("corvelkx-workload") << QLatin1String(wayNames[way]) << name
          << QString::number(count);
    if (lights > 0)
        words = QStringList { neighbour("corvelkx-lights"), u"--crowd"_s, QString::number(lights),
                              u"--"_s }
                + words;
    return QJsonDocument::fromJson(outputOf(words.first(), words.mid(1))).object();
}

struct Values
{
    QList<double> values;

    bool isEmpty() const { return values.isEmpty(); }
    double median() const
    {
        QList<double> sorted = values;
        std::sort(sorted.begin(), sorted.end());
        const qsizetype middle = sorted.size() / 2;
        return sorted.size() % 2 ? sorted.at(middle)
                                 : (sorted.at(middle - 1) + sorted.at(middle)) / 2;
    }
};

QString number(double value)
{
    const int digits = value == std::round(value) || std::abs(value) >= 100 ? 0
                       : std::abs(value) >= 10                              ? 1
                                                                            : 2;
    return QLocale(QLocale::English).toString(value, 'f', digits);
}

QString cell(const Values &values, const QString &unit)
{
    if (values.isEmpty())
        return {};
    const auto [least, most] = std::minmax_element(values.values.cbegin(), values.values.cend());
    QString text = number(values.median());
    if (values.values.size() > 1 && *least != *most)
        text += u" (%1–%2)"_s.arg(number(*least), number(*most));
    return unit.isEmpty() ? text : text + u' ' + unit;
}

QString compared(const Values &bare, const Values &other, const Row &row)
{
    if (bare.isEmpty() || other.isEmpty() || row.comparison == Comparison::None)
        return {};
    if (row.comparison == Comparison::Ratio)
        return QString::number(other.median() / bare.median(), 'f', 2);
    const double difference = other.median() - bare.median();
    return (difference < 0 ? u"−"_s : u"+"_s) + number(std::abs(difference)) + u' ' + row.unit;
}

class Bench
{
public:
    Bench(int rounds, bool isShort) : m_rounds(rounds), m_isShort(isShort) { }

    void run();
    bool isExact() const { return m_isExact; }
    QByteArray json() const;

private:
    using Results = QMap<Way, QMap<QString, Values>>;

    void measure(const Workload &workload);
    void measureInstructions();
    void measureLibrary();
    void print(const Row &row, const Results &results);

    int m_rounds;
    bool m_isShort;
    bool m_isExact = true;
    QJsonArray m_json;
    QTextStream m_out { stdout };
};

void Bench::run()
{
    m_out << QDateTime::currentDateTime().toString(u"yyyy-MM-dd"_s) << ", Qt " << qVersion() << ", "
          << QSysInfo::prettyProductName() << ", " << QSysInfo::currentCpuArchitecture() << ", "
          << QThread::idealThreadCount() << " cores, " << m_rounds
          << (m_rounds == 1 ? " round" : " rounds") << "\n\n"
          << "| what | Qt Bluetooth alone | plugin, log off | plugin, log on | plugin ÷ alone | "
             "log "
             "on ÷ alone | goal |\n"
          << "| --- | --- | --- | --- | --- | --- | --- |\n";
    m_out.flush();
    const auto all = workloads(m_isShort);
    for (const Workload &workload : all)
        measure(workload);
    if (!m_isShort)
        measureInstructions();
    measureLibrary();
    m_out << '\n'
          << outputOf(neighbour("corvelkx-lights"),
                      { u"--crowd"_s, u"1"_s, u"--"_s, neighbour("corvelkx-soak"), u"--kept"_s });
    m_out.flush();
}

void Bench::measure(const Workload &workload)
{
    Results results;
    for (int round = 0; round < (workload.isRepeated ? m_rounds : 1); ++round) {
        for (qsizetype turn = 0; turn < workload.ways.size(); ++turn) {
            // Another one begins each round, for the first may find the machine at rest.
            const Way way = workload.ways.at((turn + round) % workload.ways.size());
            const QJsonObject result = runWorkload(way, workload.name, workload.lights,
                                                   workload.count);
            for (const Row &row : workload.rows)
                results[way][row.key].values.append(result.value(row.key).toDouble());
        }
    }
    for (const Row &row : workload.rows)
        print(row, results);
}

// Counted, not timed: what two runs differ by, for what they differ in.
void Bench::measureInstructions()
{
    const Row row {
        u"instructions of a notification"_s, u"instructions"_s, {}, u"≤ 1.25; log on ≤ 1.6"_s
    };
    const QTemporaryDir directory;
    const auto instructions = [&directory](Way way, int count) {
        const QString file = directory.filePath(u"callgrind.out"_s);
        runWorkload(way, u"rate"_s, 1, count,
                    { u"valgrind"_s, u"--quiet"_s, u"--tool=callgrind"_s,
                      u"--callgrind-out-file="_s + file });
        QFile profile(file);
        if (!profile.open(QIODevice::ReadOnly))
            return 0.0;
        static const QRegularExpression totals(u"^totals: (\\d+)"_s,
                                               QRegularExpression::MultilineOption);
        return totals.match(QString::fromUtf8(profile.readAll())).captured(1).toDouble();
    };
    constexpr int few = 2000;
    constexpr int many = 10000;
    Results results;
    for (const Way way : allWays) {
        const double difference = instructions(way, many) - instructions(way, few);
        results[way][row.key].values.append(std::round(difference / (many - few)));
    }
    print(row, results);
}

void Bench::measureLibrary()
{
    const QString file = QStringLiteral(PLUGIN_FILE);
    Results results;
    auto &values = results[Plugin];
    values[u"size"_s].values.append(double(QFileInfo(file).size()));
    values[u"symbols"_s].values.append(
            double(outputOf(u"nm"_s, { u"-D"_s, u"--defined-only"_s, file }).count('\n')));
    const QByteArray relocations = outputOf(u"readelf"_s, { u"-rW"_s, file });
    values[u"relocations"_s].values.append(double(relocations.count("R_")));
    const auto row = [](const char *what, const char *key, const char *unit) {
        return Row { QString::fromUtf8(what), QString::fromLatin1(key), QString::fromLatin1(unit),
                     u"stated"_s, Comparison::None };
    };
    print(row("library: size", "size", "bytes"), results);
    print(row("library: exported symbols", "symbols", ""), results);
    print(row("library: relocations", "relocations", ""), results);
}

void Bench::print(const Row &row, const Results &results)
{
    const auto of = [&](Way way) { return results.value(way).value(row.key); };
    m_out << "| " << row.what;
    for (const Way way : allWays)
        m_out << " | " << cell(of(way), row.unit);
    m_out << " | " << compared(of(Bare), of(Plugin), row) << " | "
          << compared(of(Bare), of(Logged), row) << " | " << row.goal << " |\n";
    m_out.flush();

    QJsonObject json { { u"what"_s, row.what }, { u"unit"_s, row.unit } };
    for (const Way way : allWays) {
        QJsonArray values;
        const auto measured = of(way).values;
        for (const double value : measured)
            values.append(value);
        json.insert(QLatin1String(wayNames[way]), values);
        // Nothing is lost and nothing is called that Qt Bluetooth alone does not call.
        if (row.mustBeExact && measured != of(Bare).values)
            m_isExact = false;
    }
    m_json.append(json);
}

QByteArray Bench::json() const
{
    const QJsonObject all { { u"date"_s, QDateTime::currentDateTime().toString(Qt::ISODate) },
                            { u"qt"_s, QLatin1String(qVersion()) },
                            { u"cores"_s, QThread::idealThreadCount() },
                            { u"rounds"_s, m_rounds },
                            { u"measures"_s, m_json } };
    return QJsonDocument(all).toJson();
}

int complain(const QString &sentence)
{
    QTextStream(stderr) << "corvelkx-bench: " << sentence << Qt::endl;
    return EXIT_FAILURE;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
            u"Measures what the plugin costs beside Qt Bluetooth alone. Run it by scripts/bench."_s);
    parser.addHelpOption();
    parser.addOptions({
            { u"rounds"_s, u"How often each is measured (7)."_s, u"count"_s, u"7"_s },
            { u"short"_s, u"A short round: for the counts, not for the times."_s },
            { u"json"_s, u"Write every value to <file>, too."_s, u"file"_s },
    });
    parser.process(app);
    const bool isShort = parser.isSet(u"short"_s);
    bool isNumber = false;
    const int rounds = isShort ? 1 : parser.value(u"rounds"_s).toInt(&isNumber);
    if (!isShort && (!isNumber || rounds < 1))
        return complain(u"--rounds takes a number above 0."_s);
    // Before the minutes that it takes, not after them.
    QFile file(parser.value(u"json"_s));
    if (parser.isSet(u"json"_s) && !file.open(QIODevice::WriteOnly))
        return complain(file.fileName() + u": "_s + file.errorString());

    Bench bench(rounds, isShort);
    bench.run();
    if (file.isOpen() && file.write(bench.json()) < 0)
        return complain(file.fileName() + u": "_s + file.errorString());
    if (!bench.isExact())
        return complain(u"A count is not what it has to be."_s);
    return EXIT_SUCCESS;
}
