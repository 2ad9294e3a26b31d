#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/*! One GATT characteristic of a virtual light. */
struct GattCharacteristic
{
    QString uuid;
    QStringList flags;
    QStringList descriptors;
};

/*! One GATT service of a virtual light. */
struct GattService
{
    QString uuid;
    QList<GattCharacteristic> characteristics;
};

/*!
    The description of a virtual light: the keys of a light file and of the command "set".
*/
struct Light
{
    enum class Connect { Accept, Refuse, Hang, Abort, Away };

    QString address;
    QString name;
    quint16 company = 0xFFFF;
    int type = -1; //!< -1: unknown; the light advertises \a manufacturer as it is
    QByteArray manufacturer;
    QString layout = QStringLiteral("fff0");
    bool authentication = false;
    bool authenticationFirst = false; //!< lists that service before the others
    bool advertising = true;
    bool echo = true;
    int latency = 0;         //!< ms from Connect to the link
    int disconnectDelay = 0; //!< ms from Disconnect to the end of the link
    Connect connect = Connect::Accept;
    bool resolve = true;
    bool refuseReads = false;
    bool refuseWrites = false;
    QStringList omit;       //!< UUID prefixes of services, characteristics and descriptors to omit
    QStringList writeFlags; //!< replace the layout's own flags if not empty

    /*! Applies \a settings; returns what is wrong with them, or an empty text. */
    QString apply(const QJsonObject &settings);
    /*! Applies one setting; returns what is wrong with it, or an empty text. */
    QString set(const QString &key, const QJsonValue &value);

    /*! The name that BlueZ reports: the light's own, or its address with dashes. */
    QString alias() const;
    /*! The manufacturer data: made from the type, or the bytes of the description. */
    QByteArray advertisedData() const;
    /*! The services of the layout, without what is omitted. */
    QList<GattService> services() const;
};

/*! One light of each type, and three foreign devices that a host must ignore. */
QList<Light> defaultLights();
/*! \a count lights; their types alternate. */
QList<Light> crowdOfLights(int count);
/*!
    Reads the light file \a fileName. After a failure, the list is empty and \a error is one
    sentence.
*/
QList<Light> lightsFromFile(const QString &fileName, QString *error);
/*! Reads a light from "key=value,key=value". After a failure, \a error is one sentence. */
Light lightFromText(const QString &text, QString *error);
/*! Converts hexadecimal pairs to bytes; std::nullopt if \a text is anything else. */
std::optional<QByteArray> bytesFromHex(const QString &text);
/*! Parses \a text as a JSON value; if it is no JSON, returns it as a string. */
QJsonValue jsonValueFromText(const QString &text);
