#pragma once

#include "BLEManager.h"
#include "TestSupport.h"

#include <QByteArray>
#include <QString>

/*!
    Hands the manager advertisements made from arbitrary bytes and checks what it reports. For the
    fuzzer and for random bytes; needs a QCoreApplication.
*/
class AdvertisementCheck
{
public:
    AdvertisementCheck();
    Q_DISABLE_COPY_MOVE(AdvertisementCheck)

    /*! Makes two advertisements from \a bytes; returns what is wrong, or an empty text. */
    QString run(const QByteArray &bytes);

private:
    struct Discovery
    {
        int type;
        QString address;
        QString name;
    };

    QString receive(const QBluetoothDeviceInfo &device);

    LogRecorder m_log;
    BLEManager m_manager;
    QList<Discovery> m_discoveries;
};
