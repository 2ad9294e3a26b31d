#include "LogView.h"

#include "LogModel.h"

#include <QClipboard>
#include <QDateTime>
#include <QFileDialog>
#include <QGuiApplication>
#include <QHeaderView>
#include <QMessageBox>
#include <QRegularExpression>
#include <QSaveFile>
#include <QScrollBar>

#include <algorithm>

using Qt::StringLiterals::operator""_s;

LogView::LogView(QWidget *parent) : QWidget(parent)
{
    m_ui.setupUi(this);
}

void LogView::setLog(LogModel *model)
{
    m_model = model;
    m_shown.setSourceModel(model);
    m_shown.setFilterRole(LogModel::FilterRole);
    m_ui.table->setModel(&m_shown);
    m_ui.table->horizontalHeader()->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    m_ui.table->verticalHeader()->setDefaultSectionSize(fontMetrics().height() * 5 / 4);
    const QStringList samples { u"00:00:00.000"_s, u"C0:FF:EE:00:00:00"_s, u"Direction"_s,
                                u"00 00 00 00 00 00 00 00"_s };
    for (int column = 0; column < samples.size(); ++column)
        m_ui.table->setColumnWidth(column, fontMetrics().horizontalAdvance(samples.at(column))
                                                   + 2 * fontMetrics().averageCharWidth());
    // Follow new lines only if the last line is visible; do not disturb who reads older ones.
    connect(&m_shown, &QAbstractItemModel::rowsAboutToBeInserted, this, [this] {
        const QScrollBar *bar = m_ui.table->verticalScrollBar();
        m_isAtEnd = bar->value() == bar->maximum();
    });
    connect(&m_shown, &QAbstractItemModel::rowsInserted, this, [this] {
        if (m_isAtEnd)
            m_ui.table->scrollToBottom();
    });
    connect(m_ui.light, &QComboBox::currentIndexChanged, this, &LogView::updateFilter);
    connect(m_ui.filter, &QLineEdit::textChanged, this, &LogView::updateFilter);
    connect(m_ui.debug, &QCheckBox::toggled, model, &LogModel::setDebugLogShown);
    connect(m_ui.pause, &QCheckBox::toggled, model, &LogModel::setPaused);
    connect(m_ui.clear, &QPushButton::clicked, model, &LogModel::clear);
    connect(m_ui.copy, &QPushButton::clicked, this, &LogView::copy);
    connect(m_ui.exportLog, &QPushButton::clicked, this, &LogView::exportLog);
    connect(model, &LogModel::countsChanged, this, &LogView::updateCounts);
}

void LogView::addLight(const QString &address)
{
    if (m_ui.light->findText(address) < 0)
        m_ui.light->addItem(address);
}

void LogView::updateFilter()
{
    const QString address = m_ui.light->currentIndex() > 0 ? m_ui.light->currentText() : QString();
    const QString text = QRegularExpression::escape(m_ui.filter->text());
    m_shown.setFilterRegularExpression(u"(?is)\\A"_s + address + u".*"_s + text);
    m_ui.table->scrollToBottom();
    updateCounts();
}

void LogView::updateCounts()
{
    QString text = tr("%L1 of %L2 lines shown; the last %L3 are kept")
                           .arg(m_shown.rowCount())
                           .arg(m_model->rowCount())
                           .arg(LogModel::limit);
    if (m_ui.pause->isChecked())
        text += tr("; paused, %L1 more wait").arg(m_model->waitingCount());
    m_ui.counts->setText(text);
}

QModelIndexList LogView::allRows() const
{
    QModelIndexList rows;
    for (int row = 0; row < m_shown.rowCount(); ++row)
        rows.append(m_shown.index(row, 0));
    return rows;
}

QString LogView::text(const QModelIndexList &rows, bool isCsv) const
{
    QString text;
    const auto addLine = [&](const std::function<QVariant(int)> &fieldOf) {
        QStringList fields;
        for (int column = 0; column < LogModel::ColumnCount; ++column) {
            const QString field = fieldOf(column).toString();
            if (isCsv)
                fields += u'"' + QString(field).replace(u'"', u"\"\""_s) + u'"';
            else if (!field.isEmpty())
                fields += field;
        }
        text += isCsv ? fields.join(u',') + u"\r\n"_s : fields.join(u"  "_s) + u'\n';
    };
    if (isCsv)
        addLine([this](int column) { return m_shown.headerData(column, Qt::Horizontal); });
    for (const QModelIndex &row : rows)
        addLine([&](int column) { return row.siblingAtColumn(column).data(LogModel::ExportRole); });
    return text;
}

void LogView::copy() const
{
    QModelIndexList rows = m_ui.table->selectionModel()->selectedRows();
    std::sort(rows.begin(), rows.end());
    QGuiApplication::clipboard()->setText(text(rows.isEmpty() ? allRows() : rows, false));
}

void LogView::exportLog()
{
    const QString now = QDateTime::currentDateTime().toString(u"yyyy-MM-dd-HHmmss"_s);
    const QString fileName = QFileDialog::getSaveFileName(this, tr("Export the log"),
                                                          u"corvelkx-log-%1.csv"_s.arg(now),
                                                          tr("Table (*.csv);;Text (*.txt)"));
    if (fileName.isEmpty())
        return;
    QSaveFile file(fileName);
    if (!file.open(QIODevice::WriteOnly)
        || file.write(text(allRows(), fileName.endsWith(u".csv"_s)).toUtf8()) < 0 || !file.commit())
        QMessageBox::warning(this, tr("Export the log"),
                             tr("%1 cannot be written: %2").arg(fileName, file.errorString()));
}
