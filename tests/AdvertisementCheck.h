#pragma once

#include "BLEManager.h"
#include "TestSupport.h"

#include <QByteArray>
#include <QString>

/*!
    Hands the manager whatever bytes from nearby can make up, and says what it did wrong. For a
    fuzzer and for random bytes; needs a QCoreApplication.
*/
class AdvertisementCheck
{
public:
    AdvertisementCheck();
    Q_DISABLE_COPY_MOVE(AdvertisementCheck)

    /*! Has \a bytes received as two advertisements; returns what is wrong, or nothing. */
    QString run(const QByteArray &bytes);

private:
    struct Sighting
    {
        int type;
        QString address;
        QString name;
    };

    QString receive(const QBluetoothDeviceInfo &device);

    LogRecorder m_log;
    BLEManager m_manager;
    QList<Sighting> m_sightings;
};
