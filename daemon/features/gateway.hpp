#pragma once

#include <string>

// Refuses (dh_error -22 "Invalid gateway address: " + address, logged first) an address that is
// neither empty nor a dotted-quad IPv4 address.
void check_gateway_address(const std::string& address);
