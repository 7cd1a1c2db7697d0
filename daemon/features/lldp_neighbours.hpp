#pragma once

#include <map>
#include <string>

#include "dh_types.hpp"

// Reading `lldpctl -f json`: the device-wide neighbour array and its split by local port.
namespace lldp_neighbours {

// The value at "/lldp/interface" as an array: an array as it is, an object as a one-element
// array, nothing as an empty array. Throws dh_error -22 "Invalid json response: " + output when
// the output is not JSON or holds another type there.
dh::Document interfaces(const std::string& output);

// Each element of the interface array is an object whose first member is named after a local
// port and describes the neighbour seen on it. Returns, per port name, the array of those member
// values in array order (two neighbours on one port give a two-element array).
std::map<std::string, dh::Document, std::less<>> by_port(const dh::Value& interfaces);

}  // namespace lldp_neighbours
