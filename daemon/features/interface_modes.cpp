#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "dh_error.hpp"
#include "interface_mode.hpp"
#include "interfaces.hpp"
#include "msg_log.hpp"
#include "raise.hpp"
#include "sysrepo_common.hpp"
#include "yang_doc.hpp"

using dh::Value;

namespace interface_mode {

namespace {

bool forwarding(const Value* entry) {
    return entry &&
           yang_doc::bool_of(yang_doc::path(*entry, "ietf-ip:ipv4", "forwarding")).value_or(false);
}

}  // namespace

std::optional<facts> read_facts(const Document& doc, std::string_view name) {
    const Value* port = yang_doc::interface_entry(doc, name);
    if (!port) return std::nullopt;
    const Value* vlan = yang_doc::interface_entry(doc, fmt::format("{}.{}", name, tunnel_vlan));
    facts f;
    f.br0 = yang_doc::string_is(yang_doc::path(*port, "infix-interfaces:bridge-port", "bridge"),
                                management_bridge);
    f.fw = forwarding(port);
    f.fw_vlan = forwarding(vlan);
    // "enabled" defaults to true in the interfaces model.
    const bool vlan_up =
        vlan && yang_doc::bool_of(yang_doc::member(*vlan, "enabled")).value_or(true);
    f.tunnel = vlan_up ? tunnel_mode_t::tunnel : f.br0 ? tunnel_mode_t::none : tunnel_mode_t::port;
    return f;
}

std::optional<std::string_view> mode_of(const facts& f) {
    if (!f.br0 && f.tunnel == tunnel_mode_t::port) return tunnel_only;
    if (f.br0 && f.tunnel == tunnel_mode_t::none) return mgmt_only;
    if (f.br0 && f.tunnel == tunnel_mode_t::tunnel) return mgmt_and_tunnel;
    return std::nullopt;
}

std::string_view tunnel_mode_name(tunnel_mode_t mode) {
    switch (mode) {
        case tunnel_mode_t::none:
            return "none";
        case tunnel_mode_t::tunnel:
            return "tunnel";
        case tunnel_mode_t::port:
            return "port";
    }
    return "invalid";
}

}  // namespace interface_mode

namespace {

bool is_internal(std::string_view name) {
    const auto& t = sysrepo_common::RDM_INTERFACES;
    return std::find(t.begin(), t.end(), name) != t.end();
}

[[noreturn]] void refuse(const std::string& message) {
    dh::raise(-22, message, "set_interface_mode");
}

void set_forwarding(Value& entry, bool on, dh::Allocator& a) {
    Value& ipv4 = yang_doc::object_member(entry, "ietf-ip:ipv4", a);
    yang_doc::set_member(ipv4, "forwarding", Value(on), a);
}

}  // namespace

// The mode is written to the startup configuration only: moving a port in or out of the
// management bridge while it carries the management connection would cut that connection, so
// the change takes effect at the next boot.
void interfaces_unit::set_interface_mode(std::string name, const std::string& mode) {
    using namespace interface_mode;
    if (!is_internal(name)) refuse(fmt::format("Invalid interface name: {}", name));
    if (mode != tunnel_only && mode != mgmt_only && mode != mgmt_and_tunnel)
        refuse(fmt::format("Unknown interface mode: {}", mode));
    const bool bridged = mode != tunnel_only;
    const bool tunnel = mode == mgmt_and_tunnel;
    const std::string vlan_name = fmt::format("{}.{}", name, tunnel_vlan);

    ds_.edit_startup([&](Document& doc) {
        yang_doc::require_object(doc);
        auto& a = doc.GetAllocator();
        Value* port = yang_doc::interface_entry(doc, name);
        if (!port) refuse(fmt::format("Invalid interface name: {}", name));
        Value* vlan = yang_doc::interface_entry(doc, vlan_name);
        if (!vlan) refuse(fmt::format("Invalid interface name: {}", vlan_name));

        if (bridged) {
            Value membership(rapidjson::kObjectType);
            membership.AddMember("bridge", Value(management_bridge.data(), a), a);
            yang_doc::set_member(*port, "infix-interfaces:bridge-port", std::move(membership), a);
        } else if (yang_doc::string_is(
                       yang_doc::path(*port, "infix-interfaces:bridge-port", "bridge"),
                       management_bridge)) {
            yang_doc::remove_member(*port, "infix-interfaces:bridge-port");
        }
        yang_doc::set_member(*vlan, "enabled", Value(tunnel), a);
        set_forwarding(*port, !bridged, a);
        set_forwarding(*vlan, tunnel, a);

        // The port's OSPF admin status moves with the mode to where OSPF runs in it.
        if (Value* protocols = yang_doc::path(
                doc, "ietf-routing:routing", "control-plane-protocols", "control-plane-protocol")) {
            Value* ospf_port = yang_doc::ospf_any_interface(*protocols, name);
            Value* ospf_vlan = yang_doc::ospf_any_interface(*protocols, vlan_name);
            auto enabled = [](Value* v) {
                return v && yang_doc::bool_of(yang_doc::member(*v, "enabled")).value_or(false);
            };
            const bool up = enabled(ospf_port) || enabled(ospf_vlan);
            if (ospf_port) yang_doc::set_member(*ospf_port, "enabled", Value(up && !bridged), a);
            if (ospf_vlan) yang_doc::set_member(*ospf_vlan, "enabled", Value(up && tunnel), a);
        }
    });
    MSG_LOG(6, "set_interface_mode")
        << fmt::format("Interface {} set to mode {} in the startup configuration", name, mode)
        << msg_log::getCodeTrace(__FILE__, __LINE__);
}

std::string interfaces_unit::get_interface_mode_str(std::string name) {
    return _get_interface_mode_str(ds_.export_running(), name);
}

std::string interfaces_unit::_get_interface_mode_str(const Document& doc, std::string_view name) {
    using namespace interface_mode;
    const auto f = is_internal(name) ? read_facts(doc, name) : std::nullopt;
    if (!f) throw dh_error(-22, fmt::format("Invalid interface name: {}", name));
    if (auto mode = mode_of(*f)) return std::string(*mode);
    MSG_LOG(4, "interface_mode") << fmt::format(
                                        "Unknown interface mode for {}: br0={}, fw={}, "
                                        "fw_vlan={}, ospf_tunnel_mode={}",
                                        name, f->br0, f->fw, f->fw_vlan,
                                        tunnel_mode_name(f->tunnel))
                                 << msg_log::getCodeTrace(__FILE__, __LINE__);
    return "unknown";
}
