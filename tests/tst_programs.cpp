#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using Qt::StringLiterals::operator""_s;

namespace {

struct Result
{
    int status = -1;
    QString out;
    QString err;
};

const char hostFile[] = HOST_FILE;
const char lightsFile[] = LIGHTS_FILE;
constexpr int limit = 60000;
constexpr int lookInterval = 10; // ms, for a killed program tells nobody

Result run(const QString &program, const QStringList &words, const QByteArray &input = {},
           const QStringList &environment = {})
{
    QProcess process;
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    for (const QString &variable : environment)
        variables.insert(variable.section(QLatin1Char('='), 0, 0),
                         variable.section(QLatin1Char('='), 1));
    process.setProcessEnvironment(variables);
    process.start(program, words);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(limit))
        return {};
    return { process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2,
             QString::fromUtf8(process.readAllStandardOutput()),
             QString::fromUtf8(process.readAllStandardError()) };
}

Result host(const QString &words, const QByteArray &input = {})
{
    return run(QString::fromLatin1(hostFile), words.split(QLatin1Char(' '), Qt::SkipEmptyParts),
               input);
}

// A process that ended but was not asked for its status is not alive.
bool isAlive(const QString &process)
{
    QFile status(u"/proc/%1/stat"_s.arg(process));
    return status.open(QIODevice::ReadOnly) && !status.readAll().contains(") Z ");
}

// Whether some process has \a path among its words or in its environment.
bool isNamedByAProcess(const QString &path)
{
    const auto processes = QDir(u"/proc"_s).entryList({ u"[1-9]*"_s }, QDir::Dirs);
    for (const QString &process : processes) {
        for (const QString &part : { u"cmdline"_s, u"environ"_s }) {
            QFile file(u"/proc/%1/%2"_s.arg(process, part));
            if (file.open(QIODevice::ReadOnly) && file.readAll().contains(path.toUtf8()))
                return true;
        }
    }
    return false;
}

// Runs a shell script among virtual lights, with $HOST and $LIGHTS for the two programs.
Result script(const QString &text, const QStringList &options = {})
{
    return run(QString::fromLatin1(lightsFile),
               options + QStringList { u"--"_s, u"sh"_s, u"-c"_s, text }, {},
               { u"HOST="_s + QLatin1String(hostFile), u"LIGHTS="_s + QLatin1String(lightsFile) });
}

} // namespace

// The two programs as a user types them.
class TestPrograms : public QObject
{
    Q_OBJECT

private slots:
    void refusals_data();
    void refusals();
    void withoutBluetooth_data();
    void withoutBluetooth();
    void frozenService();
    void scanPrintsEachLightOnce();
    void connectAndSend();
    void listen();
    void shell();
    void demo();
    void single();
    void json();
    void interruptionLeavesNoLink_data();
    void interruptionLeavesNoLink();
    void namesDoNotMoveTheCursor();
    void describedLights();
    void nonsenseLights_data();
    void nonsenseLights();
    void lightsLeaveNothingBehind();
    void killedHostLeavesNothingBehind();
};

void TestPrograms::refusals_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("sentence");
    const auto row = [](const char *words, int status, const char *sentence) {
        QTest::newRow(words) << QString::fromLatin1(words) << status
                             << QString::fromLatin1(sentence);
    };
    row("", 2, "There is no command; try --help.");
    row("dance", 2, "\"dance\" is no command; try --help.");
    row("scan now", 2, "scan takes no more words.");
    row("connect", 2, "connect needs an address.");
    row("send C0:FF:EE:00:00:01", 2, "send needs an address and a payload.");
    row("--nonsense scan", 2, "Unknown option 'nonsense'.");
    row("--timeout soon scan", 2, "--timeout takes a number of seconds.");
    row("--timeout nan scan", 2, "--timeout takes a number of seconds.");
    row("--count 0 listen C0:FF:EE:00:00:01", 2, "--count takes a number of messages.");
    row("--simulate connect C0:FF:EE:00:00", 2,
        "\"C0:FF:EE:00:00\" is not an address; one is six "
        "hexadecimal pairs separated by colons.");
    row("--simulate send C0:FF:EE:00:00:01 abc", 2,
        "\"abc\" is no payload; one is a row of hexadecimal pairs.");
    row("--simulate send C0:FF:EE:00:00:01 0x01", 2,
        "\"0x01\" is no payload; one is a row of hexadecimal pairs.");
    row("--plugin /nowhere scan", 1,
        "The plugin /nowhere cannot be loaded: The shared library was not found.");
    row("--plugin " HOST_FILE " scan", 1, "The plugin " HOST_FILE " cannot be loaded: ");
    row("--simulate --timeout 1 connect 11:22:33:44:55:66", 1, "11:22:33:44:55:66 was not seen; ");
    row("--lights /nowhere scan", 2, "/nowhere: No such file or directory");
}

void TestPrograms::refusals()
{
    QFETCH(QString, words);
    QFETCH(int, status);
    QFETCH(QString, sentence);
    const Result result = host(words);
    QCOMPARE(result.status, status);
    QCOMPARE(result.out, QString());
    QCOMPARE(result.err.count(QLatin1Char('\n')), 1);
    QVERIFY2(result.err.contains(sentence), qPrintable(result.err));
}

void TestPrograms::withoutBluetooth_data()
{
    QTest::addColumn<QString>("preparation");
    QTest::addColumn<QString>("sentence");
    const QString none = u"No Bluetooth adapter can be used: there is none, or the Bluetooth "
                         "service does not run."_s;
    QTest::newRow("no adapter") << u"$LIGHTS ctl adapter remove"_s << none;
    QTest::newRow("adapter off") << u"$LIGHTS ctl adapter off"_s
                                 << u"The Bluetooth adapter is switched off."_s;
    QTest::newRow("no service") << u"$LIGHTS ctl daemon kill"_s << none;
    QTest::newRow("no bus") << u"export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere"_s << none;
    QTest::newRow("no simulation")
            << u"unset CORVELKX_LIGHTS; export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/no"_s
            << none + QLatin1String(" Try --simulate for virtual lights.");
}

void TestPrograms::withoutBluetooth()
{
    QFETCH(QString, preparation);
    QFETCH(QString, sentence);
    for (const char *command : { "scan", "demo", "connect C0:FF:EE:00:00:01" }) {
        const Result result = script(preparation + QLatin1String("; $HOST ")
                                     + QLatin1String(command) + QLatin1String("; echo status $?"));
        QCOMPARE(result.err, QLatin1String("corvelkx-host: ") + sentence + QLatin1Char('\n'));
        QVERIFY2(result.out.endsWith(QLatin1String("status 1\n")), qPrintable(result.out));
    }
}

void TestPrograms::frozenService()
{
    const Result result = script(u"kill -STOP $PPID; $HOST --for 1 scan; echo status $?; "
                                 "kill -CONT $PPID"_s);
    QCOMPARE(result.out, u"0 lights were found.\nstatus 1\n"_s);
    QCOMPARE(result.err, u"corvelkx-host: The Bluetooth service does not answer.\n"_s);
}

void TestPrograms::scanPrintsEachLightOnce()
{
    const Result result = host(u"--simulate --for 1 scan"_s);
    QCOMPARE(result.status, 0);
    QCOMPARE(result.err, QString());
    QCOMPARE(result.out, u"   1  C0:FF:EE:00:00:01  Corvel light(0001)\n"
                         "   2  C0:FF:EE:00:00:02  Corvel light(0002)\n"
                         "   3  C0:FF:EE:00:00:03  Corvel light(DM41)\n"
                         "   5  C0:FF:EE:00:00:05  Corvel light(Hall)\n"
                         "   6  C0:FF:EE:00:00:06  Corvel light(0006)\n"
                         "   7  C0:FF:EE:00:00:07  Corvel light(Studio)\n"
                         " 162  C0:FF:EE:00:00:A2  Corvel light(00A2)\n"
                         " 163  C0:FF:EE:00:00:A3  Corvel light(Roof)\n"
                         "1001  C0:FF:EE:00:00:A7  Corvel J7300(00A7)\n"
                         "9 lights were found.\n"_s);
}

void TestPrograms::connectAndSend()
{
    const Result result = script(
            u"$HOST send c0:ff:ee:00:00:a3 00FF && $HOST connect C0:FF:EE:00:00:01 "
            "&& $LIGHTS ctl set C0:FF:EE:00:00:01 echo false && $HOST "
            "--answer --timeout 1 send C0:FF:EE:00:00:01 aa; echo status "
            "$?; $LIGHTS ctl written C0:FF:EE:00:00:A3 | sort; $LIGHTS "
            "ctl connected; $LIGHTS ctl set C0:FF:EE:00:00:01 connect "
            "hang; $HOST --timeout 1 connect C0:FF:EE:00:00:01; echo status $?"_s);
    QCOMPARE(result.status, 0);
    QCOMPARE(result.out, u"C0:FF:EE:00:00:A3 is ready\n"
                         "C0:FF:EE:00:00:A3 was sent 00ff\n"
                         "C0:FF:EE:00:00:A3 says 00ff\n"
                         "C0:FF:EE:00:00:A3 is gone\n"
                         "C0:FF:EE:00:00:01 is ready\n"
                         "C0:FF:EE:00:00:01 is gone\n"
                         "C0:FF:EE:00:00:01 is ready\n"
                         "C0:FF:EE:00:00:01 was sent aa\n"
                         "C0:FF:EE:00:00:01 is gone\n"
                         "status 1\n"
                         "0000fff2-0000-1000-8000-00805f9b34fb command 00ff\n"
                         "f000ffc1-0451-4000-b000-000000000000 request 5c\n"
                         "status 1\n"_s);
    QCOMPARE(result.err, u"corvelkx-host: C0:FF:EE:00:00:01 did not answer.\n"
                         "corvelkx-host: C0:FF:EE:00:00:01 did not become ready within 1 s.\n"_s);
}

void TestPrograms::listen()
{
    // The light goes in between; the host asks again by itself. A light that is ready begins to
    // listen a moment later.
    const Result result = script(u"$HOST --count 2 listen C0:FF:EE:00:00:01 | while read -r "
                                 "line; do echo \"$line\"; case $line in *ready) n=$((n + 1)); "
                                 "until $LIGHTS ctl notify C0:FF:EE:00:00:01 0$n 2>/dev/null; do "
                                 ":; done;; *01) $LIGHTS ctl "
                                 "drop C0:FF:EE:00:00:01;; esac; done"_s);
    QCOMPARE(result.out, u"C0:FF:EE:00:00:01 is ready\n"
                         "C0:FF:EE:00:00:01 says 01\n"
                         "C0:FF:EE:00:00:01 is gone\n"
                         "C0:FF:EE:00:00:01 is ready\n"
                         "C0:FF:EE:00:00:01 says 02\n"
                         "C0:FF:EE:00:00:01 is gone\n"_s);
    QCOMPARE(result.err, QString());
}

void TestPrograms::shell()
{
    const Result result = host(u"--simulate shell"_s,
                               "# a comment\n"
                               "scan 0.5\n"
                               "connect c0:ff:ee:00:00:01 C0:FF:EE:00:00:A7\n"
                               "send C0:FF:EE:00:00:01 01\n"
                               "fly\n"
                               "wait long\n"
                               "send C0:FF:EE:00:00:01 1\n"
                               "forget C0:FF:EE:00:00:01\n"
                               "reconnect C0:FF:EE:00:00:01\n"
                               "lights");
    QCOMPARE(result.status, 1);
    QCOMPARE(result.err, u"corvelkx-host: \"fly\" is no command of the shell; try help.\n"
                         "corvelkx-host: \"long\" is not a number of seconds.\n"
                         "corvelkx-host: \"1\" is no payload; one is a row of hexadecimal pairs.\n"
                         "corvelkx-host: C0:FF:EE:00:00:01 is not known; scan for it first.\n"_s);
    QStringList lines = result.out.split(QLatin1Char('\n'));
    QCOMPARE(lines.filter(u"is ready"_s).size(), 2);
    QCOMPARE(lines.filter(u"C0:FF:EE:00:00:01 says 01"_s).size(), 1);
    QCOMPARE(lines.filter(u"is gone"_s).size(), 2);
    QCOMPARE(lines.filter(u"1001  C0:FF:EE:00:00:A7  Corvel J7300(00A7)  ready"_s).size(), 1);
}

void TestPrograms::demo()
{
    const Result result = host(u"--simulate demo"_s);
    QCOMPARE(result.err, QString());
    QCOMPARE(result.status, 0);
    for (const char *line :
         { "plugin  sigDeviceDiscovered 1001  C0:FF:EE:00:00:A7  Corvel J7300(00A7)",
           "light   C0:FF:EE:00:00:03 got f000ffc1-0451-4000-b000-000000000000 request 5c",
           "light   C0:FF:EE:00:00:02 got 0000c304-0000-1000-8000-00805f9b34fb request a502",
           "plugin  sigMessageReceived C0:FF:EE:00:00:03 a503",
           "light   C0:FF:EE:00:00:01 drops the link", "host    reconnectDevice(C0:FF:EE:00:00:01)",
           "plugin  sigMessageReceived C0:FF:EE:00:00:01 a510",
           "plugin  sigDeviceDisconnected C0:FF:EE:00:00:03" })
        QVERIFY2(result.out.contains(QLatin1String("  ") + QLatin1String(line) + QLatin1Char('\n')),
                 line);
}

void TestPrograms::single()
{
    const Result result = script(
            u"$HOST single 0102 ff && printf '01\nno\n02' | $HOST --order --for 0.1 single; "
            "echo status $?; $LIGHTS ctl written C0:FF:EE:00:00:03 | cut -d ' ' -f 2-; "
            "$LIGHTS ctl connected; $LIGHTS ctl set C0:FF:EE:00:00:03 name other; "
            "$LIGHTS ctl adapter remove; $LIGHTS ctl adapter return; "
            "$HOST --timeout 0.5 single 01; echo status $?"_s);
    QCOMPARE(result.out,
             u"the light is ready\nthe light was sent 0102\nthe light was sent ff\n"
             "the light is ready\nthe light was sent 01\nthe light was sent 02\nstatus 2\n"
             "request 0102\nrequest ff\ncommand 01\ncommand 02\nstatus 1\n"_s);
    QCOMPARE(result.err,
             u"corvelkx-single: \"no\" is no payload; one is a row of hexadecimal pairs.\n"
             "corvelkx-single: The light \"Corvel light(DM41)\" did not become ready within "
             "0.5 s.\n"_s);
}

void TestPrograms::json()
{
    const Result result = host(u"--simulate --json send C0:FF:EE:00:00:01 0102"_s);
    QCOMPARE(result.status, 0);
    QStringList events;
    const auto lines = result.out.trimmed().split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
        QCOMPARE(object.value(u"address"_s).toString(), u"C0:FF:EE:00:00:01"_s);
        events.append(object.value(u"event"_s).toString() + object.value(u"data"_s).toString());
    }
    QCOMPARE(events, QStringList({ u"ready"_s, u"sent0102"_s, u"received0102"_s, u"gone"_s }));

    const Result failed = host(u"--json connect x"_s);
    const QJsonObject object = QJsonDocument::fromJson(failed.out.toUtf8()).object();
    QCOMPARE(object.value(u"event"_s).toString(), u"error"_s);
    QVERIFY(object.value(u"message"_s).toString().contains(QLatin1String("address")));
}

void TestPrograms::interruptionLeavesNoLink_data()
{
    QTest::addColumn<QString>("connect");
    QTest::addColumn<QString>("event"); // what is waited for before the signal
    QTest::addColumn<int>("signal");
    const auto row = [](const char *title, const QString &connect, const QString &event,
                        int signal) { QTest::newRow(title) << connect << event << signal; };
    row("scanning", u"accept"_s, u"slotDeviceDiscovered"_s, SIGHUP);
    row("connecting", u"hang"_s, u"ConnectingState"_s, SIGINT);
    row("discovering", u"accept"_s, u"DiscoveringState"_s, SIGTERM);
    row("binding", u"accept"_s, u"update m_characteristicsMap"_s, SIGINT);
    row("ready", u"accept"_s, u"is ready"_s, SIGINT);
    row("ready, terminated", u"accept"_s, u"is ready"_s, SIGTERM);
}

void TestPrograms::interruptionLeavesNoLink()
{
    QFETCH(QString, connect);
    QFETCH(QString, event);
    QFETCH(int, signal);
    const Result result = script(
            u"$LIGHTS ctl set C0:FF:EE:00:00:01 connect %1; (sh -c 'echo "
            "$$; exec $HOST --log listen C0:FF:EE:00:00:01 2>&1'; echo "
            "status $?) | { read -r pid; while read -r line; do case $line "
            "in *'%2'*) [ $pid = 0 ] || kill -%3 $pid; pid=0;; status*) echo $line;; esac; done; "
            "}; $LIGHTS ctl connected; $LIGHTS ctl set C0:FF:EE:00:00:01 connect accept; "
            "$HOST connect C0:FF:EE:00:00:01"_s.arg(connect, event, QString::number(signal)));
    // What hung hangs no more, or the next host would be refused.
    QCOMPARE(result.out,
             u"status %1\nC0:FF:EE:00:00:01 is ready\nC0:FF:EE:00:00:01 is gone\n"_s.arg(128
                                                                                         + signal));
}

void TestPrograms::namesDoNotMoveTheCursor()
{
    // The service makes U+FFFD of what is no UTF-8, before it comes to the bus.
    const QStringList names { u"Corvel light %1%2%n%s"_s, u"Corvel light \u001b[2J\u009b\r\n\a\t"_s,
                              u"Corvel light "_s + QString(235, u'w'),
                              u"Corvel light \ufffd\u202e\u200b"_s };
    QJsonArray lights;
    for (const QString &name : names)
        lights.append(QJsonObject { { u"type"_s, 3 },
                                    { u"name"_s, name },
                                    { u"address"_s, u"C0:FF:EE:00:00:0%1"_s.arg(lights.size()) } });
    QTemporaryDir directory;
    QFile file(directory.filePath(u"lights.json"_s));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QJsonDocument(lights).toJson());
    file.close();

    const Result plain = script(u"$HOST --log --for 0.5 scan"_s,
                                { u"--lights"_s, file.fileName() });
    QStringList printed = names;
    printed[1] = u"Corvel light \\u001b[2J\\u009b\\u000d\\u000a\\u0007\\u0009"_s;
    printed[3] = u"Corvel light \ufffd\\u202e\\u200b"_s;
    for (qsizetype i = 0; i < printed.size(); ++i)
        QVERIFY2(plain.out.contains(u"   3  C0:FF:EE:00:00:0%1  %2\n"_s.arg(i).arg(printed.at(i))),
                 qPrintable(plain.out));
    for (const QChar c : plain.out + plain.err)
        QVERIFY(c == u'\n' || c.isPrint());

    const Result json = script(u"$HOST --json --for 0.5 scan"_s,
                               { u"--lights"_s, file.fileName() });
    QStringList told;
    const auto lines = json.out.trimmed().split(u'\n');
    for (const QString &line : lines)
        told.append(QJsonDocument::fromJson(line.toUtf8()).object().value(u"name"_s).toString());
    QCOMPARE(told.mid(0, names.size()), names);
}

void TestPrograms::describedLights()
{
    QTemporaryDir directory;
    QFile file(directory.filePath(u"lights.json"_s));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[ { \"type\": 162, \"address\": \"0A:00:00:00:00:01\", \"layout\": \"a002\" },\n"
               "  { \"manufacturer\": \"3c050000a70000\", \"address\": \"0A:00:00:00:00:02\",\n"
               "    \"name\": \"any\", \"latency\": 20 } ]\n");
    file.close();
    const Result result = host(
            u"--lights %1 connect 0A:00:00:00:00:01 0A:00:00:00:00:02"_s.arg(file.fileName()));
    QCOMPARE(result.err, QString());
    QCOMPARE(result.out.split(QLatin1Char('\n')).filter(u"is ready"_s).size(), 2);

    const Result crowd =
            script(u"$HOST --for 2 scan | tail -n 1; $LIGHTS ctl add '{\"address\": "
                   "\"0A:00:00:00:00:01\", \"type\": 1}'; $LIGHTS ctl lights | wc -l"_s,
                   { u"--crowd"_s, u"100"_s });
    QCOMPARE(crowd.out, u"100 lights were found.\n101\n"_s);
}

void TestPrograms::nonsenseLights_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("reason");
    const auto row = [](const char *text, const char *reason) {
        QTest::newRow(QByteArray(text).simplified())
                << QByteArray(text) << QString::fromLatin1(reason);
    };
    row("", ":1: illegal value");
    row("[\n{\n\"type\": 1,,\n} ]", ":3: ");
    row("{}", ":1: a light file is a list of lights");
    row("[]", ":1: a light file is a list of lights");
    row("[ 7 ]", ":1: a light is an object");
    row("\n[ {\n\"type\": 1 } ]", ":2: \"address\" is missing");
    row("[ { \"address\": \"0a:00:00:00:00:01\" } ]", ":1: \"address\" must be six ");
    row("[ {\n\"latency\": 1,\n\"type\": 4 } ]", ":3: \"type\" must be one of 1, 2, 3, 5, ");
    row("[ { \"colour\": 4 } ]", ":1: there is no key \"colour\"; the keys are address, ");
    row("[ { \"latency\": -1 } ]", ":1: \"latency\" must be a number of milliseconds");
    row("[ { \"manufacturer\": \"3\" } ]", ":1: \"manufacturer\" must be hexadecimal pairs");
    row("[ { \"address\": \"0A:00:00:00:00:01\", \"name\": \"],[{\\\"\" },\n\n"
        "{ \"address\": \"0A:00:00:00:00:01\" } ]",
        ":3: 0A:00:00:00:00:01 is there twice");
}

void TestPrograms::nonsenseLights()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, reason);
    QTemporaryDir directory;
    QFile file(directory.filePath(u"lights.json"_s));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(text);
    file.close();
    const Result result = run(QString::fromLatin1(lightsFile),
                              { u"--lights"_s, file.fileName(), u"--"_s, u"true"_s });
    QCOMPARE(result.status, 2);
    QVERIFY2(result.err.startsWith(QLatin1String("corvelkx-lights: ") + file.fileName() + reason),
             qPrintable(result.err));
}

void TestPrograms::lightsLeaveNothingBehind()
{
    QCOMPARE(script(u"exit 7"_s).status, 7);
    QCOMPARE(script(u"kill -TERM $$"_s).status, 128 + SIGTERM);
    QCOMPARE(run(QString::fromLatin1(lightsFile), { u"--"_s, u"/no"_s }).status, 127);

    for (const int signal : { SIGINT, SIGTERM, SIGKILL }) {
        // The command tells where the bus is, and holds on, and so does a child of it.
        QProcess process;
        process.start(QString::fromLatin1(lightsFile),
                      { u"--"_s, u"sh"_s, u"-c"_s,
                        u"sleep 600 & echo $DBUS_SYSTEM_BUS_ADDRESS $$ $!; wait"_s });
        QVERIFY(process.waitForReadyRead(limit));
        const QStringList words = QString::fromLatin1(process.readLine()).simplified().split(u' ');
        const QString socket = words.value(0).section(u'=', 1).section(u',', 0, 0);
        QVERIFY(QFile::exists(socket));
        QCOMPARE(words.size(), 3);
        ::kill(static_cast<pid_t>(process.processId()), signal);
        QVERIFY(process.waitForFinished(limit));
        // What a killed program leaves is cleared away by others, a moment later.
        const auto isGone = [&] {
            return !QFile::exists(socket) && !QFile::exists(QFileInfo(socket).path())
                   && !isAlive(words.at(1)) && !isAlive(words.at(2));
        };
        QVERIFY(waitFor(isGone, lookInterval));
    }
}

void TestPrograms::killedHostLeavesNothingBehind()
{
    // At any moment, from before the bus is there until a light talks.
    for (const char *moment : { "", "slotDeviceDiscovered", "ConnectingState", "is ready" }) {
        QTemporaryDir directory;
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"TMPDIR"_s, directory.path());
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(QString::fromLatin1(hostFile),
                      { u"--simulate"_s, u"--log"_s, u"listen"_s, u"C0:FF:EE:00:00:01"_s });
        QVERIFY(process.waitForStarted(limit));
        QByteArray said;
        while (!said.contains(moment) && process.waitForReadyRead(limit))
            said += process.readAll();
        QVERIFY(said.contains(moment));
        process.kill();
        QVERIFY(process.waitForFinished(limit));
        QVERIFY(waitFor(
                [&] {
                    return QDir(directory.path()).isEmpty() && !isNamedByAProcess(directory.path());
                },
                lookInterval));
    }
}

QTEST_GUILESS_MAIN(TestPrograms)
#include "tst_programs.moc"
