#include "CorvelKXLightModel.h"

#include "CorvelKXHost.h"

#include <array>
#include <utility>

namespace CorvelKX {

namespace {

constexpr std::chrono::milliseconds updateInterval(50);

constexpr std::array titles {
    QT_TRANSLATE_NOOP("CorvelKX::LightModel", "Name"),
    QT_TRANSLATE_NOOP("CorvelKX::LightModel", "Type"),
    QT_TRANSLATE_NOOP("CorvelKX::LightModel", "Address"),
    QT_TRANSLATE_NOOP("CorvelKX::LightModel", "State"),
    QT_TRANSLATE_NOOP("CorvelKX::LightModel", "Last seen"),
    QT_TRANSLATE_NOOP("CorvelKX::LightModel", "Seen"),
    QT_TRANSLATE_NOOP("CorvelKX::LightModel", "Sent"),
    QT_TRANSLATE_NOOP("CorvelKX::LightModel", "Received"),
};

} // namespace

LightModel::LightModel(Host *host, QObject *parent) : QAbstractTableModel(parent)
{
    m_timer.setSingleShot(true);
    m_timer.setInterval(updateInterval);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        const auto changed = std::exchange(m_changed, {});
        for (Light *light : changed)
            update(light, LastSeen, ReceivedCount);
    });
    connect(host, &Host::lightAdded, this, &LightModel::addRow);
    connect(host, &Host::lightRemoved, this, &LightModel::removeRow);
    const auto lights = host->lights();
    for (Light *light : lights)
        addRow(light);
}

void LightModel::addRow(Light *light)
{
    const int row = int(m_lights.size());
    beginInsertRows({}, row, row);
    m_lights.append(light);
    endInsertRows();
    connect(light, &Light::nameChanged, this, [this, light] { update(light, Name, ProtocolType); });
    connect(light, &Light::stateChanged, this, [this, light] { update(light, State, State); });
    connect(light, &Light::seen, this, [this, light] { updateSoon(light); });
    connect(light, &Light::sent, this, [this, light] { updateSoon(light); });
    connect(light, &Light::messageReceived, this, [this, light] { updateSoon(light); });
}

void LightModel::removeRow(Light *light)
{
    const int row = int(m_lights.indexOf(light));
    light->disconnect(this);
    m_changed.remove(light);
    beginRemoveRows({}, row, row);
    m_lights.removeAt(row);
    endRemoveRows();
}

void LightModel::update(Light *light, Column first, Column last)
{
    emit dataChanged(indexOf(light, first), indexOf(light, last));
}

void LightModel::updateSoon(Light *light)
{
    m_changed.insert(light);
    if (!m_timer.isActive())
        m_timer.start();
}

Light *LightModel::light(const QModelIndex &index) const
{
    return m_lights.value(index.row());
}

QModelIndex LightModel::indexOf(const Light *light, int column) const
{
    return index(int(m_lights.indexOf(light)), column);
}

int LightModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_lights.size());
}

int LightModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(titles.size());
}

QVariant LightModel::value(const Light &light, int column) const
{
    switch (column) {
    case Name:
        return light.name();
    case ProtocolType:
        return light.protocolType();
    case Address:
        return light.address();
    case State:
        return light.stateString();
    case LastSeen:
        return light.lastSeen();
    case SeenCount:
        return light.seenCount();
    case SentCount:
        return light.sentCount();
    case ReceivedCount:
        return light.receivedCount();
    default:
        return {};
    }
}

QVariant LightModel::data(const QModelIndex &index, int role) const
{
    Light *shown = light(index);
    if (!index.isValid() || !shown)
        return {};
    switch (role) {
    case LightRole:
        return QVariant::fromValue(shown);
    case SortRole:
        return value(*shown, index.column());
    case Qt::ToolTipRole:
        return index.column() == State ? shown->reasonString() : QVariant();
    case Qt::DisplayRole: {
        QVariant shownValue = value(*shown, index.column());
        if (index.column() == LastSeen)
            return shownValue.toDateTime().time().toString(QStringLiteral("HH:mm:ss"));
        if (index.column() == ProtocolType && shownValue == 0)
            return {};
        return shownValue;
    }
    default:
        return {};
    }
}

QVariant LightModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole || section < 0
        || section >= int(titles.size()))
        return {};
    return tr(titles.at(std::size_t(section)));
}

} // namespace CorvelKX
