#include "LightsModel.h"

#include "CorvelKXHost.h"
#include "Text.h"

#include <algorithm>
#include <numeric>

using CorvelKX::Light;
using Qt::StringLiterals::operator""_s;

namespace {

// The state, with the seconds until its time limit.
QString stateText(const Light &light)
{
    const qint64 left = light.remainingTime();
    if (left >= 0)
        return u"%1, %2 s"_s.arg(light.stateString()).arg((left + 999) / 1000);
    return light.isReady() && light.keepsConnected() ? LightsModel::tr("ready, kept connected")
                                                     : light.stateString();
}

// One shape for each state, in the order of the enumeration, so that states do not need colours.
QChar stateShape(const Light &light)
{
    const bool isLost = light.state() == Light::State::Seen
                        && light.reason() == Light::Reason::LinkLost;
    return isLost ? u'✕' : QStringView(u"–○◐●↻––").at(int(light.state()));
}

} // namespace

LightsModel::LightsModel(CorvelKX::Host *host, QObject *parent) : LightModel(host, parent)
{
    connect(host, &CorvelKX::Host::lightRemoved, this,
            [this](const Light *light) { m_samples.remove(light); });
    connect(&m_timer, &QTimer::timeout, this, &LightsModel::sample);
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.start(std::chrono::seconds(1));
}

void LightsModel::sample()
{
    for (int row = 0; row < rowCount(); ++row) {
        const Light *shown = light(index(row, 0));
        auto &[before, seconds] = m_samples[shown];
        const Messages now { shown->sentCount(), shown->receivedCount() };
        std::rotate(seconds.begin(), seconds.begin() + 1, seconds.end());
        seconds.back() = { now.sent - before.sent, now.received - before.received };
        before = now;
    }
    if (rowCount() > 0)
        emit dataChanged(index(0, State), index(rowCount() - 1, LastMinute));
    emit sampled();
}

int LightsModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(ColumnCount);
}

QVariant LightsModel::data(const QModelIndex &index, int role) const
{
    const Light *shown = light(index);
    const int column = index.column();
    if (!shown || role == LightRole)
        return LightModel::data(index, role);
    const bool isShown = role == Qt::DisplayRole || role == Qt::AccessibleTextRole;
    if (role == FilterRole)
        return u"%1\n%2\n%3"_s.arg(QString::number(shown->protocolType()), shown->address(),
                                   shown->name());
    if (role == Qt::TextAlignmentRole)
        return headerData(column, Qt::Horizontal, role);
    if (column == State && isShown)
        return (role == Qt::DisplayRole ? stateShape(*shown) + u"  "_s : QString())
               + stateText(*shown);
    if (column == Name && isShown)
        return printable(shown->name());
    if (column == Rate && (isShown || role == SortRole))
        return minute(shown).back().both();
    if (column == LastMinute && (role == Qt::AccessibleTextRole || role == SortRole)) {
        const Minute all = minute(shown);
        return std::accumulate(all.cbegin(), all.cend(), quint64(0),
                               [](quint64 sum, const Messages &m) { return sum + m.both(); });
    }
    return LightModel::data(index, role);
}

QVariant LightsModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    const bool isNumber = section == ProtocolType || (section >= SeenCount && section <= Rate);
    if (role == Qt::TextAlignmentRole)
        return int(Qt::AlignVCenter | (isNumber ? Qt::AlignRight : Qt::AlignLeft));
    if (role == Qt::DisplayRole && section >= Rate)
        return section == Rate ? tr("Rate/s") : tr("Last minute");
    if (role == Qt::DisplayRole && section == SeenCount)
        return tr("Announced");
    return LightModel::headerData(section, orientation, role);
}
