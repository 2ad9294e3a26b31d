#pragma once

#include <QLowEnergyCharacteristic>
#include <QLowEnergyService>

#include <optional>

/*!
    Returns the write mode for a characteristic with \a properties: without response if it supports
    that, otherwise with response; std::nullopt if it is not writable.
*/
inline std::optional<QLowEnergyService::WriteMode> writeModeFor(
        QLowEnergyCharacteristic::PropertyTypes properties)
{
    if (properties & QLowEnergyCharacteristic::WriteNoResponse)
        return QLowEnergyService::WriteWithoutResponse;
    if (properties & QLowEnergyCharacteristic::Write)
        return QLowEnergyService::WriteWithResponse;
    return std::nullopt;
}
