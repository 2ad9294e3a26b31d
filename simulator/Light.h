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

/*! One GATT service; what is written to it may come back from its notifying characteristic. */
struct GattService
{
    QString uuid;
    QList<GattCharacteristic> characteristics;
};

/*!
    What a virtual light is and how it behaves: the keys of a light file, and of the order "set".
*/
struct Light
{
    enum class Connect { Accept, Refuse, Hang, Abort, Away };

    QString address;
    QString name;
    quint16 company = 0xFFFF;
    int type = -1; //!< -1: the manufacturer bytes stand for themselves
    QByteArray manufacturer;
    QString layout = QStringLiteral("fff0");
    bool authentication = false;
    bool authenticationFirst = false; //!< before the other services, where the order matters
    bool advertising = true;
    bool echo = true;
    int latency = 0;         //!< ms from Connect to the link
    int disconnectDelay = 0; //!< ms from Disconnect to the end of the link
    Connect connect = Connect::Accept;
    bool resolve = true;
    bool refuseReads = false;
    bool refuseWrites = false;
    QStringList omit;       //!< UUID prefixes of services, characteristics and descriptors left out
    QStringList writeFlags; //!< in place of the layout's own, where not empty

    /*! Applies \a settings; returns what is wrong with them, or nothing. */
    QString apply(const QJsonObject &settings);
    /*! Applies one setting; returns what is wrong with it, or nothing. */
    QString set(const QString &key, const QJsonValue &value);

    /*! What the light is called by those that see it. */
    QString alias() const;
    /*! The value that the light advertises: its own bytes, or those that its type asks for. */
    QByteArray advertisedData() const;
    /*! The services that the light has, less what it omits. */
    QList<GattService> services() const;
};

/*! One light of each type, and devices that a host must ignore. */
QList<Light> defaultLights();
/*! \a count lights, of all the types in turn. */
QList<Light> crowdOfLights(int count);
/*!
    Reads the light file \a fileName; on failure returns nothing and puts one sentence into
    \a error.
*/
QList<Light> lightsFromFile(const QString &fileName, QString *error);
/*! Reads a light from "key=value,key=value"; on failure puts one sentence into \a error. */
Light lightFromText(const QString &text, QString *error);
/*! The bytes that \a text spells in hexadecimal pairs, or nothing where it spells none. */
std::optional<QByteArray> bytesFromHex(const QString &text);
/*! The JSON value that \a text stands for; text that is no JSON is a string. */
QJsonValue jsonValueFromText(const QString &text);
