#pragma once

#include <QAbstractTableModel>
#include <QList>
#include <QSet>
#include <QTimer>

namespace CorvelKX {

class Host;
class Light;

/*!
    The lights of a Host as a table for item views: one row for each light, in the order of
    Host::lights(). The counts and LastSeen, which change quickly, are updated at most twenty times
    a second.

    \b Thread and \b ownership. As for any model; the Host must live longer.
    \b Failure. There is none.
*/
class LightModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    /*! The columns. */
    enum Column {
        Name,
        ProtocolType,
        Address,
        State,
        LastSeen,
        SeenCount,
        SentCount,
        ReceivedCount
    };
    /*! Roles beside those of Qt. */
    enum Role {
        LightRole = Qt::UserRole, //!< the Light *
        SortRole                  //!< the value that a column is sorted by
    };

    /*! Shows the lights of \a host. */
    explicit LightModel(Host *host, QObject *parent = nullptr);

    /*! The light in the row of \a index, or null. */
    Light *light(const QModelIndex &index) const;
    /*! The index of \a light in \a column; invalid if it is not there. */
    QModelIndex indexOf(const Light *light, int column = 0) const;

    /*! One for each light. */
    int rowCount(const QModelIndex &parent = {}) const override;
    /*! One for each Column. */
    int columnCount(const QModelIndex &parent = {}) const override;
    /*! For Qt::DisplayRole, Qt::ToolTipRole (why a light is not ready) and the roles above. */
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    /*! The titles of the columns. */
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

private:
    void addRow(Light *light);
    void removeRow(Light *light);
    void update(Light *light, Column first, Column last);
    void updateSoon(Light *light);
    QVariant value(const Light &light, int column) const;

    QList<Light *> m_lights;
    QSet<Light *> m_changed; //!< to be updated when the timer times out
    QTimer m_timer;
};

} // namespace CorvelKX
