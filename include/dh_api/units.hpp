#pragma once

// Units of numeric values, as a node's description ("unit") gives them to clients. A margin is a
// difference of temperatures, so it has the unit of a temperature.
namespace dh::api::units {

inline constexpr const char* dbm = "dBm";
inline constexpr const char* celsius = "°C";

}  // namespace dh::api::units
