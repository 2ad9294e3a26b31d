#pragma once

#include <QDebug>
#include <QLoggingCategory>

/*!
    The default category, for qCDebug(). The output equals that of qDebug(), but nothing is
    formatted while the host has switched off the category's debug output.
*/
inline const QLoggingCategory &defaultLog()
{
    return *QLoggingCategory::defaultCategory();
}
