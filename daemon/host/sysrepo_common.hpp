#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

// Address helpers and the device's fixed interface tables. Everything here is
// constant after start-up and read without locks from any thread.
namespace sysrepo_common {

// Dotted-quad mask for a prefix length; lengths <= 0 give 0.0.0.0, >= 32 give 255.255.255.255.
std::string prefix_length_to_netmask(int prefix_length);
// Sum of the one-bits of each dot-separated field (low eight bits); contiguity is not checked.
// Throws std::invalid_argument / std::out_of_range ("stoi") on a field that is not a number.
int netmask_to_prefix_length(const std::string& netmask);
// True for a dotted-quad IPv4 address (inet_pton).
bool is_string_ipaddress(const std::string& text);
// True when the text holds only digits and dots.
bool is_valid_netmask(const std::string& text);

struct tun_interface {
    std::string_view name;
    std::int32_t vlan;
};

inline constexpr std::string_view MGMT_INTERFACE = "e28";

inline constexpr std::array<std::string_view, 12> RDM_INTERFACES = {
    "e1", "e2", "e3", "e4", "e5", "e6", "e7", "e8", "e9", "e10", "e11", "e12"};
inline constexpr std::array<std::string_view, 4> SFP_INTERFACES = {"e13", "e14", "e15", "e16"};
inline constexpr std::array<std::string_view, 4> QMX2_INTERFACES = {"e17", "e18", "e19", "e20"};
inline constexpr std::array<std::string_view, 6> EXT_INTERFACES = {"e21", "e22", "e23",
                                                                   "e24", "e25", "e26"};
inline constexpr std::array<std::string_view, 2> OSPF_UPLINK_INTERFACES = {"e27", "e28"};
inline constexpr std::array<std::string_view, 28> OSPF_INTERFACES = {
    "e1",  "e2",  "e3",  "e4",  "e5",  "e6",  "e7",  "e8",  "e9",  "e10",
    "e11", "e12", "e13", "e14", "e15", "e16", "e17", "e18", "e19", "e20",
    "e21", "e22", "e23", "e24", "e25", "e26", "e27", "e28"};

// The 27 front ports followed by the management port (MGMT_INTERFACE); filled at start-up.
extern const std::array<std::string_view, 28> IETH_INTERFACES;

inline constexpr std::array<tun_interface, 32> TUN_INTERFACES = {{
    {"e1.8", 8},    {"e2.8", 8},    {"e3.8", 8},    {"e4.8", 8},    {"e5.8", 8},    {"e6.8", 8},
    {"e7.8", 8},    {"e8.8", 8},    {"e9.8", 8},    {"e10.8", 8},   {"e11.8", 8},   {"e12.8", 8},
    {"e13.8", 8},   {"e13.21", 21}, {"e13.22", 22}, {"e13.23", 23}, {"e13.24", 24}, {"e14.8", 8},
    {"e14.21", 21}, {"e14.22", 22}, {"e14.23", 23}, {"e14.24", 24}, {"e15.8", 8},   {"e15.21", 21},
    {"e15.22", 22}, {"e15.23", 23}, {"e15.24", 24}, {"e16.8", 8},   {"e16.21", 21}, {"e16.22", 22},
    {"e16.23", 23}, {"e16.24", 24},
}};

inline constexpr std::string_view MANAGEDNETCONF_MODE = "managedNetconf";
inline constexpr std::string_view MANAGEDCLI_MODE = "managedCLI";
inline constexpr std::string_view MANAGED_ILA = "managedILA";
inline constexpr std::string_view CLI_HELP_TEXT =
    "See the 'help' command for an introduction to the system";

}  // namespace sysrepo_common
