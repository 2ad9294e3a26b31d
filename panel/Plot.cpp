#include "Plot.h"

#include "CorvelKXLight.h"
#include "Text.h"

#include <QPainter>

#include <algorithm>

using Messages = LightsModel::Messages;
using Qt::StringLiterals::operator""_s;

namespace {

// The line style differs as well as the colour, for people who do not see the colours.
QPen pen(bool isSent, const QPalette &palette)
{
    const bool isDark = palette.color(QPalette::Base).lightness() < 128;
    const QColor sent(isDark ? u"#ffb454"_s : u"#a84300"_s);
    const QColor received(isDark ? u"#7cc0ff"_s : u"#0b57d0"_s);
    return { isSent ? sent : received, 2, isSent ? Qt::DotLine : Qt::SolidLine };
}

} // namespace

void drawMinute(QPainter *painter, const QRectF &area, const LightsModel::Minute &minute,
                quint64 top, const std::function<quint64(const Messages &)> &value)
{
    quint64 most = std::max<quint64>(top, 1);
    for (const Messages &messages : minute)
        most = std::max(most, value(messages));
    QPolygonF line;
    for (const Messages &messages : minute)
        line.append({ area.left() + area.width() * double(line.size()) / double(minute.size() - 1),
                      area.bottom() - area.height() * double(value(messages)) / double(most) });
    painter->setRenderHint(QPainter::Antialiasing);
    painter->drawPolyline(line);
    painter->setRenderHint(QPainter::Antialiasing, false);
}

void Plot::setModel(const LightsModel *model)
{
    m_model = model;
    setMinimumSize(fontMetrics().height() * 20, fontMetrics().height() * 8);
    connect(model, &LightsModel::sampled, this, &Plot::refresh);
}

void Plot::setLight(CorvelKX::Light *light)
{
    m_light = light;
    refresh();
}

void Plot::refresh()
{
    const Messages last = m_model->minute(m_light).back();
    setAccessibleDescription(tr("received %1/s, sent %2/s").arg(last.received).arg(last.sent));
    update();
}

void Plot::drawText(QPainter *painter, const QRectF &area, quint64 top) const
{
    const double line = fontMetrics().height();
    const Messages last = m_model->minute(m_light).back();
    double x = area.left();
    for (const bool isSent : { false, true }) {
        painter->setPen(pen(isSent, palette()));
        painter->drawLine(QPointF(x, 2 * line), QPointF(x + 2 * line, 2 * line));
        painter->setPen(palette().color(QPalette::Text));
        painter->drawText(QPointF(x + 2.4 * line, 2 * line + fontMetrics().xHeight() / 2.0),
                          isSent ? tr("sent %1/s").arg(last.sent)
                                 : tr("received %1/s").arg(last.received));
        x += 10 * line;
    }
    painter->drawText(QPointF(area.left(), 1.2 * line), printable(m_light->name()));
    const QRectF below(area.left(), area.bottom() + 4, area.width(), line);
    painter->drawText(below, Qt::AlignLeft, tr("60 s ago"));
    painter->drawText(below, Qt::AlignRight, tr("now"));
    for (const quint64 half : { 0U, 1U, 2U }) {
        const double y = area.bottom() - area.height() * double(half) / 2;
        painter->drawText(QRectF(0, y - line / 2, area.left() - 6, line),
                          Qt::AlignRight | Qt::AlignVCenter, QString::number(top * half / 2));
        painter->fillRect(QRectF(area.left(), y, area.width(), 1),
                          palette().color(QPalette::PlaceholderText));
    }
}

void Plot::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(rect(), palette().color(QPalette::Base));
    if (!m_light) {
        painter.setPen(palette().color(QPalette::PlaceholderText));
        painter.drawText(rect(), Qt::AlignCenter, tr("Select a light to see its messages."));
        return;
    }
    const LightsModel::Minute minute = m_model->minute(m_light);
    quint64 top = 2;
    for (const Messages &messages : minute)
        top = std::max({ top, messages.sent, messages.received });
    top += top % 2; // even, because half of it is a label, too
    const double line = fontMetrics().height();
    const double left = fontMetrics().horizontalAdvance(QString::number(top)) + 14;
    const QRectF area = QRectF(rect()).adjusted(left, 3 * line, -10, -line - 8);
    drawText(&painter, area, top);
    for (const bool isSent : { false, true }) {
        painter.setPen(pen(isSent, palette()));
        drawMinute(&painter, area, minute, top,
                   [=](const Messages &m) { return isSent ? m.sent : m.received; });
    }
}
