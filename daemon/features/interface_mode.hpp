#pragma once

#include <optional>
#include <string_view>

#include "ospf.hpp"

// How an internal interface (one of RDM_INTERFACES) is used, read from a configuration document.
// Management traffic is bridged: the port is a member of the management bridge "br0". The
// management tunnel is routed with OSPF, either on the port itself or on its VLAN 8
// sub-interface ("e5.8" for "e5").
namespace interface_mode {

inline constexpr std::string_view tunnel_only = "tunnelOnly";
inline constexpr std::string_view mgmt_only = "mgmtOnly";
inline constexpr std::string_view mgmt_and_tunnel = "mgmtAndTunnel";
inline constexpr std::string_view management_bridge = "br0";
inline constexpr int tunnel_vlan = 8;

struct facts {
    bool br0 = false;      // the port is a member of the management bridge
    bool fw = false;       // IPv4 forwarding on the port
    bool fw_vlan = false;  // IPv4 forwarding on its VLAN 8 sub-interface
    // Where OSPF runs: on the VLAN 8 sub-interface when that is enabled, else nowhere for a
    // bridged port, else on the port.
    tunnel_mode_t tunnel = tunnel_mode_t::port;
};

// The facts of interface `name`; nullopt when the document has no entry of that name.
std::optional<facts> read_facts(const Document& doc, std::string_view name);

// "tunnelOnly", "mgmtOnly" or "mgmtAndTunnel"; nullopt for any other combination.
std::optional<std::string_view> mode_of(const facts& f);

std::string_view tunnel_mode_name(tunnel_mode_t mode);

}  // namespace interface_mode
