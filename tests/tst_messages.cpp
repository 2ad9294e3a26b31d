#include "ManagerTest.h"

#include <QtEndian>

using Qt::StringLiterals::operator""_s;

class TestMessages : public ManagerTest
{
    Q_OBJECT

private slots:
    void notifications();
    void notificationsDuringTearDown();
    void payloads();
    void anyCharacteristicOfTheMainService();
    void writeModes_data();
    void writeModes();
    void lightsThatAreNotReady();
    void authenticationMessage();

private:
    QList<QByteArray> receivedFrom(const QString &address) const;
};

QList<QByteArray> TestMessages::receivedFrom(const QString &address) const
{
    QList<QByteArray> all;
    for (const QVariantList &message : std::as_const(*m_received)) {
        if (message.at(0) == address)
            all.append(message.at(1).toByteArray());
    }
    return all;
}

void TestMessages::notifications()
{
    connectLight(secured);
    connectLight(plain);
    // Sizes up to the longest value of a characteristic; empty ones are dropped.
    QList<QByteArray> expected;
    for (const int size : { 0, 1, 512, 0, 2 }) {
        QByteArray value(size, '\0');
        for (int i = 0; i < size; ++i)
            value[i] = static_cast<char>(i * 7);
        m_lights.command(u"notify"_s, { QString(secured), QString::fromLatin1(value.toHex()) });
        if (size > 0)
            expected.append(value);
    }
    constexpr qsizetype count = 10000;
    for (const QLatin1String address : { secured, plain })
        m_lights.command(u"burst"_s, { QString(address), int(count), 20, 0 });
    const auto sizes = expected.size();
    QVERIFY(waitFor([&] { return m_received->size() == sizes + 2 * count; }));
    QCOMPARE(receivedFrom(secured).mid(0, sizes), expected);
    for (const QLatin1String address : { secured, plain }) {
        const auto numbered = receivedFrom(address).mid(address == secured ? sizes : 0);
        QCOMPARE(numbered.size(), count);
        for (qsizetype i = 0; i < count; ++i)
            QCOMPARE(qFromBigEndian<quint32>(numbered.at(i).constData()), quint32(i));
    }
    QCOMPARE(m_log->linesWith(u"Received data:"_s).size(), m_received->size());
}

void TestMessages::notificationsDuringTearDown()
{
    connectLight(secured);
    m_lights.command(u"burst"_s, { QString(secured), 10000, 20, 0 });
    QVERIFY(waitFor([this] { return m_received->size() >= 100; }));
    m_manager->removeDevice(secured);
    QVERIFY(waitFor([this] { return !m_disconnected->isEmpty(); }));
    const auto received = m_received->size();
    m_manager->sendMessage(secured, "x");
    findLights(); // gives late notifications time to arrive
    QCOMPARE(m_received->size(), received);
}

void TestMessages::payloads()
{
    connectLight(secured); // written without response
    connectLight(plain);   // written with response
    QList<QByteArray> sent;
    for (const int size : { 0, 1, 512, 4096, 0 })
        sent.append(QByteArray(size, '\xE7'));
    for (int i = 0; i < 200; ++i)
        sent.append(QByteArray::number(i));
    for (const QByteArray &data : std::as_const(sent)) {
        m_manager->sendMessage(secured, data);
        m_manager->sendMessage(plain, data);
    }
    QStringList commands;
    QStringList requests;
    for (const QByteArray &data : std::as_const(sent)) {
        commands.append(u"command "_s + QLatin1String(data.toHex()));
        requests.append(u"request "_s + QLatin1String(data.toHex()));
    }
    sent.removeAll({});
    QVERIFY(waitFor([&] { return m_received->size() == 2 * sent.size(); }));
    QCOMPARE(m_lights.payloads(secured).mid(2), commands);
    QCOMPARE(m_lights.payloads(plain).mid(1), requests);
    for (const QLatin1String address : { secured, plain })
        QCOMPARE(receivedFrom(address), sent);
}

void TestMessages::anyCharacteristicOfTheMainService()
{
    connectLight(secured);
    for (const char *prefix : { "f000ffc0", "0000fff0" }) {
        const auto characteristics = service(prefix)->characteristics();
        for (const QLowEnergyCharacteristic &characteristic : characteristics)
            emit service(prefix)->characteristicChanged(characteristic, "n");
    }
    // Notifications of the authentication service are not passed on.
    QCOMPARE(m_received->size(), 2);
    compareTrace(m_log->take(), u"notifications.trace"_s);
}

void TestMessages::writeModes_data()
{
    QTest::addColumn<QString>("flags");
    QTest::addColumn<QString>("mode"); // empty: nothing is written
    QTest::newRow("without response") << u"[\"write-without-response\"]"_s << u"command"_s;
    QTest::newRow("with response") << u"[\"write\"]"_s << u"request"_s;
    QTest::newRow("both") << u"[\"write\", \"write-without-response\"]"_s << u"command"_s;
    QTest::newRow("neither") << u"[\"indicate\"]"_s << QString();
}

void TestMessages::writeModes()
{
    QFETCH(QString, flags);
    QFETCH(QString, mode);
    m_lights.set(secured, u"writeFlags"_s, flags);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] {
        return !m_connected->isEmpty() && !m_log->linesWith(u"checkAndSendAuthMsg"_s).isEmpty();
    }));
    m_manager->sendMessage(secured, "x");
    QStringList expected;
    if (!mode.isEmpty())
        expected = { mode + u" 5c"_s, mode + u" 78"_s };
    QVERIFY(waitFor([&] { return m_lights.payloads(secured).size() == expected.size(); }));
    QCOMPARE(m_lights.payloads(secured), expected);
    QCOMPARE(m_log->linesWith(u"sendMessage]"_s).size(), mode.isEmpty() ? 0 : 1);
    QCOMPARE(m_log->linesWith(u"sendAuthMessage]"_s).size(), mode.isEmpty() ? 0 : 1);
}

void TestMessages::lightsThatAreNotReady()
{
    const auto sendInSilence = [this](const QString &address) {
        m_log->take();
        m_manager->sendMessage(address, "x");
        QCOMPARE(m_log->take(), QStringList());
    };
    sendInSilence(u"11:22:33:44:55:66"_s);
    sendInSilence(secured);
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"slotDiscoveryFinished"_s).isEmpty(); }));
    sendInSilence(secured); // the service is discovered, its characteristics are not
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"descriptorWritten"_s).isEmpty(); }));
    sendInSilence(QString(secured).toLower());

    m_lights.command(u"vanish"_s, { QString(secured) });
    QVERIFY(waitFor([this] { return m_log->linesWith(u"InvalidService"_s).size() == 2; }));
    m_manager->sendMessage(secured, "x");
    QCOMPARE(m_log->take().constLast(),
             u"[BLEManager::sendMessage] characteristic faild. mac address: "
             "\"C0:FF:EE:00:00:03\""_s);
    m_lights.command(u"drop"_s, { QString(secured) });
    QVERIFY(waitFor([this] { return !m_disconnected->isEmpty(); }));
    sendInSilence(secured);
}

void TestMessages::authenticationMessage()
{
    const auto send = [this](const QByteArray &data) {
        QVERIFY(QMetaObject::invokeMethod(m_manager.get(), "sendAuthMessage",
                                          Q_ARG(QString, secured), Q_ARG(QByteArray, data)));
    };
    send("x");
    m_manager->connectToDevice(secured);
    QVERIFY(waitFor([this] { return !m_log->linesWith(u"slotDiscoveryFinished"_s).isEmpty(); }));
    send("x");
    QVERIFY(waitFor(
            [this] { return !m_log->linesWith(u"sendAuthMessage] macAddr:"_s).isEmpty(); }));
    send(QByteArray::fromHex("00ff"));
    QVERIFY(waitFor([this] { return m_lights.payloads(secured).size() == 2; }));
    QCOMPARE(m_lights.payloads(secured), QStringList({ u"request 5c"_s, u"request 00ff"_s }));
    m_lights.command(u"vanish"_s, { QString(secured) });
    QVERIFY(waitFor([this] { return m_log->linesWith(u"InvalidService"_s).size() == 2; }));
    send("x");
    m_lights.command(u"drop"_s, { QString(secured) });
    QVERIFY(waitFor([this] { return !m_disconnected->isEmpty(); }));
    send("x"); // the entries of the link are gone
    compareTrace(m_log->linesWith(u"sendAuthMessage]"_s), u"authentication.trace"_s);
}

QTEST_GUILESS_MAIN(TestMessages)
#include "tst_messages.moc"
