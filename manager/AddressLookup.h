#pragma once

#include <QMap>
#include <QString>

#include <algorithm>
#include <optional>

/*! Returns the first address, in ascending order, under which \a objects holds \a object. */
template<typename T>
std::optional<QString> addressOf(const QMap<QString, T *> &objects, const T *object)
{
    const auto entry = std::find(objects.cbegin(), objects.cend(), object);
    if (entry == objects.cend())
        return std::nullopt;
    return entry.key();
}
