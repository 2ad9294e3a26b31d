#pragma once

#include "CorvelKXLightModel.h"

#include <QHash>

#include <array>

/*!
    The lights, with the messages of the last minute of each. The model compares the counts of the
    lights once a second, so a single message costs nothing. It then also updates remaining times.
*/
class LightsModel : public CorvelKX::LightModel
{
    Q_OBJECT

public:
    enum ExtraColumn { Rate = ReceivedCount + 1, LastMinute, ColumnCount };
    enum ExtraRole { FilterRole = SortRole + 1 }; //!< what a filter looks at, for any column
    struct Messages
    {
        quint64 sent = 0;
        quint64 received = 0;
        quint64 both() const { return sent + received; }
    };
    using Minute = std::array<Messages, 60>; //!< by seconds, the oldest one first

    explicit LightsModel(CorvelKX::Host *host, QObject *parent = nullptr);

    Minute minute(const CorvelKX::Light *light) const { return m_samples.value(light).second; }

    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

signals:
    /*! A second is over. */
    void sampled();

private:
    void sample();

    QHash<const CorvelKX::Light *, std::pair<Messages, Minute>> m_samples; //!< with the last counts
    QTimer m_timer;
};
