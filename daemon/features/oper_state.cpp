#include "oper_state.hpp"

#include <charconv>
#include <cmath>
#include <optional>

#include <fmt/format.h>

#include "interfaces.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"

namespace {

std::optional<std::string_view> string_member(const dh::Value& obj, const char* name) {
    auto it = obj.FindMember(name);
    if (it == obj.MemberEnd() || !it->value.IsString()) return std::nullopt;
    return std::string_view(it->value.GetString(), it->value.GetStringLength());
}

std::optional<double> number_of(const dh::Value& v) {
    if (v.IsNumber()) return v.GetDouble();
    if (!v.IsString()) return std::nullopt;
    double d = 0;
    const char* begin = v.GetString();
    const char* end = begin + v.GetStringLength();
    auto [ptr, ec] = std::from_chars(begin, end, d);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return d;
}

// A member named "bridge-port" of any module ({"bridge": NAME} or {"bridge-name": NAME}), or a
// bridge among the interface's "higher-layer-if" names.
std::string bridge_of(const dh::Value& entry) {
    for (auto& m : entry.GetObject()) {
        std::string_view key(m.name.GetString(), m.name.GetStringLength());
        if (!key.ends_with("bridge-port") || !m.value.IsObject()) continue;
        if (auto b = string_member(m.value, "bridge")) return std::string(*b);
        if (auto b = string_member(m.value, "bridge-name")) return std::string(*b);
    }
    auto higher = entry.FindMember("higher-layer-if");
    if (higher != entry.MemberEnd() && higher->value.IsArray())
        for (auto& v : higher->value.GetArray())
            if (v.IsString() && std::string_view(v.GetString()).starts_with("br"))
                return v.GetString();
    return std::string(no_bridge_text);
}

}  // namespace

const dh::Value* find_oper_interface(const dh::Value& oper, std::string_view name) {
    if (!oper.IsObject()) return nullptr;
    auto top = oper.FindMember("ietf-interfaces:interfaces");
    if (top == oper.MemberEnd() || !top->value.IsObject()) return nullptr;
    auto list = top->value.FindMember("interface");
    if (list == top->value.MemberEnd() || !list->value.IsArray()) return nullptr;
    for (auto& entry : list->value.GetArray())
        if (entry.IsObject() && string_member(entry, "name") == name) return &entry;
    return nullptr;
}

std::string link_media_type_from_speed(const dh::Value& speed) {
    auto gbps = number_of(speed);
    if (!gbps || !(*gbps > 0) || !std::isfinite(*gbps)) return std::string(unknown_text);
    const long mbps = std::lround(*gbps * 1000);
    switch (mbps) {
        case 1000:
            return "1000BaseT";
        case 100:
            return "100BaseT";
        case 10:
            return "10BaseT";
    }
    return *gbps >= 1 ? fmt::format("{:g}G", *gbps) : fmt::format("{:g}M", *gbps * 1000);
}

interface_status interface_status_from(const dh::Value* entry) {
    const std::string unknown(unknown_text);
    if (!entry || !entry->IsObject()) return {unknown, unknown, unknown, unknown};
    interface_status s{unknown, unknown, unknown, bridge_of(*entry)};

    if (auto admin = string_member(*entry, "admin-status")) {
        s.admin_status = *admin;
    } else if (auto enabled = entry->FindMember("enabled");
               enabled != entry->MemberEnd() && enabled->value.IsBool()) {
        s.admin_status = enabled->value.GetBool() ? "up" : "down";
    }

    // Every oper-status other than "up" (down, dormant, lower-layer-down, not-present, testing)
    // means the link carries no traffic.
    if (auto oper = string_member(*entry, "oper-status"))
        s.link_status = *oper == "up" ? "up" : "down";

    auto eth = entry->FindMember("ieee802-ethernet-interface:ethernet");
    if (eth != entry->MemberEnd() && eth->value.IsObject()) {
        auto speed = eth->value.FindMember("speed");
        if (speed != eth->value.MemberEnd())
            s.link_media_type = link_media_type_from_speed(speed->value);
    }
    return s;
}

// Called at start-up and then by every poll; the node map (ietf_ifaces) is complete before
// either, and is not changed afterwards.
void interfaces_unit::update_ietf_ifaces_map(const Document& oper) {
    for (auto& [name, nodes] : ietf_ifaces) {
        interface_status s = interface_status_from(find_oper_interface(oper, name));
        nodes.admin_status->set_value(std::move(s.admin_status));
        nodes.link_status->set_value(std::move(s.link_status));
        nodes.link_media_type->set_value(std::move(s.link_media_type));
        nodes.bridge_port->set_value(std::move(s.bridge_port));
    }
}

std::string interfaces_unit::get_ifconf_oper_macaddr(const Document& oper, std::string_view name) {
    if (const dh::Value* entry = find_oper_interface(oper, name))
        if (auto mac = string_member(*entry, "phys-address")) return std::string(*mac);
    return {};
}

void interfaces_unit::poll() {
    try {
        update_ietf_ifaces_map(
            ds_.export_checked(datastore::operational, {"-x", "/ietf-interfaces:interfaces"}));
    } catch (...) {
        MSG_LOG(6, "sysrepo") << "sysrepo, unknown exception"
                              << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
}

interfaces_unit::interfaces_unit(const host::door& door, datastore_service& ds, ospf_unit& ospf)
    : door_(door), ds_(ds), ospf_(ospf) {}
