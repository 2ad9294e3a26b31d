#include "LogModel.h"

#include "CorvelKXHost.h"
#include "Text.h"

#include <QDateTime>
#include <QMetaEnum>

#include <algorithm>
#include <utility>

using CorvelKX::Host;
using CorvelKX::Light;
using Qt::StringLiterals::operator""_s;

namespace {

LogModel *debugLogReader = nullptr;
QtMessageHandler previousHandler = nullptr;

// Passes the plugin's log to the thread of the window. Never deleted, since the plugin may log
// until the process ends.
QObject *relay()
{
    static auto *object = new QObject;
    return object;
}

void relayDebugLog(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (type == QtDebugMsg && qstrcmp(context.category, "default") == 0)
        QMetaObject::invokeMethod(relay(), [message] {
            if (debugLogReader)
                debugLogReader->append(LogModel::Kind::Debug, {}, message);
        });
    previousHandler(type, context, message);
}

} // namespace

LogModel::LogModel(Host *host, QObject *parent) : QAbstractTableModel(parent)
{
    m_timer.setSingleShot(true);
    m_timer.setInterval(std::chrono::milliseconds(50));
    connect(&m_timer, &QTimer::timeout, this, &LogModel::flush);
    connect(host, &Host::lightAdded, this, [this](const Light *light) {
        append(Kind::Signal, light->address(),
               tr("seen: %1, type %2").arg(light->name()).arg(light->protocolType()));
        connect(light, &Light::sent, this, [this, light](const QByteArray &data) {
            append(Kind::Sent, light->address(), {}, data);
        });
    });
    connect(host, &Host::messageReceived, this, [this](const Light *light, const QByteArray &data) {
        append(Kind::Received, light->address(), {}, data);
    });
    connect(host, &Host::lightStateChanged, this, [this](const Light *light) {
        const bool isWrong = light->state() != Light::State::Connecting
                             && light->reason() != Light::Reason::None
                             && light->reason() != Light::Reason::Requested;
        append(isWrong ? Kind::Error : Kind::Signal, light->address(),
               light->stateString() + (isWrong ? u": "_s + light->reasonString() : QString()));
    });
    connect(host, &Host::scanFinished, this, [this] { append(Kind::Signal, {}, tr("scan over")); });
    connect(host, &Host::errorChanged, this, [this, host] {
        if (host->error() != Host::Error::NoError)
            append(Kind::Error, {}, host->errorString());
    });
}

void LogModel::append(Kind kind, const QString &address, const QString &text,
                      const QByteArray &data)
{
    QString shown = printable(text);
    for (const char byte : data)
        shown += byte >= ' ' && byte <= '~' ? QLatin1Char(byte) : QLatin1Char('.');
    m_waiting.append(
            { QDateTime::currentDateTime().toString(Qt::ISODateWithMs), address,
              QString::fromLatin1(QMetaEnum::fromType<Kind>().valueToKey(int(kind))).toLower(),
              QString::fromLatin1(data.toHex(' ')), shown });
    if (m_waiting.size() / 2 >= limit) // rarely, since removing rows is slow
        m_waiting.remove(0, limit);
    if (!m_timer.isActive())
        m_timer.start();
}

void LogModel::setPaused(bool paused)
{
    m_isPaused = paused;
    flush();
}

void LogModel::setDebugLogShown(bool shown)
{
    if (std::exchange(debugLogReader, this) != this)
        connect(this, &QObject::destroyed, relay(), [] { debugLogReader = nullptr; });
    if (!previousHandler)
        previousHandler = qInstallMessageHandler(relayDebugLog);
    enableLog(shown);
}

void LogModel::flush()
{
    if (!m_isPaused && !m_waiting.isEmpty()) {
        m_waiting.remove(0, std::max<qsizetype>(m_waiting.size() - limit, 0));
        const qsizetype excess = m_rows.size() + m_waiting.size() - limit;
        if (excess > 0) {
            beginRemoveRows({}, 0, int(excess) - 1);
            m_rows.remove(0, excess);
            endRemoveRows();
        }
        const int first = int(m_rows.size());
        beginInsertRows({}, first, first + waitingCount() - 1);
        m_rows.append(std::exchange(m_waiting, {}));
        endInsertRows();
    }
    emit countsChanged();
}

void LogModel::clear()
{
    beginResetModel();
    m_rows.clear();
    m_waiting.clear();
    endResetModel();
    emit countsChanged();
}

int LogModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

int LogModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(ColumnCount);
}

QVariant LogModel::data(const QModelIndex &index, int role) const
{
    const Row &row = m_rows.at(index.row());
    if (role == FilterRole) // the address comes first; hex matches with and without spaces
        return row[Address] + u'\n' + row[Direction] + u'\n' + row[Hex] + u'\n'
               + QString(row[Hex]).remove(u' ') + u'\n' + row[Text];
    if (role == Qt::DisplayRole && index.column() == Time)
        return row[Time].section(u'T', 1);
    if (role == Qt::DisplayRole || role == ExportRole)
        return row.at(std::size_t(index.column()));
    return {};
}

QVariant LogModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    return QStringList { tr("Time"), tr("Light"), tr("Direction"), tr("Hex"), tr("Text") }.value(
            section);
}
