// corvelkx-air ADDRESS...: simulates one Low Energy controller for each address. They are the
// kernel's adapters hci0, hci1, ... while this program runs, and receive each other. Prints what
// they transmit, and reads commands from its standard input, one a line:
//     range ADDRESS in|out          moves the controller into or out of range of the others
//     advertising ADDRESS on|off    lets it advertise, or makes it refuse to
#include <QCoreApplication>
#include <QDateTime>
#include <QHash>
#include <QMap>
#include <QQueue>
#include <QSet>
#include <QSocketNotifier>
#include <QTimer>
#include <QtEndian>

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <vector>

namespace {

// Names and values of the Bluetooth standard.
enum PacketType : char {
    CommandPacket = 1,
    DataPacket = 2,
    EventPacket = 4,
    VendorPacket = '\xFF'
};
enum EventCode : char {
    DisconnectionComplete = 0x05,
    ReadRemoteVersionComplete = 0x0C,
    CommandComplete = 0x0E,
    CommandStatus = 0x0F,
    CompletedPackets = 0x13,
    LowEnergyEvent = 0x3E
};
enum LowEnergyEventCode : char {
    ConnectionComplete = 0x01,
    AdvertisingReport = 0x02,
    ConnectionUpdateComplete = 0x03,
    ReadRemoteFeaturesComplete = 0x04
};
enum Command {
    Disconnect = 0x0406,
    ReadRemoteVersion = 0x041D,
    Reset = 0x0C03,
    ReadLocalVersion = 0x1001,
    ReadLocalCommands = 0x1002,
    ReadLocalFeatures = 0x1003,
    ReadAddress = 0x1009,
    ReadBufferSize = 0x2002,
    ReadLowEnergyFeatures = 0x2003,
    SetAdvertisingParameters = 0x2006,
    ReadTransmitPower = 0x2007,
    SetAdvertisingData = 0x2008,
    SetScanResponseData = 0x2009,
    SetAdvertisingEnable = 0x200A,
    SetScanParameters = 0x200B,
    SetScanEnable = 0x200C,
    CreateConnection = 0x200D,
    CreateConnectionCancel = 0x200E,
    ReadAcceptListSize = 0x200F,
    ConnectionUpdate = 0x2013,
    ReadRemoteFeatures = 0x2016,
    ReadSupportedStates = 0x201C
};
enum Status : char {
    Success = 0,
    UnknownConnection = 0x02,
    ConnectionTimeout = 0x08,
    EndedByRemote = 0x13,
    EndedByLocalHost = 0x16,
    InvalidParameters = 0x12
};

constexpr int packetsPerEvent = 4;
constexpr int attributeChannel = 4;

QByteArray number(int value)
{
    return QByteArray(1, char(value)) + char(value >> 8);
}

int numberAt(const QByteArray &bytes, qsizetype place)
{
    return place + 2 <= bytes.size() ? qFromLittleEndian<quint16>(bytes.constData() + place) : 0;
}

struct Controller
{
    QString name;
    QByteArray address; // least significant byte first, as it is sent
    int file = -1;
    char signal = 0; // dBm
    bool isInRange = true;
    bool mayAdvertise = true;

    bool isScanning = false;
    bool isScanActive = false;
    bool dropsDuplicates = false;
    QSet<QByteArray> reported;
    QByteArray wanted; // the address that it shall connect to
    QByteArray wantedTiming;

    QTimer advertising;
    QByteArray advertisement;
    QByteArray scanResponse;

    void send(PacketType type, const QByteArray &bytes) const
    {
        const QByteArray packet = char(type) + bytes;
        if (file >= 0 && write(file, packet.constData(), std::size_t(packet.size())) < 0)
            std::perror("corvelkx-air");
    }
    void tell(EventCode code, const QByteArray &bytes) const
    {
        send(EventPacket, QByteArray(1, code) + char(bytes.size()) + bytes);
    }
    void tell(LowEnergyEventCode code, const QByteArray &bytes) const
    {
        tell(LowEnergyEvent, code + bytes);
    }
};

struct Link : QObject
{
    Controller *ends[2] = {}; // central and peripheral
    QByteArray handle;
    QByteArray timing;            // interval, latency, supervision time-out
    QQueue<QByteArray> queues[2]; // from the central and from the peripheral
    QTimer event;

    bool isInRange() const { return ends[0]->isInRange && ends[1]->isInRange; }
};

class Air : public QObject
{
public:
    void add(const QString &address);
    void command(const QStringList &words);

private:
    void setInRange(Controller *controller, bool isInRange);
    void read(Controller *controller);
    void onCommand(Controller *controller, int command, const QByteArray &parameters);
    QByteArray carryOut(Controller *controller, int command, const QByteArray &parameters);
    void onLinkCommand(Controller *controller, int command, const QByteArray &parameters);
    void onData(Controller *controller, const QByteArray &packet);
    void advertise(Controller *advertiser);
    void connectEnds(Controller *central, Controller *peripheral);
    void carry(Link *link);
    void end(Link *link, Status atCentral, Status atPeripheral);
    void log(const QString &text);

    std::vector<std::unique_ptr<Controller>> m_controllers;
    QMap<int, Link *> m_links; // by handle
};

void Air::log(const QString &text)
{
    const QString time = QDateTime::currentDateTime().toString(QStringLiteral("hh:mm:ss.zzz "));
    std::puts(qPrintable(time + text));
    std::fflush(stdout);
}

void Air::add(const QString &address)
{
    auto controller = std::make_unique<Controller>();
    controller->name = address;
    controller->address = QByteArray::fromHex(address.toLatin1());
    std::reverse(controller->address.begin(), controller->address.end());
    controller->signal = char(-50 - 5 * int(m_controllers.size()));
    controller->advertising.callOnTimeout(this, [this, c = controller.get()] { advertise(c); });
    controller->file = open("/dev/vhci", O_RDWR | O_CLOEXEC);
    if (controller->file < 0) {
        std::fputs("corvelkx-air: /dev/vhci cannot be opened; is hci_vhci loaded?\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    controller->send(VendorPacket, QByteArray(1, '\0'));
    auto *notifier = new QSocketNotifier(controller->file, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this, c = controller.get()] { read(c); });
    m_controllers.push_back(std::move(controller));
}

void Air::setInRange(Controller *controller, bool isInRange)
{
    controller->isInRange = isInRange;
    for (Link *link : std::as_const(m_links)) {
        carry(link);
        QTimer::singleShot(10 * numberAt(link->timing, 4), link, [=] {
            if (!link->isInRange())
                end(link, ConnectionTimeout, ConnectionTimeout);
        });
    }
}

void Air::command(const QStringList &words)
{
    for (const auto &each : m_controllers) {
        Controller *controller = each.get();
        if (controller->name != words.value(1))
            continue;
        const bool isOn = words.value(2) == QLatin1String("in")
                          || words.value(2) == QLatin1String("on");
        if (words.value(0) == QLatin1String("range"))
            setInRange(controller, isOn);
        else if (words.value(0) == QLatin1String("advertising"))
            controller->mayAdvertise = isOn;
    }
    log(words.join(QLatin1Char(' ')));
}

void Air::read(Controller *controller)
{
    char bytes[2048];
    const auto size = ::read(controller->file, bytes, sizeof(bytes));
    const QByteArray packet(bytes + 1, qMax<qsizetype>(0, size - 1));
    if (size > 1 && bytes[0] == CommandPacket)
        onCommand(controller, numberAt(packet, 0), packet.mid(3));
    else if (size > 1 && bytes[0] == DataPacket)
        onData(controller, packet);
}

void Air::onCommand(Controller *controller, int command, const QByteArray &parameters)
{
    const bool isOfLink = command == Disconnect || command == ReadRemoteVersion
                          || command == CreateConnection || command == ConnectionUpdate
                          || command == ReadRemoteFeatures;
    if (isOfLink) {
        controller->tell(CommandStatus, QByteArray(1, Success) + char(1) + number(command));
        onLinkCommand(controller, command, parameters);
        return;
    }
    const QByteArray result = carryOut(controller, command, parameters);
    controller->tell(CommandComplete, char(1) + number(command) + result);
    if (command == CreateConnectionCancel && !std::exchange(controller->wanted, {}).isEmpty())
        controller->tell(ConnectionComplete,
                         QByteArray(1, UnknownConnection) + QByteArray(17, '\0'));
}

// Returns the return parameters: the status, and what was read.
QByteArray Air::carryOut(Controller *controller, int command, const QByteArray &parameters)
{
    const char first = parameters.isEmpty() ? '\0' : parameters.front();
    switch (command) {
    case Reset: {
        controller->isScanning = false;
        controller->wanted.clear();
        controller->advertising.stop();
        const auto links = m_links;
        for (Link *link : links) {
            if (link->ends[0] == controller || link->ends[1] == controller)
                end(link, ConnectionTimeout, ConnectionTimeout);
        }
        break;
    }
    case ReadLocalVersion: // 4.2
        return QByteArray::fromHex("00080000"
                                   "08f1050000");
    case ReadLocalCommands: {
        QByteArray commands(64, '\0');
        const QMap<int, int> octets { { 0, 0x20 },  { 2, 0x80 },  { 5, 0xC0 },
                                      { 14, 0x28 }, { 15, 0x02 }, { 25, 0xF7 },
                                      { 26, 0xFF }, { 27, 0x3F }, { 28, 0x08 } };
        for (auto octet = octets.begin(); octet != octets.end(); ++octet)
            commands[octet.key()] = char(octet.value());
        return char(Success) + commands;
    }
    case ReadLocalFeatures: // Low Energy alone
        return QByteArray::fromHex("00"
                                   "0000000060000000");
    case ReadAddress:
        return char(Success) + controller->address;
    case ReadBufferSize: // 8 packets of 251 bytes
        return QByteArray::fromHex("00"
                                   "fb0008");
    case ReadLowEnergyFeatures:
        return QByteArray(9, '\0');
    case ReadSupportedStates:
        return QByteArray::fromHex("00"
                                   "ffffffffff030000");
    case ReadTransmitPower:
        return QByteArray(2, '\0');
    case ReadAcceptListSize:
        return QByteArray::fromHex("0010");
    case SetAdvertisingParameters:
        if (!controller->mayAdvertise)
            return QByteArray(1, InvalidParameters);
        // Lights advertise more often than BlueZ does by default, and its rate lets scans miss
        // them.
        controller->advertising.setInterval(qMin(100, numberAt(parameters, 0) * 5 / 8));
        break;
    case SetAdvertisingData:
        controller->advertisement = parameters.mid(1, first);
        break;
    case SetScanResponseData:
        controller->scanResponse = parameters.mid(1, first);
        break;
    case SetAdvertisingEnable:
        first ? controller->advertising.start() : controller->advertising.stop();
        break;
    case SetScanParameters:
        controller->isScanActive = first;
        break;
    case SetScanEnable:
        controller->isScanning = first;
        controller->dropsDuplicates = parameters.endsWith('\1');
        controller->reported.clear();
        break;
    }
    return QByteArray(1, Success);
}

void Air::onLinkCommand(Controller *controller, int command, const QByteArray &parameters)
{
    if (command == CreateConnection) {
        controller->wanted = parameters.mid(6, 6);
        controller->wantedTiming = parameters.mid(15, 6);
        return;
    }
    Link *link = m_links.value(numberAt(parameters, 0));
    if (!link)
        return;
    const QByteArray answer = char(Success) + link->handle;
    switch (command) {
    case Disconnect:
        if (link->ends[0] == controller)
            end(link, EndedByLocalHost, EndedByRemote);
        else
            end(link, EndedByRemote, EndedByLocalHost);
        break;
    case ReadRemoteVersion:
        controller->tell(ReadRemoteVersionComplete, answer + QByteArray::fromHex("08f1050000"));
        break;
    case ReadRemoteFeatures:
        controller->tell(ReadRemoteFeaturesComplete, answer + QByteArray(8, '\0'));
        break;
    case ConnectionUpdate:
        link->timing = parameters.mid(4, 6);
        for (Controller *each : link->ends)
            each->tell(ConnectionUpdateComplete, answer + link->timing);
        break;
    }
}

void Air::advertise(Controller *advertiser)
{
    const auto report = [advertiser](Controller *to, char type, const QByteArray &data) {
        const QByteArray content = type + QByteArray(1, '\0') + advertiser->address
                                   + char(data.size()) + data;
        if (to->dropsDuplicates && to->reported.contains(content))
            return;
        to->reported.insert(content);
        to->tell(AdvertisingReport, char(1) + content + advertiser->signal);
    };
    for (const auto &each : m_controllers) {
        Controller *other = each.get();
        if (other == advertiser || !other->isInRange || !advertiser->isInRange)
            continue;
        if (other->isScanning)
            report(other, 0, advertiser->advertisement);
        if (other->isScanning && other->isScanActive)
            report(other, 4, advertiser->scanResponse);
        if (other->wanted == advertiser->address)
            return connectEnds(other, advertiser);
    }
}

void Air::connectEnds(Controller *central, Controller *peripheral)
{
    auto *link = new Link;
    link->ends[0] = central;
    link->ends[1] = peripheral;
    link->handle = number(m_links.isEmpty() ? 1 : m_links.lastKey() + 1);
    link->timing = central->wantedTiming;
    m_links.insert(numberAt(link->handle, 0), link);
    link->event.callOnTimeout(link, [=] { carry(link); });
    central->wanted.clear();
    peripheral->advertising.stop();
    for (const int role : { 0, 1 }) {
        link->ends[role]->tell(ConnectionComplete, char(Success) + link->handle + char(role) + '\0'
                                                           + link->ends[1 - role]->address
                                                           + link->timing + '\0');
    }
    log(QStringLiteral("%1 and %2 are connected").arg(central->name, peripheral->name));
}

void Air::end(Link *link, Status atCentral, Status atPeripheral)
{
    m_links.remove(numberAt(link->handle, 0));
    link->ends[0]->tell(DisconnectionComplete, char(Success) + link->handle + char(atCentral));
    link->ends[1]->tell(DisconnectionComplete, char(Success) + link->handle + char(atPeripheral));
    log(QStringLiteral("%1 and %2 are disconnected (%3)")
                .arg(link->ends[0]->name, link->ends[1]->name)
                .arg(int(atCentral), 2, 16, QLatin1Char('0')));
    link->deleteLater();
}

void Air::onData(Controller *controller, const QByteArray &packet)
{
    constexpr int flags = 0x3000;
    Link *link = m_links.value(numberAt(packet, 0) & ~flags & 0xFFF);
    if (!link)
        return;
    const int from = link->ends[0] == controller ? 0 : 1;
    const bool isBeginning = (numberAt(packet, 0) & flags) == 0;
    if (isBeginning && numberAt(packet, 6) == attributeChannel)
        log(QStringLiteral("%1 to %2: %3")
                    .arg(controller->name, link->ends[1 - from]->name,
                         QString::fromLatin1(packet.mid(8).toHex(' '))));
    // The flag of a first fragment differs: 00 from host to controller, 10 from controller to host.
    QByteArray marked = packet;
    if (isBeginning)
        marked[1] = char(marked[1] | 0x20);
    link->queues[from].enqueue(marked);
    if (!link->event.isActive())
        link->event.start(numberAt(link->timing, 0) * 5 / 4);
}

// A connection event: in each interval a few packets are sent in each direction.
void Air::carry(Link *link)
{
    if (!link->isInRange())
        return;
    for (const int from : { 0, 1 }) {
        for (int n = 0; n < packetsPerEvent && !link->queues[from].isEmpty(); ++n) {
            link->ends[1 - from]->send(DataPacket, link->queues[from].dequeue());
            link->ends[from]->tell(CompletedPackets, char(1) + link->handle + number(1));
        }
    }
    if (link->queues[0].isEmpty() && link->queues[1].isEmpty())
        link->event.stop();
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    Air air;
    const QStringList addresses = QCoreApplication::arguments().mid(1);
    for (const QString &address : addresses)
        air.add(address);
    QSocketNotifier commands(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray typed;
    QObject::connect(&commands, &QSocketNotifier::activated, &air, [&] {
        char bytes[256];
        const auto size = read(STDIN_FILENO, bytes, sizeof(bytes));
        commands.setEnabled(size > 0);
        typed.append(bytes, qMax<qsizetype>(0, size));
        for (auto end = typed.indexOf('\n'); end >= 0; end = typed.indexOf('\n')) {
            air.command(QString::fromLatin1(typed.left(end)).split(QLatin1Char(' ')));
            typed.remove(0, end + 1);
        }
    });
    return QCoreApplication::exec();
}
