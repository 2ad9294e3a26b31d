#pragma once

#include <QDebug>
#include <QLoggingCategory>

/*!
    The default category, for qCDebug(): the same lines under the same category as qDebug() writes,
    but nothing is formatted while the host has the category's debug output switched off.
*/
inline const QLoggingCategory &defaultLog()
{
    return *QLoggingCategory::defaultCategory();
}
