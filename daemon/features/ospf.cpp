#include "ospf.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "interface_mode.hpp"
#include "msg_log.hpp"
#include "raise.hpp"
#include "sysrepo_common.hpp"
#include "yang_doc.hpp"

using dh::Value;

namespace {

constexpr unsigned int no_cost = 100;
constexpr unsigned int max_metric = 255;

// Members of one generated OSPF interface object that differ between interface groups.
struct iface_defaults {
    bool enabled;
    bool point_to_point;
    bool bfd;
    bool passive;
};

template <class Map>
auto model_value(const Map& map, std::string_view name) -> std::optional<bool> {
    auto it = map.find(name);
    return it != map.end() ? it->second : std::nullopt;
}

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

// The interface and, for an internal one, its VLAN 8 sub-interface: the settings that apply to
// both.
std::vector<std::string> with_companion(std::string_view name) {
    std::vector<std::string> names{std::string(name)};
    if (is_internal(name)) names.push_back(companion(name));
    return names;
}

bool is_ospf_interface(std::string_view name) {
    return in_table(sysrepo_common::OSPF_INTERFACES, name);
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

ospf_unit::ospf_unit(datastore_service& ds) : ds_(ds) {}

const Value& ospf_unit::get_control_plane_protocol(const Document& doc) {
    static const Value empty(rapidjson::kArrayType);
    const Value* list = yang_doc::path(doc, "ietf-routing:routing", "control-plane-protocols",
                                       "control-plane-protocol");
    return list && list->IsArray() ? *list : empty;
}

Value& ospf_unit::get_control_plane_protocol(Document& doc) {
    yang_doc::require_object(doc);
    auto& a = doc.GetAllocator();
    Value& routing = yang_doc::object_member(doc, "ietf-routing:routing", a);
    Value& protocols = yang_doc::object_member(routing, "control-plane-protocols", a);
    Value* list = yang_doc::member(protocols, "control-plane-protocol");
    if (!list) {
        protocols.AddMember("control-plane-protocol", Value(rapidjson::kArrayType), a);
        list = yang_doc::member(protocols, "control-plane-protocol");
    } else if (!list->IsArray()) {
        list->SetArray();
    }
    return *list;
}

void ospf_unit::ospf_init() {
    std::lock_guard lock(mutex_);
    model& m = model_;
    m.flag.clear();
    m.tunnel_mode.clear();
    m.passive.clear();
    for (std::string_view name : sysrepo_common::OSPF_INTERFACES) {
        const std::string key(name);
        m.flag[key] = false;
        m.tunnel_mode[key] = tunnel_mode_t::port;
        m.enabled[key] = false;
        m.passive[key] = std::nullopt;
        m.cost[key] = no_cost;
    }
    for (const auto& tun : sysrepo_common::TUN_INTERFACES) {
        m.enabled[std::string(tun.name)] = false;
        m.cost[std::string(tun.name)] = no_cost;
    }
    for (std::string_view name : sysrepo_common::OSPF_UPLINK_INTERFACES)
        m.uplink_area_id[std::string(name)].clear();
}

void ospf_unit::regenerate(model m) {
    ds_.edit([&](Document& doc) { update_ospf_status(doc, m); });
    datastore_service::adopt(model_, std::move(m), mutex_);
}

void ospf_unit::set_ospf_area_id(const std::string& id) {
    if (!sysrepo_common::is_string_ipaddress(id))
        dh::raise(-22, fmt::format("OSPF area id must be an IP address: \"{}\".", id),
                  "set_ospf_area_id");
    std::lock_guard lock(mutex_);
    model m = model_;
    m.area_id = id;
    regenerate(std::move(m));
}

std::string ospf_unit::get_ospf_area_id(const Document& doc) {
    const Value* ospf =
        yang_doc::find_in_list(&get_control_plane_protocol(doc), "type", yang_doc::ospf_type);
    std::string_view found;
    if (ospf) {
        const Value* areas = yang_doc::path(*ospf, "ietf-ospf:ospf", "areas", "area");
        if (areas && areas->IsArray() && !areas->Empty())
            found = yang_doc::string_of(yang_doc::member((*areas)[0], "area-id"));
    }
    std::lock_guard lock(mutex_);
    if (!found.empty()) model_.area_id = found;
    return model_.area_id;
}

void ospf_unit::set_ospf_adminStatus(const std::string& status) {
    if (status != "down" && status != "up")
        dh::raise(-22, "ospf admin status should be either 'up' or 'down' , not:" + status,
                  "set_ospf_adminStatus");
    std::lock_guard lock(mutex_);
    model m = model_;
    m.admin_up = status == "up";
    regenerate(std::move(m));
}

std::string ospf_unit::get_ospf_adminStatus(const Document& doc) {
    const bool up =
        yang_doc::find_in_list(&get_control_plane_protocol(doc), "type", yang_doc::ospf_type);
    std::lock_guard lock(mutex_);
    model_.admin_up = up;
    return up ? "up" : "down";
}

void ospf_unit::change_router_id(const std::string& id,
                                 const std::function<void(const generator&)>& write) {
    std::lock_guard lock(mutex_);
    model m = model_;
    m.router_id = id;
    write([&](Document& doc) { update_ospf_status(doc, m); });
    datastore_service::adopt(model_, std::move(m), mutex_);
}

void ospf_unit::adopt_router_id(const std::string& id) {
    std::lock_guard lock(mutex_);
    model_.router_id = id;
}

void ospf_unit::update_ospf_status(Document& doc, const model& m) {
    auto& a = doc.GetAllocator();
    Value& protocols = get_control_plane_protocol(doc);
    auto old = protocols.Begin();
    while (old != protocols.End() &&
           !yang_doc::string_is(yang_doc::member(*old, "type"), yang_doc::ospf_type))
        ++old;
    const bool found = old != protocols.End();

    if (!m.admin_up) {
        if (found) protocols.Erase(old);
        return;
    }

    auto make_iface = [&](std::string_view name, const iface_defaults& d) {
        Value iface(rapidjson::kObjectType);
        iface.AddMember("name",
                        Value(name.data(), static_cast<rapidjson::SizeType>(name.size()), a), a);
        iface.AddMember("enabled", model_value(m.enabled, name).value_or(d.enabled), a);
        if (d.point_to_point) iface.AddMember("interface-type", "point-to-point", a);
        Value bfd(rapidjson::kObjectType);
        bfd.AddMember("enabled", d.bfd, a);
        iface.AddMember("bfd", bfd, a);
        iface.AddMember("passive", model_value(m.passive, name).value_or(d.passive), a);
        auto cost = m.cost.find(name);
        if (cost != m.cost.end() && cost->second != no_cost)
            iface.AddMember("cost", cost->second, a);
        return iface;
    };

    Value main_list(rapidjson::kArrayType);
    Value lo(rapidjson::kObjectType);
    lo.AddMember("name", "lo", a);
    lo.AddMember("enabled", true, a);
    main_list.PushBack(lo, a);
    for (const auto& tun : sysrepo_common::TUN_INTERFACES)
        main_list.PushBack(make_iface(tun.name, {m.admin_up, true, true, false}), a);
    for (std::string_view name : sysrepo_common::RDM_INTERFACES)
        main_list.PushBack(make_iface(name, {false, true, true, false}), a);
    for (std::string_view name : sysrepo_common::QMX2_INTERFACES)
        main_list.PushBack(make_iface(name, {false, false, false, m.admin_up}), a);
    for (std::string_view name : sysrepo_common::EXT_INTERFACES)
        main_list.PushBack(make_iface(name, {m.admin_up, false, false, true}), a);

    auto uplink_area = [&](std::string_view name) -> std::string {
        auto it = m.uplink_area_id.find(name);
        return it != m.uplink_area_id.end() ? it->second : std::string();
    };
    const std::string e27_area = uplink_area("e27");
    const std::string e28_area = uplink_area("e28");

    auto make_area = [&](const std::string& id, Value interfaces) {
        Value area(rapidjson::kObjectType);
        area.AddMember("area-id", Value(id, a), a);
        area.AddMember("area-type", "nssa-area", a);
        Value ifaces(rapidjson::kObjectType);
        ifaces.AddMember("interface", interfaces, a);
        area.AddMember("interfaces", ifaces, a);
        return area;
    };

    Value shared_list(rapidjson::kArrayType);
    Value uplink_areas(rapidjson::kArrayType);
    bool shared = false;
    for (std::string_view name : sysrepo_common::OSPF_UPLINK_INTERFACES) {
        const std::string area_id = uplink_area(name);
        if (area_id.empty()) continue;
        Value iface = make_iface(name, {false, true, true, false});
        if (area_id == m.area_id) {
            main_list.PushBack(iface, a);
        } else if (e27_area == e28_area) {
            shared_list.PushBack(iface, a);
            shared = true;
        } else {
            Value own(rapidjson::kArrayType);
            own.PushBack(iface, a);
            uplink_areas.PushBack(make_area(area_id, std::move(own)), a);
        }
    }

    Value main_area(rapidjson::kObjectType);
    main_area.AddMember("area-id", Value(m.area_id, a), a);
    main_area.AddMember("area-type", "nssa-area", a);
    if (model_value(m.enabled, "e27").value_or(false) ||
        model_value(m.enabled, "e28").value_or(false))
        main_area.AddMember("summary", false, a);
    Value main_ifaces(rapidjson::kObjectType);
    main_ifaces.AddMember("interface", main_list, a);
    main_area.AddMember("interfaces", main_ifaces, a);

    Value area_list(rapidjson::kArrayType);
    area_list.PushBack(main_area, a);
    Value areas(rapidjson::kObjectType);
    areas.AddMember("area", area_list, a);
    if (shared) uplink_areas.PushBack(make_area(e28_area, std::move(shared_list)), a);
    // The uplink areas go into a second member named "area", as the datastore has always been
    // given them; it reads both members as one list.
    if (!uplink_areas.Empty()) areas.AddMember("area", uplink_areas, a);

    Value ospf(rapidjson::kObjectType);
    ospf.AddMember("explicit-router-id", Value(m.router_id, a), a);
    ospf.AddMember("areas", areas, a);

    Value protocol(rapidjson::kObjectType);
    protocol.AddMember("type", Value(yang_doc::ospf_type.data(), a), a);
    protocol.AddMember("name", "default", a);
    protocol.AddMember("ietf-ospf:ospf", ospf, a);

    // The entry found is replaced where it stands, so the other protocols (the static default
    // route) keep their place and content.
    if (found)
        *old = protocol;
    else
        protocols.PushBack(protocol, a);
}

void ospf_unit::set_ospf_interface_metric(std::string_view name, unsigned int metric) {
    MSG_LOG(6, "set_ospf_interface_metric")
        << fmt::format("Begin {} {}", name, metric) << msg_log::getCodeTrace(__FILE__, __LINE__);
    if (metric > max_metric)
        throw dh_error(-34, fmt::format("OSPF interface metric is not within range ({} to {})", 0u,
                                        max_metric));
    std::lock_guard lock(mutex_);
    model m = model_;
    const auto names = with_companion(name);
    for (const auto& n : names) m.cost[n] = metric;
    ds_.edit([&](Document& doc) {
        for (const auto& n : names) _set_ospf_interface_metric(doc, m, n, metric);
    });
    datastore_service::adopt(model_, std::move(m), mutex_);
    MSG_LOG(6, "set_ospf_interface_metric")
        << fmt::format("End {} {}", name, metric) << msg_log::getCodeTrace(__FILE__, __LINE__);
}

unsigned int ospf_unit::get_ospf_interface_metric(const Document& doc, std::string_view name) {
    const unsigned int metric = _get_ospf_interface_metric(doc, name);
    std::lock_guard lock(mutex_);
    model_.cost[std::string(name)] = metric;
    return metric;
}

// Cost 100 is the default cost and is never written.
void ospf_unit::_set_ospf_interface_metric(Document& doc, const model& m, std::string_view name,
                                           unsigned int metric) {
    Value* protocols = protocol_list(doc);
    Value* iface = protocols
                       ? yang_doc::ospf_area_interface(
                             *protocols, ospf_area_for(m.area_id, m.uplink_area_id, name), name)
                       : nullptr;
    if (!iface || !iface->IsObject())
        throw dh_error(-22, fmt::format("Unable to set metric: interface {} not found.", name));
    if (metric == no_cost)
        yang_doc::remove_member(*iface, "cost");
    else
        yang_doc::set_member(*iface, "cost", Value(metric), doc.GetAllocator());
}

unsigned int ospf_unit::_get_ospf_interface_metric(const Document& doc, std::string_view name) {
    const Value* iface = yang_doc::ospf_any_interface(get_control_plane_protocol(doc), name);
    if (!iface)
        throw dh_error(-22, fmt::format("Unable to get metric: interface {} not found.", name));
    const Value* cost = yang_doc::member(*iface, "cost");
    return cost && cost->IsUint() ? cost->GetUint() : no_cost;
}

void ospf_unit::set_ospf_interface_passive(std::string_view name, bool passive) {
    MSG_LOG(6, "set_ospf_interface_passive")
        << fmt::format("Begin {} {}", name, passive) << msg_log::getCodeTrace(__FILE__, __LINE__);
    std::lock_guard lock(mutex_);
    model m = model_;
    const auto names = with_companion(name);
    for (const auto& n : names) m.passive[n] = passive;
    ds_.edit([&](Document& doc) {
        for (const auto& n : names)
            if (!_set_ospf_interface_passive(doc, m, n, passive))
                throw dh_error(
                    -22, "OSPF not possible to configure passive mode for interface '" + n + "'.");
    });
    datastore_service::adopt(model_, std::move(m), mutex_);
    MSG_LOG(6, "set_ospf_interface_passive")
        << fmt::format("End {} {}", name, passive) << msg_log::getCodeTrace(__FILE__, __LINE__);
}

// A value once known is answered from the model; the document is read only while the model
// holds none. Neither holding one reads as not passive.
bool ospf_unit::get_ospf_interface_passive(const Document& doc, std::string_view name) {
    std::lock_guard lock(mutex_);
    auto it = model_.passive.find(name);
    if (it != model_.passive.end() && it->second) return *it->second;
    const std::optional<bool> read = _get_ospf_interface_passive(doc, name);
    model_.passive[std::string(name)] = read;
    return read.value_or(false);
}

bool ospf_unit::_set_ospf_interface_passive(Document& doc, const model& m, std::string_view name,
                                            bool passive) {
    Value* protocols = protocol_list(doc);
    Value* iface = protocols
                       ? yang_doc::ospf_area_interface(
                             *protocols, ospf_area_for(m.area_id, m.uplink_area_id, name), name)
                       : nullptr;
    if (!iface || !iface->IsObject()) return false;
    yang_doc::set_member(*iface, "passive", Value(passive), doc.GetAllocator());
    return true;
}

std::optional<bool> ospf_unit::_get_ospf_interface_passive(const Document& doc,
                                                           std::string_view name) {
    const Value* iface = yang_doc::ospf_any_interface(get_control_plane_protocol(doc), name);
    return iface ? yang_doc::bool_of(yang_doc::member(*iface, "passive")) : std::nullopt;
}

void ospf_unit::set_ospf_interface_area_id(std::string_view name, std::string& id) {
    if (!id.empty() && !sysrepo_common::is_string_ipaddress(id))
        dh::raise(-22, fmt::format("OSPF area ID for intreface must be an IP address: \"{}\".", id),
                  "set_ospf_interface_area_id");
    std::lock_guard lock(mutex_);
    model m = model_;
    m.uplink_area_id[std::string(name)] = id;
    regenerate(std::move(m));
}

void ospf_unit::set_ospf_if_adminStatus(std::string_view name, const std::string& status) {
    constexpr const char* channel = "set_ospf_if_adminStatus";
    if (!is_ospf_interface(name))
        dh::raise(-22, fmt::format("OSPF unknown interface: {}", name), channel);
    if (status != "up" && status != "down")
        dh::raise(-22, fmt::format("Unknown adminStatus for: {}", name), channel);
    MSG_LOG(6, channel) << fmt::format("Begin {} {}", name, status)
                        << msg_log::getCodeTrace(__FILE__, __LINE__);

    std::lock_guard lock(mutex_);
    model m = model_;
    const std::string key(name);
    // The interface's mode is read from running; a second call (startup's document, while it
    // differs) writes the entry generated from the same model.
    bool planned = false;
    ds_.edit([&](Document& doc) {
        if (std::exchange(planned, true)) return update_ospf_status(doc, m);
        if (is_internal(name)) {
            const auto facts = interface_mode::read_facts(doc, name);
            const tunnel_mode_t mode = facts ? facts->tunnel : tunnel_mode_t::none;
            // A port used for management only has no OSPF interface to enable.
            if (mode == tunnel_mode_t::none && status == "up")
                dh::raise(-22,
                          fmt::format("OSPF interface not found: {} {}", name,
                                      facts ? interface_mode::mgmt_only : "(not configured)"),
                          channel);
            m.tunnel_mode[key] = mode;
        }
        m.flag[key] = status == "up";
        _update_ospf_tunnel_mode(m, key);
        update_ospf_status(doc, m);
    });
    datastore_service::adopt(model_, std::move(m), mutex_);
    MSG_LOG(6, channel) << fmt::format("End {} {}", name, status)
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
}

// Reads the interface's OSPF state from a configuration into the model: its admin status (OSPF
// enabled on the port or, for an internal port, on its VLAN 8 sub-interface), where OSPF runs
// (from the interface mode), the state of the other tunnel sub-interfaces of an SFP port, and the
// area of an uplink. A configuration without an OSPF entry leaves the admin status as the model
// holds it.
std::string ospf_unit::get_ospf_if_adminStatus(const Document& doc, std::string_view name) {
    if (!is_ospf_interface(name))
        throw dh_error(-22, fmt::format("OSPF unknown interface: {}", name));
    const std::string key(name);
    const Value& protocols = get_control_plane_protocol(doc);
    const bool has_ospf = yang_doc::find_in_list(&protocols, "type", yang_doc::ospf_type);

    std::lock_guard lock(mutex_);
    model& m = model_;
    bool& flag = m.flag[key];
    if (is_internal(name)) {
        const auto facts = interface_mode::read_facts(doc, name);
        m.tunnel_mode[key] = facts ? facts->tunnel : tunnel_mode_t::none;
        if (has_ospf)
            flag = ospf_enabled_in(protocols, name).value_or(false) ||
                   ospf_enabled_in(protocols, companion(name)).value_or(false);
    } else if (has_ospf) {
        flag = ospf_enabled_in(protocols, name).value_or(false);
        if (in_table(sysrepo_common::SFP_INTERFACES, name)) {
            for (const auto& tun : sysrepo_common::TUN_INTERFACES)
                if (tun.name.substr(0, tun.name.find('.')) == name)
                    if (auto enabled = ospf_enabled_in(protocols, tun.name))
                        m.enabled[std::string(tun.name)] = *enabled;
        }
        if (in_table(sysrepo_common::OSPF_UPLINK_INTERFACES, name))
            m.uplink_area_id[key] = area_of(protocols, name);
    }
    _update_ospf_tunnel_mode(m, key);
    return flag ? "up" : "down";
}

// Makes the enabled map follow the interface's admin status and, for an internal port, its
// tunnel mode (OSPF on the port, on its VLAN 8 sub-interface, or nowhere).
void ospf_unit::_update_ospf_tunnel_mode(model& m, std::string_view name) {
    const bool up = m.flag[std::string(name)];
    if (!is_internal(name)) {
        m.enabled[std::string(name)] = up;
        return;
    }
    const auto mode =
        m.tunnel_mode.try_emplace(std::string(name), tunnel_mode_t::port).first->second;
    m.enabled[std::string(name)] = up && mode == tunnel_mode_t::port;
    m.enabled[companion(name)] = up && mode == tunnel_mode_t::tunnel;
}
