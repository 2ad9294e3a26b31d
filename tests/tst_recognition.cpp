#include "AdvertisementCheck.h"

#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

using Qt::StringLiterals::operator""_s;

namespace {

constexpr char16_t realAddress[] = u"C0:FF:EE:00:E5:F6";
constexpr char16_t hidden[] = u"00:00:00:00:00:00";

} // namespace

// Bytes in, announcement out. Hidden addresses never come over the bus, so that the advertisements
// are handed to the manager as the scanner hands them.
class TestRecognition : public QObject
{
    Q_OBJECT

private slots:
    void advertisement_data();
    void advertisement();
    void lastMatchDecides();
    void firstSightingIsKept();
    void randomAdvertisements();

private:
    static QBluetoothDeviceInfo info(const QString &address, const QString &name,
                                     const QList<QByteArray> &values)
    {
        QBluetoothDeviceInfo device(QBluetoothAddress(address), name, 0);
        quint16 company = 1;
        for (const QByteArray &value : values)
            device.setManufacturerData(company++, value);
        return device;
    }
    static void advertise(BLEManager &manager, const QBluetoothDeviceInfo &device)
    {
        QVERIFY(QMetaObject::invokeMethod(&manager, "slotDeviceDiscovered", Qt::DirectConnection,
                                          Q_ARG(QBluetoothDeviceInfo, device)));
    }
};

void TestRecognition::advertisement_data()
{
    QTest::addColumn<QString>("reported");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("type"); // -1: ignored
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("displayed");

    const auto row = [](const char *title, const char16_t *reported, const char *name,
                        const char *hex, int type, const char *address = "C0:FF:EE:00:E5:F6",
                        const char *displayed = "Corvel light(E5F6)") {
        QTest::newRow(title) << QString::fromUtf16(reported) << QString::fromUtf8(name)
                             << QByteArray::fromHex(hex) << type << QString::fromLatin1(address)
                             << QString::fromUtf8(displayed);
    };
    const char *address = "C0:FF:EE:00:E5:F6";

    for (const int code : { 1, 2, 3, 5, 6, 7 }) {
        const QByteArray hex = QByteArray("3c010000")
                               + QByteArray::number(code).rightJustified(2, '0') + "0000";
        row(qPrintable(u"type %1"_s.arg(code)), realAddress, "", hex, code);
    }
    row("type 162", realAddress, "", "3c030000a20000", 162);
    row("type 163", realAddress, "", "3c030000a30000", 163);
    row("type 1001", realAddress, "x", "3c050000a70000", 1001, address, "Corvel J7300(E5F6)");

    for (const char *code : { "00", "04", "08", "a2", "a7", "ff" })
        row(qPrintable(u"family 1, code "_s + QLatin1String(code)), realAddress, "",
            QByteArray("3c010000") + code + "0000", -1);
    row("family 5, neighbour", realAddress, "", "3c050000a60000", -1);
    row("family 3, neighbour", realAddress, "", "3c030000a40000", -1);
    row("family 3, code of family 1", realAddress, "", "3c030000030000", -1);
    row("other family", realAddress, "", "3c020000030000", -1);
    row("marker further on", realAddress, "", "003c0100000300", -1);
    row("nothing", realAddress, "", "", -1);
    row("one byte short", realAddress, "", "3c0100000500", -1);
    row("long", realAddress, "", "3c01ffff05ffffffffffffffffff", 5);

    row("own name kept", realAddress, "Corvel light(DM41)", "3c010000030000", 3, address,
        "Corvel light(DM41)");
    row("own name begins alike", realAddress, "Corvel lightning", "3c010000030000", 3, address,
        "Corvel lightning");
    row("other case", realAddress, "corvel light(DM41)", "3c010000030000", 3);
    row("other name", realAddress, "Lamp %1 \033[2J", "3c030000a20000", 162);
    row("place markers kept", realAddress, "Corvel light %1%2%s\033[2J", "3c010000030000", 3,
        address, "Corvel light %1%2%s\033[2J");
    row("J7300 always renamed", realAddress, "Corvel light(J)", "3c050000a70000", 1001, address,
        "Corvel J7300(E5F6)");

    row("real address wins", realAddress, "", "3c0100000300112233445566", 3);
    row("hidden, as sent", hidden, "", "3c0100000300a1b2c3d4e5f6", 3, "A1:B2:C3:D4:E5:F6");
    row("hidden, 1001 as sent", hidden, "", "3c050000a700a1b2c3d4e5f6", 1001, "A1:B2:C3:D4:E5:F6",
        "Corvel J7300(E5F6)");
    row("hidden, 162 reversed", hidden, "", "3c030000a200f6e5d4c3b2a1", 162, "A1:B2:C3:D4:E5:F6");
    row("hidden, 163 reversed", hidden, "", "3c030000a300f6e5d4c3b2a1", 163, "A1:B2:C3:D4:E5:F6");
    row("hidden, shortest", hidden, "", "3c010000030a0b", 3, "01:00:00:03:0A:0B",
        "Corvel light(0A0B)");
    row("hidden, zero inside", hidden, "", "3c0100000300000000000000", -1);
}

void TestRecognition::advertisement()
{
    QFETCH(QString, reported);
    QFETCH(QString, name);
    QFETCH(QByteArray, value);
    QFETCH(int, type);
    QFETCH(QString, address);
    QFETCH(QString, displayed);

    BLEManager manager;
    QSignalSpy discovered(&manager, &BLEManager::sigDeviceDiscovered);
    const LogRecorder log;
    advertise(manager, info(reported, name,
                            value.isEmpty() ? QList<QByteArray>() : QList<QByteArray> { value }));

    const QStringList lines = log.lines();
    QVERIFY(lines.at(0).startsWith(u"[BLEManager::slotDeviceDiscovered] device name: "_s));
    QVERIFY(lines.at(0).endsWith(u"  mac addr: \"%1\"  valid: true"_s.arg(reported)));
    QVERIFY(lines.at(1).contains(u"manufactureData:  QMultiHash("_s));
    if (type == -1) {
        QVERIFY(discovered.isEmpty());
        const bool isSupported = lines.size() > 2;
        QCOMPARE(isSupported, reported == QString::fromUtf16(hidden));
        if (isSupported)
            QCOMPARE(
                    lines.last(),
                    u"[BLEManager::slotDeviceDiscovered] invalid macAddr: \"00:00:00:00:00:00\""_s);
        return;
    }
    QCOMPARE(discovered, QList<QVariantList>({ { type, address, displayed } }));
    QCOMPARE(lines.size(), 4);
    QVERIFY(lines.at(2).startsWith(u"supportedBleDevice: \""_s));
    QCOMPARE(lines.at(3),
             u"[BLEManager::slotDeviceDiscovered]  QList(1) mac addr:  \"%1\""_s.arg(address));
}

void TestRecognition::lastMatchDecides()
{
    const QList<QByteArray> values { QByteArray::fromHex("3c010000030000"),
                                     QByteArray::fromHex("3c050000a70000"),
                                     QByteArray::fromHex("3c010000040000"),
                                     QByteArray::fromHex("aabbccddeeff00") };
    const QBluetoothDeviceInfo device = info(QString::fromUtf16(realAddress), {}, values);
    // The order of the values is the container's own.
    int expected = -1;
    for (const QByteArray &value : device.manufacturerData().values()) {
        if (value == values.at(0))
            expected = 3;
        else if (value == values.at(1))
            expected = 1001;
    }
    BLEManager manager;
    QSignalSpy discovered(&manager, &BLEManager::sigDeviceDiscovered);
    advertise(manager, device);
    QCOMPARE(discovered.value(0).value(0).toInt(), expected);
}

void TestRecognition::firstSightingIsKept()
{
    BLEManager manager;
    QSignalSpy discovered(&manager, &BLEManager::sigDeviceDiscovered);
    const QString address = QString::fromUtf16(realAddress);
    for (const char *hex : { "3c010000030000", "3c050000a70000", "3c010000030000" })
        advertise(manager, info(address, u"first"_s, { QByteArray::fromHex(hex) }));

    QList<int> types;
    for (const QVariantList &announcement : discovered)
        types.append(announcement.at(0).toInt());
    QCOMPARE(types, QList<int>({ 3, 1001, 3 }));

    // Forgotten, the light is nobody's until it is seen again.
    const LogRecorder log;
    manager.removeDevice(address);
    manager.connectToDevice(address);
    QCOMPARE(log.lines(),
             QStringList(
                     { u"\"connectToDevice() error, device unsupported, mac address: %1\""_s.arg(
                             address) }));
}

void TestRecognition::randomAdvertisements()
{
    const quint32 seed = randomSeed();
    QRandomGenerator random(seed);
    AdvertisementCheck check;
    for (int round = 0; round < 5000; ++round) {
        QByteArray bytes(random.bounded(600), '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(random.generate());
        const QString wrong = check.run(bytes);
        QVERIFY2(wrong.isEmpty(),
                 qPrintable(u"%1 (seed %2, %3)"_s.arg(wrong, QString::number(seed),
                                                      QLatin1String(bytes.toHex()))));
    }
}

QTEST_GUILESS_MAIN(TestRecognition)
#include "tst_recognition.moc"
