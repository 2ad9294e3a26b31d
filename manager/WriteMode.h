#pragma once

#include <QLowEnergyCharacteristic>
#include <QLowEnergyService>

#include <optional>

/*!
    Returns how a characteristic with \a properties is written: without response wherever it offers
    that, with response otherwise; nothing where it cannot be written.
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
