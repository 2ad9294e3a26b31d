#pragma once

#include "LightsModel.h"

#include <QPointer>
#include <QWidget>

#include <functional>

namespace CorvelKX {
class Light;
}

/*!
    Draws \a value of each second as a line. The top of \a area stands for \a top, or for the
    highest value if that is higher.
*/
void drawMinute(QPainter *painter, const QRectF &area, const LightsModel::Minute &minute,
                quint64 top, const std::function<quint64(const LightsModel::Messages &)> &value);

/*! Plots the messages to and from one light in each second of the last minute. */
class Plot : public QWidget
{
    Q_OBJECT

public:
    using QWidget::QWidget;

    void setModel(const LightsModel *model);
    void setLight(CorvelKX::Light *light);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void refresh();
    void drawText(QPainter *painter, const QRectF &area, quint64 top) const;

    const LightsModel *m_model = nullptr;
    QPointer<CorvelKX::Light> m_light;
};
