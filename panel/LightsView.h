#pragma once

#include <QSortFilterProxyModel>
#include <QTableView>

namespace CorvelKX {
class Light;
}
class LightsModel;

/*!
    The table of the lights. It is sorted by a click on a column and never by itself, so that no row
    moves under the mouse; what is new comes at the end. setLights() comes first.
*/
class LightsView : public QTableView
{
    Q_OBJECT

public:
    using QTableView::QTableView;

    void setLights(LightsModel *model);
    QList<CorvelKX::Light *> selectedLights() const;
    /*! Shows the lights whose type, address or name contain \a text. */
    void setFilter(const QString &text);

signals:
    void selectedLightsChanged();

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QSortFilterProxyModel m_proxy;
};
