#pragma once

#include "ui_LogView.h"

#include <QSortFilterProxyModel>

class LogModel;

/*! The log with its filters, and commands to clear, copy and export it. Call setLog() first. */
class LogView : public QWidget
{
    Q_OBJECT

public:
    explicit LogView(QWidget *parent = nullptr);

    void setLog(LogModel *model);
    /*! Adds the light \a address to the lights by which the log can be filtered. */
    void addLight(const QString &address);
    /*! Copies the selected lines, or all that are shown, as text. */
    void copy() const;
    /*! Asks for a file name and writes the rows that are shown, as CSV or as text. */
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
