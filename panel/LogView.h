#pragma once

#include "ui_LogView.h"

#include <QSortFilterProxyModel>

class LogModel;

/*! The log, with what finds a line in it and what takes it elsewhere. setLog() comes first. */
class LogView : public QWidget
{
    Q_OBJECT

public:
    explicit LogView(QWidget *parent = nullptr);

    void setLog(LogModel *model);
    /*! Offers the light \a address to be looked at alone. */
    void addLight(const QString &address);
    /*! Copies the selected lines, or all that are shown, as text. */
    void copy() const;
    /*! Asks for a file and writes what is shown to it, as CSV or as text. */
    void exportLog();
    void showDebugLog() { m_ui.debug->setChecked(true); }
    QLineEdit *filter() { return m_ui.filter; }

private:
    void updateFilter();
    void updateCounts();
    QString text(const QModelIndexList &rows, bool isCsv) const;
    QModelIndexList allRows() const;

    Ui::LogView m_ui {};
    LogModel *m_model = nullptr;
    QSortFilterProxyModel m_shown;
    bool m_isAtEnd = true;
};
