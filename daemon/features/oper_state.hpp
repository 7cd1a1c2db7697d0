#pragma once

#include <string>
#include <string_view>

#include "dh_types.hpp"

// The interface status texts published as data/<port>/adminStatus, linkStatus, linkMediaType and
// bridgePort, read from one entry of the operational "ietf-interfaces:interfaces" list.
struct interface_status {
    std::string admin_status;
    std::string link_status;
    std::string link_media_type;
    std::string bridge_port;
};

// Text for a value the datastore does not give.
inline constexpr std::string_view unknown_text = "unknown";
// bridgePort of a port that belongs to no bridge.
inline constexpr std::string_view no_bridge_text = "none";

// The entry of interface `name` in an operational ietf-interfaces document, or nullptr.
const dh::Value* find_oper_interface(const dh::Value& oper, std::string_view name);
// Status of one interface entry; nullptr (the interface is not in the datastore) gives
// "unknown" for all four.
interface_status interface_status_from(const dh::Value* entry);
// Ethernet speed (Gb/s, a decimal64 text or a number) -> "1000BaseT", "100BaseT", "10BaseT";
// other speeds as "<n>G" or "<n>M", anything unreadable as "unknown".
std::string link_media_type_from_speed(const dh::Value& speed);
