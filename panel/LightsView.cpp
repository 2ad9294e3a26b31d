#include "LightsView.h"

#include "CorvelKXLight.h"
#include "LightsModel.h"
#include "Plot.h"

#include <QHeaderView>
#include <QPainter>
#include <QStyledItemDelegate>

#include <algorithm>

using CorvelKX::Light;
using Qt::StringLiterals::operator""_s;

namespace {

// Draws a light's messages of the last minute as a small line.
class MinuteDelegate : public QStyledItemDelegate
{
public:
    explicit MinuteDelegate(LightsModel *model) : QStyledItemDelegate(model), m_model(model) { }

    void paint(QPainter *painter, const QStyleOptionViewItem &option,
               const QModelIndex &index) const override
    {
        QStyledItemDelegate::paint(painter, option, index);
        const auto minute = m_model->minute(index.data(LightsModel::LightRole).value<Light *>());
        const bool isSelected = option.state.testFlag(QStyle::State_Selected);
        painter->setPen(
                option.palette.color(isSelected ? QPalette::HighlightedText : QPalette::Text));
        drawMinute(painter, option.rect.adjusted(4, 3, -4, -4), minute, 0,
                   &LightsModel::Messages::both);
    }

private:
    const LightsModel *m_model;
};

} // namespace

void LightsView::setLights(LightsModel *model)
{
    m_proxy.setSourceModel(model);
    m_proxy.setDynamicSortFilter(false);
    m_proxy.setSortRole(LightsModel::SortRole);
    m_proxy.setFilterRole(LightsModel::FilterRole);
    m_proxy.setFilterCaseSensitivity(Qt::CaseInsensitive);
    setModel(&m_proxy);
    setItemDelegateForColumn(LightsModel::LastMinute, new MinuteDelegate(model));
    verticalHeader()->setDefaultSectionSize(fontMetrics().height() * 3 / 2);
    QHeaderView *header = horizontalHeader();
    header->moveSection(LightsModel::ProtocolType, 0);
    header->setSortIndicatorClearable(true);
    header->setSortIndicator(-1, Qt::AscendingOrder);
    setSortingEnabled(true);
    const QStringList samples { u"Corvel light(Bedroom)"_s, u"1001"_s, u"C0:FF:EE:00:00:00"_s,
                                u"↻  ready, kept connected"_s, u"00:00:00"_s };
    const int margin = 2 * fontMetrics().averageCharWidth();
    for (int column = 0; column < LightsModel::LastMinute; ++column)
        setColumnWidth(column,
                       std::max(fontMetrics().horizontalAdvance(samples.value(column)) + margin,
                                header->sectionSizeHint(column)));
    connect(selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &LightsView::selectedLightsChanged);
}

QList<Light *> LightsView::selectedLights() const
{
    QList<Light *> lights;
    const QModelIndexList rows = selectionModel()->selectedRows();
    for (const QModelIndex &row : rows)
        lights.append(row.data(LightsModel::LightRole).value<Light *>());
    return lights;
}

void LightsView::setFilter(const QString &text)
{
    m_proxy.setFilterFixedString(text);
}

void LightsView::paintEvent(QPaintEvent *event)
{
    QTableView::paintEvent(event);
    if (m_proxy.rowCount() > 0)
        return;
    QPainter painter(viewport());
    painter.setPen(palette().color(QPalette::PlaceholderText));
    painter.drawText(viewport()->rect(), Qt::AlignCenter, tr("No light to show."));
}
