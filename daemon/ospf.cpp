#include <fmt/format.h>

#include <mutex>
#include <optional>
#include <string>

#include "dh_error.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"
#include "yang_doc.hpp"

using dh::Value;

namespace {

constexpr unsigned int no_cost = 100;

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

}  // namespace

const Value& sysrepo_device_handler::get_control_plane_protocol(const Document& doc) {
    static const Value empty(rapidjson::kArrayType);
    const Value* list = yang_doc::path(doc, "ietf-routing:routing", "control-plane-protocols",
                                       "control-plane-protocol");
    return list && list->IsArray() ? *list : empty;
}

Value& sysrepo_device_handler::get_control_plane_protocol(Document& doc) {
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

void sysrepo_device_handler::ospf_init() {
    {
        std::lock_guard lock(mutex);
        ospf_flag.clear();
        ospf_tunnel_mode.clear();
        ospf_passive.clear();
        for (std::string_view name : sysrepo_common::OSPF_INTERFACES) {
            ospf_flag[name] = false;
            ospf_tunnel_mode[name] = tunnel_mode_t::port;
            ospf_enabled[std::string(name)] = false;
            ospf_passive[std::string(name)] = std::nullopt;
            ospf_cost[std::string(name)] = no_cost;
        }
        for (const auto& tun : sysrepo_common::TUN_INTERFACES) {
            ospf_enabled[std::string(tun.name)] = false;
            ospf_cost[std::string(tun.name)] = no_cost;
        }
        for (std::string_view name : sysrepo_common::OSPF_UPLINK_INTERFACES)
            ospf_uplink_area_id[std::string(name)].clear();
    }
    export_data(false);
}

void sysrepo_device_handler::set_ospf_area_id(const std::string& id) {
    std::lock_guard lock(mutex);
    if (!sysrepo_common::is_string_ipaddress(id)) {
        const std::string message = fmt::format("OSPF area id must be an IP address: \"{}\".", id);
        MSG_LOG(3, "set_ospf_area_id") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-22, message);
    }
    ospf_area_id = id;
    Document doc = export_data(false);
    update_ospf_status(doc);
    import_data(doc, false);
}

std::string sysrepo_device_handler::get_ospf_area_id() {
    Document doc = export_data(false);
    return get_ospf_area_id(doc);
}

std::string sysrepo_device_handler::get_ospf_area_id(Document& doc) {
    Value& protocols = get_control_plane_protocol(doc);
    const Value* ospf = yang_doc::find_in_list(&protocols, "type", yang_doc::ospf_type);
    std::string_view found;
    if (ospf) {
        const Value* areas = yang_doc::path(*ospf, "ietf-ospf:ospf", "areas", "area");
        if (areas && areas->IsArray() && !areas->Empty())
            found = yang_doc::string_of(yang_doc::member((*areas)[0], "area-id"));
    }
    std::lock_guard lock(mutex);
    if (!found.empty()) ospf_area_id = found;
    return ospf_area_id;
}

void sysrepo_device_handler::set_ospf_adminStatus(const std::string& status) {
    std::lock_guard lock(mutex);
    if (status != "down" && status != "up") {
        const std::string message =
            "ospf admin status should be either 'up' or 'down' , not:" + status;
        MSG_LOG(3, "set_ospf_adminStatus") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-22, message);
    }
    ospf_admin_up = status == "up";
    Document doc = export_data(false);
    update_ospf_status(doc);
    import_data(doc, false);
}

std::string sysrepo_device_handler::get_ospf_adminStatus() {
    return get_ospf_adminStatus(export_data(false));
}

std::string sysrepo_device_handler::get_ospf_adminStatus(const Document& doc) {
    const bool up =
        yang_doc::find_in_list(&get_control_plane_protocol(doc), "type", yang_doc::ospf_type);
    std::lock_guard lock(mutex);
    ospf_admin_up = up;
    return up ? "up" : "down";
}

// Called with `mutex` held: replaces the OSPF entry of the document with one generated from the
// model, or removes it when OSPF is administratively down.
void sysrepo_device_handler::update_ospf_status(Document& doc) {
    auto& a = doc.GetAllocator();
    Value& protocols = get_control_plane_protocol(doc);
    auto old = protocols.Begin();
    while (old != protocols.End() &&
           !yang_doc::string_is(yang_doc::member(*old, "type"), yang_doc::ospf_type))
        ++old;
    const bool found = old != protocols.End();

    if (!ospf_admin_up) {
        if (found) protocols.Erase(old);
        return;
    }

    auto make_iface = [&](std::string_view name, const iface_defaults& d) {
        Value iface(rapidjson::kObjectType);
        iface.AddMember("name",
                        Value(name.data(), static_cast<rapidjson::SizeType>(name.size()), a), a);
        iface.AddMember("enabled", model_value(ospf_enabled, name).value_or(d.enabled), a);
        if (d.point_to_point) iface.AddMember("interface-type", "point-to-point", a);
        Value bfd(rapidjson::kObjectType);
        bfd.AddMember("enabled", d.bfd, a);
        iface.AddMember("bfd", bfd, a);
        iface.AddMember("passive", model_value(ospf_passive, name).value_or(d.passive), a);
        auto cost = ospf_cost.find(name);
        if (cost != ospf_cost.end() && cost->second != no_cost)
            iface.AddMember("cost", cost->second, a);
        return iface;
    };

    Value main_list(rapidjson::kArrayType);
    Value lo(rapidjson::kObjectType);
    lo.AddMember("name", "lo", a);
    lo.AddMember("enabled", true, a);
    main_list.PushBack(lo, a);
    for (const auto& tun : sysrepo_common::TUN_INTERFACES)
        main_list.PushBack(make_iface(tun.name, {ospf_admin_up, true, true, false}), a);
    for (std::string_view name : sysrepo_common::RDM_INTERFACES)
        main_list.PushBack(make_iface(name, {false, true, true, false}), a);
    for (std::string_view name : sysrepo_common::QMX2_INTERFACES)
        main_list.PushBack(make_iface(name, {false, false, false, ospf_admin_up}), a);
    for (std::string_view name : sysrepo_common::EXT_INTERFACES)
        main_list.PushBack(make_iface(name, {ospf_admin_up, false, false, true}), a);

    auto uplink_area = [&](std::string_view name) -> std::string {
        auto it = ospf_uplink_area_id.find(name);
        return it != ospf_uplink_area_id.end() ? it->second : std::string();
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
        if (area_id == ospf_area_id) {
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
    main_area.AddMember("area-id", Value(ospf_area_id, a), a);
    main_area.AddMember("area-type", "nssa-area", a);
    if (model_value(ospf_enabled, "e27").value_or(false) ||
        model_value(ospf_enabled, "e28").value_or(false))
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
    ospf.AddMember("explicit-router-id", Value(mgmt_ip_address, a), a);
    ospf.AddMember("areas", areas, a);

    Value protocol(rapidjson::kObjectType);
    protocol.AddMember("type", Value(yang_doc::ospf_type.data(), a), a);
    protocol.AddMember("name", "default", a);
    protocol.AddMember("ietf-ospf:ospf", ospf, a);

    // An existing entry is replaced through element 0, wherever it stood in the list.
    if (found)
        protocols[0] = protocol;
    else
        protocols.PushBack(protocol, a);
}
