#include "AdvertisementCheck.h"

#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

using Qt::StringLiterals::operator""_s;

// What the manager makes of an advertisement. BlueZ never hides an address, so the tests call the
// manager's slot directly.
class TestRecognition : public QObject
{
    Q_OBJECT

private slots:
    void advertisement_data();
    void advertisement();
    void severalValues();
    void log();
    void randomAdvertisements();

private:
    static constexpr QLatin1String address { "C0:FF:EE:00:E5:F6" };
    static constexpr QLatin1String hidden { "00:00:00:00:00:00" };

    static QList<QVariantList> receive(const QString &from, const QString &name,
                                       const QList<QByteArray> &values);
};

QList<QVariantList> TestRecognition::receive(const QString &from, const QString &name,
                                             const QList<QByteArray> &values)
{
    QBluetoothDeviceInfo device(QBluetoothAddress(from), name, 0);
    for (const QByteArray &value : values)
        device.setManufacturerData(quint16(values.indexOf(value)), QByteArray::fromHex(value));
    BLEManager manager;
    QSignalSpy discovered(&manager, &BLEManager::sigDeviceDiscovered);
    QMetaObject::invokeMethod(&manager, "slotDeviceDiscovered",
                              Q_ARG(QBluetoothDeviceInfo, device));
    return discovered.mid(0);
}

void TestRecognition::advertisement_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QVariantList>("expected"); // empty: no light

    const auto light = [](const char *title, const QString &name, const QByteArray &value, int type,
                          const QString &shown = u"Corvel light(E5F6)"_s) {
        QTest::newRow(title) << QString(address) << name << value
                             << QVariantList { type, QString(address), shown };
    };
    for (const int code : { 1, 2, 3, 5, 6, 7 })
        light(qPrintable(u"type %1"_s.arg(code)), {},
              "3c0100000" + QByteArray::number(code) + "0000", code);
    light("type 162", {}, "3c030000a20000", 162);
    light("type 163", {}, "3c030000a30000", 163);
    light("type 1001", u"x"_s, "3c050000a70000", 1001, u"Corvel J7300(E5F6)"_s);
    light("long", {}, "3c01ffff05ffffffffffffffffff", 5);
    light("own name", u"Corvel lightning"_s, "3c010000030000", 3, u"Corvel lightning"_s);
    light("own name with place markers", u"Corvel light %1%2%s\033[2J"_s, "3c010000030000", 3,
          u"Corvel light %1%2%s\033[2J"_s);
    light("name in other case", u"corvel light(DM41)"_s, "3c010000030000", 3);
    light("other name with a place marker", u"Lamp %1"_s, "3c030000a20000", 162);
    light("1001 has no name of its own", u"Corvel light(J)"_s, "3c050000a70000", 1001,
          u"Corvel J7300(E5F6)"_s);
    light("the reported address wins", {}, "3c0100000300112233445566", 3);

    const auto foreign = [](const QByteArray &value, const QString &from = address) {
        QTest::newRow(value + " is no light") << from << QString() << value << QVariantList();
    };
    for (const char *code : { "00", "04", "08", "a2", "a7", "ff" })
        foreign(QByteArray("3c010000") + code + "0000");
    for (const char *value : { "3c050000a60000", "3c030000a40000", "3c030000030000",
                               "3c020000030000", "003c0100000300", "", "3c0100000500" })
        foreign(value);
    foreign("3c0100000300000000000000", hidden);

    const auto derived = [](const QByteArray &value, int type, const QString &from,
                            const QString &shown) {
        QTest::newRow(value + " hidden")
                << QString(hidden) << QString() << value << QVariantList { type, from, shown };
    };
    derived("3c0100000300a1b2c3d4e5f6", 3, u"A1:B2:C3:D4:E5:F6"_s, u"Corvel light(E5F6)"_s);
    derived("3c050000a700a1b2c3d4e5f6", 1001, u"A1:B2:C3:D4:E5:F6"_s, u"Corvel J7300(E5F6)"_s);
    derived("3c030000a200f6e5d4c3b2a1", 162, u"A1:B2:C3:D4:E5:F6"_s, u"Corvel light(E5F6)"_s);
    derived("3c030000a300f6e5d4c3b2a1", 163, u"A1:B2:C3:D4:E5:F6"_s, u"Corvel light(E5F6)"_s);
    derived("3c010000030a0b", 3, u"01:00:00:03:0A:0B"_s, u"Corvel light(0A0B)"_s);
}

void TestRecognition::advertisement()
{
    QFETCH(QString, from);
    QFETCH(QString, name);
    QFETCH(QByteArray, value);
    QFETCH(QVariantList, expected);
    const auto discoveries = receive(from, name,
                                     value.isEmpty() ? QList<QByteArray>()
                                                     : QList<QByteArray> { value });
    QCOMPARE(discoveries.size(), expected.isEmpty() ? 0 : 1);
    QCOMPARE(discoveries.value(0), expected);
}

void TestRecognition::severalValues()
{
    // The last match decides, in the order of QMultiHash::values(), which is not fixed.
    const QList<QByteArray> values { "3c010000030000", "3c050000a70000", "3c010000040000",
                                     "aabbccddeeff00" };
    QMultiHash<quint16, QByteArray> order;
    for (const QByteArray &value : values)
        order.insert(quint16(values.indexOf(value)), value);
    int expected = 0;
    for (const QByteArray &value : order.values()) {
        if (values.indexOf(value) < 2)
            expected = values.indexOf(value) == 0 ? 3 : 1001;
    }
    QCOMPARE(receive(address, {}, values).value(0).value(0).toInt(), expected);
    // The address comes from the first value of at least six bytes.
    QCOMPARE(receive(hidden, {}, { "3c0100", "3c0100000300a1b2c3d4e5f6" }).value(0).value(1),
             u"A1:B2:C3:D4:E5:F6"_s);
}

void TestRecognition::log()
{
    LogRecorder log;
    receive(address, u"Corvel light(Hall)"_s, { "3c010000030000" });
    receive(address, u"Scale"_s, { "1002" });
    receive(hidden, {}, { "3c0100000300000000000000" });
    compareTrace(log.take(), u"recognition.trace"_s);
}

void TestRecognition::randomAdvertisements()
{
    QRandomGenerator random(randomSeed());
    AdvertisementCheck check;
    for (int round = 0; round < 5000; ++round) {
        QByteArray bytes(random.bounded(600), '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(random.generate());
        const QString wrong = check.run(bytes);
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong + u": "_s + QLatin1String(bytes.toHex())));
    }
}

QTEST_GUILESS_MAIN(TestRecognition)
#include "tst_recognition.moc"
