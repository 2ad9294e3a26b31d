#pragma once

#include <QAbstractTableModel>
#include <QList>
#include <QTimer>

#include <array>

namespace CorvelKX {
class Host;
}

/*!
    What happened, a row for each message, command, signal and error; the last 10,000 are kept.
    Rows are added in batches, at most twenty times a second.
*/
class LogModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Column { Time, Address, Direction, Hex, Text, ColumnCount };
    enum Role { FilterRole = Qt::UserRole, ExportRole }; //!< ExportRole gives a time with its date
    enum class Kind { Command, Sent, Received, Signal, Error, Debug };
    Q_ENUM(Kind)
    static constexpr int limit = 10000;

    explicit LogModel(CorvelKX::Host *host, QObject *parent = nullptr);

    void append(Kind kind, const QString &address, const QString &text,
                const QByteArray &data = {});
    /*! While paused, new rows are kept but not shown. */
    void setPaused(bool paused);
    /*! Whether the debug log of the plugin is shown; while it is not, it costs nothing. */
    void setDebugLogShown(bool shown);
    void clear();
    /*! How many rows are kept back by the pause. */
    int waitingCount() const { return int(m_waiting.size()); }

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

signals:
    void countsChanged();

private:
    using Row = std::array<QString, ColumnCount>;

    void flush();

    QList<Row> m_rows;
    QList<Row> m_waiting;
    QTimer m_timer;
    bool m_isPaused = false;
};
