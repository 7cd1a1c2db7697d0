#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "dh_error.hpp"
#include "interface_mode.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"
#include "yang_doc.hpp"

using dh::Value;

namespace {

constexpr unsigned int no_cost = 100;
constexpr unsigned int max_metric = 255;

template <class Table>
bool in_table(const Table& table, std::string_view name) {
    return std::find(table.begin(), table.end(), name) != table.end();
}

bool is_internal(std::string_view name) {
    return in_table(sysrepo_common::RDM_INTERFACES, name);
}

// The VLAN 8 sub-interface that accompanies every internal interface.
std::string companion(std::string_view name) {
    return fmt::format("{}.{}", name, interface_mode::tunnel_vlan);
}

Value* protocol_list(Document& doc) {
    Value* list = yang_doc::path(doc, "ietf-routing:routing", "control-plane-protocols",
                                 "control-plane-protocol");
    return list && list->IsArray() ? list : nullptr;
}

std::optional<bool> ospf_enabled_in(const Value& protocols, std::string_view name) {
    const Value* iface = yang_doc::ospf_any_interface(protocols, name);
    return iface ? yang_doc::bool_of(yang_doc::member(*iface, "enabled")) : std::nullopt;
}

// The id of the first area of an OSPF entry that lists interface `name`; empty when none does.
std::string area_of(const Value& protocols, std::string_view name) {
    std::string id;
    for (const auto& entry : protocols.GetArray())
        if (yang_doc::string_is(yang_doc::member(entry, "type"), yang_doc::ospf_type))
            yang_doc::for_each_area(entry, [&](const Value& area) {
                if (id.empty() &&
                    yang_doc::find_in_list(yang_doc::path(area, "interfaces", "interface"), "name",
                                           name))
                    id = yang_doc::string_of(yang_doc::member(area, "area-id"));
            });
    return id;
}

// The table's own view of an OSPF interface name: keys of the maps keyed by string_view must
// outlive the map.
std::optional<std::string_view> ospf_key(std::string_view name) {
    for (std::string_view n : sysrepo_common::OSPF_INTERFACES)
        if (n == name) return n;
    return std::nullopt;
}

// The area whose interface list holds `name` in the generated entry.
std::string ospf_area_for(const std::string& instance_area,
                          const std::map<std::string, std::string, std::less<>>& uplinks,
                          std::string_view name) {
    if (!in_table(sysrepo_common::OSPF_UPLINK_INTERFACES, name)) return instance_area;
    auto it = uplinks.find(name);
    return it != uplinks.end() ? it->second : std::string();
}

}  // namespace

void sysrepo_device_handler::set_ospf_interface_metric(std::string_view name, unsigned int metric) {
    MSG_LOG(6, "set_ospf_interface_metric")
        << fmt::format("Begin {} {}", name, metric) << msg_log::getCodeTrace(__FILE__, __LINE__);
    std::lock_guard lock(mutex);
    if (metric > max_metric)
        throw dh_error(-34, fmt::format("OSPF interface metric is not within range ({} to {})", 0u,
                                        max_metric));
    Document doc = export_data(false);
    ospf_cost[std::string(name)] = metric;
    _set_ospf_interface_metric(doc, name, metric);
    if (is_internal(name)) {
        const std::string vlan = companion(name);
        ospf_cost[vlan] = metric;
        _set_ospf_interface_metric(doc, vlan, metric);
    }
    import_data(doc, false);
    MSG_LOG(6, "set_ospf_interface_metric")
        << fmt::format("End {} {}", name, metric) << msg_log::getCodeTrace(__FILE__, __LINE__);
}

unsigned int sysrepo_device_handler::get_ospf_interface_metric(const Document& doc,
                                                               std::string_view name) {
    std::lock_guard lock(mutex);
    const unsigned int metric = _get_ospf_interface_metric(doc, name);
    auto& stored = ospf_cost[std::string(name)];
    stored = metric;
    MSG_LOG(6, "sysrepo") << "return metric from json: " << metric
                          << msg_log::getCodeTrace(__FILE__, __LINE__);
    return stored;
}

// Called with `mutex` held. Cost 100 is the default cost and is never written.
void sysrepo_device_handler::_set_ospf_interface_metric(Document& doc, std::string_view name,
                                                        unsigned int metric) {
    Value* protocols = protocol_list(doc);
    Value* iface =
        protocols ? yang_doc::ospf_area_interface(
                        *protocols, ospf_area_for(ospf_area_id, ospf_uplink_area_id, name), name)
                  : nullptr;
    if (!iface || !iface->IsObject())
        throw dh_error(-22, fmt::format("Unable to set metric: interface {} not found.", name));
    if (metric == no_cost)
        yang_doc::remove_member(*iface, "cost");
    else
        yang_doc::set_member(*iface, "cost", Value(metric), doc.GetAllocator());
}

unsigned int sysrepo_device_handler::_get_ospf_interface_metric(const Document& doc,
                                                                std::string_view name) {
    const Value* iface = yang_doc::ospf_any_interface(get_control_plane_protocol(doc), name);
    if (!iface)
        throw dh_error(-22, fmt::format("Unable to get metric: interface {} not found.", name));
    const Value* cost = yang_doc::member(*iface, "cost");
    return cost && cost->IsUint() ? cost->GetUint() : no_cost;
}

void sysrepo_device_handler::set_ospf_interface_passive(std::string_view name, bool passive) {
    MSG_LOG(6, "set_ospf_interface_passive")
        << fmt::format("Begin {} {}", name, passive) << msg_log::getCodeTrace(__FILE__, __LINE__);
    std::lock_guard lock(mutex);
    Document doc = export_data(false);
    ospf_passive[std::string(name)] = passive;
    if (!_set_ospf_interface_passive(doc, name, passive))
        throw dh_error(
            -22,
            fmt::format("OSPF not possible to configure passive mode for interface '{}'.", name));
    if (is_internal(name)) {
        const std::string vlan = companion(name);
        ospf_passive[vlan] = passive;
        if (!_set_ospf_interface_passive(doc, vlan, passive))
            throw dh_error(
                -22, "OSPF not possible to configure passive mode for interface '" + vlan + "'.");
    }
    import_data(doc, false);
    MSG_LOG(6, "set_ospf_interface_passive")
        << fmt::format("End {} {}", name, passive) << msg_log::getCodeTrace(__FILE__, __LINE__);
}

// A value once known is answered from the model; the document is read only while the model
// holds none. Neither holding one reads as not passive.
bool sysrepo_device_handler::get_ospf_interface_passive(const Document& doc,
                                                        std::string_view name) {
    std::lock_guard lock(mutex);
    auto it = ospf_passive.find(name);
    if (it != ospf_passive.end() && it->second) return *it->second;
    const std::optional<bool> read = _get_ospf_interface_passive(doc, name);
    ospf_passive[std::string(name)] = read;
    return read.value_or(false);
}

// Called with `mutex` held.
bool sysrepo_device_handler::_set_ospf_interface_passive(Document& doc, std::string_view name,
                                                         bool passive) {
    Value* protocols = protocol_list(doc);
    Value* iface =
        protocols ? yang_doc::ospf_area_interface(
                        *protocols, ospf_area_for(ospf_area_id, ospf_uplink_area_id, name), name)
                  : nullptr;
    if (!iface || !iface->IsObject()) return false;
    yang_doc::set_member(*iface, "passive", Value(passive), doc.GetAllocator());
    return true;
}

std::optional<bool> sysrepo_device_handler::_get_ospf_interface_passive(const Document& doc,
                                                                        std::string_view name) {
    const Value* iface = yang_doc::ospf_any_interface(get_control_plane_protocol(doc), name);
    return iface ? yang_doc::bool_of(yang_doc::member(*iface, "passive")) : std::nullopt;
}

void sysrepo_device_handler::set_ospf_interface_area_id(std::string_view name, std::string& id) {
    std::lock_guard lock(mutex);
    if (!id.empty() && !sysrepo_common::is_string_ipaddress(id)) {
        const std::string message =
            fmt::format("OSPF area ID for intreface must be an IP address: \"{}\".", id);
        MSG_LOG(3, "set_ospf_interface_area_id")
            << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-22, message);
    }
    ospf_uplink_area_id[std::string(name)] = id;
    Document doc = export_data(false);
    update_ospf_status(doc);
    import_data(doc, false);
}

// The uplink area id is write-only: reading it always gives the empty text.
std::string sysrepo_device_handler::get_ospf_interface_area_id(std::string_view name) {
    return get_ospf_interface_area_id(export_data(false), name);
}

std::string sysrepo_device_handler::get_ospf_interface_area_id(const Document&, std::string_view) {
    return {};
}

void sysrepo_device_handler::set_ospf_if_adminStatus(std::string_view name,
                                                     const std::string& status) {
    auto refuse = [](const std::string& message) {
        MSG_LOG(3, "set_ospf_if_adminStatus")
            << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-22, message);
    };
    const auto key = ospf_key(name);
    if (!key) refuse(fmt::format("OSPF unknown interface: {}", name));
    if (status != "up" && status != "down")
        refuse(fmt::format("Unknown adminStatus for: {}", name));
    MSG_LOG(6, "set_ospf_if_adminStatus")
        << fmt::format("Begin {} {}", name, status) << msg_log::getCodeTrace(__FILE__, __LINE__);

    std::lock_guard lock(mutex);
    Document doc = export_data(false);
    if (is_internal(name)) {
        const auto facts = interface_mode::read_facts(doc, name);
        const tunnel_mode_t mode = facts ? facts->tunnel : tunnel_mode_t::none;
        // A port used for management only has no OSPF interface to enable.
        if (mode == tunnel_mode_t::none && status == "up")
            refuse(fmt::format("OSPF interface not found: {} {}", name,
                               facts ? interface_mode::mgmt_only : "(not configured)"));
        ospf_tunnel_mode[*key] = mode;
    }
    ospf_flag[*key] = status == "up";
    _update_ospf_tunnel_mode(*key);
    update_ospf_status(doc);
    import_data(doc, false);
    MSG_LOG(6, "set_ospf_if_adminStatus")
        << fmt::format("End {} {}", name, status) << msg_log::getCodeTrace(__FILE__, __LINE__);
}

std::string sysrepo_device_handler::get_ospf_if_adminStatus(std::string_view name) {
    return get_ospf_if_adminStatus(export_data(false), name);
}

// Reads the interface's OSPF state from a configuration into the model: its admin status (OSPF
// enabled on the port or, for an internal port, on its VLAN 8 sub-interface), where OSPF runs
// (from the interface mode), the state of the other tunnel sub-interfaces of an SFP port, and the
// area of an uplink. A configuration without an OSPF entry leaves the admin status as the model
// holds it.
std::string sysrepo_device_handler::get_ospf_if_adminStatus(const Document& doc,
                                                            std::string_view name) {
    const auto key = ospf_key(name);
    if (!key) throw dh_error(-22, fmt::format("OSPF unknown interface: {}", name));
    const Value& protocols = get_control_plane_protocol(doc);
    const bool has_ospf = yang_doc::find_in_list(&protocols, "type", yang_doc::ospf_type);

    std::lock_guard lock(mutex);
    bool& flag = ospf_flag[*key];
    if (is_internal(name)) {
        const auto facts = interface_mode::read_facts(doc, name);
        ospf_tunnel_mode[*key] = facts ? facts->tunnel : tunnel_mode_t::none;
        if (has_ospf)
            flag = ospf_enabled_in(protocols, name).value_or(false) ||
                   ospf_enabled_in(protocols, companion(name)).value_or(false);
    } else if (has_ospf) {
        flag = ospf_enabled_in(protocols, name).value_or(false);
        if (in_table(sysrepo_common::SFP_INTERFACES, name)) {
            for (const auto& tun : sysrepo_common::TUN_INTERFACES)
                if (tun.name.substr(0, tun.name.find('.')) == name)
                    if (auto enabled = ospf_enabled_in(protocols, tun.name))
                        ospf_enabled[std::string(tun.name)] = *enabled;
        }
        if (in_table(sysrepo_common::OSPF_UPLINK_INTERFACES, name))
            ospf_uplink_area_id[std::string(name)] = area_of(protocols, name);
    }
    _update_ospf_tunnel_mode(*key);
    return flag ? "up" : "down";
}

// Called with `mutex` held: makes the enabled map follow the interface's admin status and, for
// an internal port, its tunnel mode (OSPF on the port, on its VLAN 8 sub-interface, or nowhere).
void sysrepo_device_handler::_update_ospf_tunnel_mode(std::string_view name) {
    const auto key = ospf_key(name);
    if (!key) throw dh_error(-22, fmt::format("OSPF unknown interface: {}", name));
    const bool up = ospf_flag[*key];
    if (!is_internal(name)) {
        ospf_enabled[std::string(name)] = up;
        return;
    }
    const auto mode = ospf_tunnel_mode.try_emplace(*key, tunnel_mode_t::port).first->second;
    ospf_enabled[std::string(name)] = up && mode == tunnel_mode_t::port;
    ospf_enabled[companion(name)] = up && mode == tunnel_mode_t::tunnel;
}
