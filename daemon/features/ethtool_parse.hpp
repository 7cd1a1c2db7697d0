#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

// Reading the module data that `ethtool -m PORT` prints ("Name : value" lines).
namespace ethtool {

using properties = std::unordered_map<std::string, std::string>;

// Splits each line at its first ":" into a name and a value, both trimmed; lines without ":"
// are skipped and a later line with the same name replaces the earlier value.
properties parse_module_info(std::string_view text);

// The number in a property text such as "0.5000 mW / -3.01 dBm" (unit "dBm": -3.01) or
// "45.00 degrees C / 113.00 degrees F" (unit "degrees C": 45.00): the part between the slash and
// the unit when the unit follows the slash, else the part before the unit. dh_error -22
// "illformed" when the text has no "/" or no unit; the decimal conversion's own exceptions pass.
double parse_number(const std::string& text, std::string_view unit);

// The module description "form, transceiver, wavelength, length, connector", e.g.
// "SFP, 10G Base-LR, 1310nm, 10km, LC". `property` returns a property's text (or throws). The
// form is "SFP28" when the part number or the transceiver type says "SFP28" or the transceiver
// type names a 25G code, otherwise the Identifier's name in parentheses ("0x03 (SFP)" -> "SFP").
// The transceiver type is the part after its last ": " and the connector the Connector's name
// in parentheses.
std::string compose_description(const std::function<std::string(const std::string&)>& property);

}  // namespace ethtool
