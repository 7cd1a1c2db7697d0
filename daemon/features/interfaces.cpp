#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gateway.hpp"
#include "interfaces.hpp"
#include "msg_log.hpp"
#include "raise.hpp"
#include "sysrepo_common.hpp"
#include "yang_doc.hpp"

using dh::Value;

namespace {

constexpr std::string_view mgmt_name = "mgmt";

struct address_pair {
    std::string ip;
    int prefix_length = 0;
};

// One interface's part of a settings request, validated.
struct pass {
    std::string_view name;
    address_pair address;
    std::optional<std::string> gateway;
};

[[noreturn]] void refuse(const std::string& message) {
    dh::raise(-22, message, "set_ifconf");
}

std::string text_of(const Value& v) {
    return v.IsString() ? v.GetString() : json_text(v);
}

// Validates the address part of a request for interface `name`; empty means "clear". `other` is
// the address the interface must not share: the one of e28 for "mgmt", the management one for
// "e28".
address_pair plan_address(std::string_view name, const Value& request, const std::string* other) {
    address_pair p;
    if (request.IsNull() || (request.IsObject() && request.MemberCount() == 0)) return p;
    if (!request.IsObject()) refuse("Request is missing ipAddress.");
    const Value* ip = yang_doc::member(request, "ipAddress");
    if (!ip) refuse("Request is missing ipAddress.");
    const Value* netmask_value = yang_doc::member(request, "netmask");
    if (!netmask_value) refuse("Request is missing netmask.");
    if (!ip->IsString() || ip->GetStringLength() == 0) return p;

    const std::string address = ip->GetString();
    const std::string netmask = text_of(*netmask_value);
    if (!sysrepo_common::is_string_ipaddress(address)) refuse("Invalid IP address: " + address);
    if (!netmask_value->IsString() || !sysrepo_common::is_valid_netmask(netmask))
        refuse("Invalid netmask: " + netmask);
    p.ip = address == "0.0.0.0" ? std::string() : address;

    if (other && p.ip == *other) {
        if (name == mgmt_name) refuse("Same IP address as on if-0/28 interface: " + p.ip);
        refuse("Same IP address as on mgmt interface: " + p.ip);
    }

    in_addr parsed{};
    if (inet_pton(AF_INET, netmask.c_str(), &parsed) != 1) refuse("Invalid parameter <netmask>");
    const std::uint32_t m = ntohl(parsed.s_addr);
    if ((~m & (0u - m)) != 0)
        refuse("Invalid parameter <netmask>, '" + netmask + "' is not a valid netmask format.");
    p.prefix_length = sysrepo_common::netmask_to_prefix_length(netmask);
    return p;
}

// The address part and, on the management pass, the gateway (checked after the address).
pass plan_pass(std::string_view name, const Value& request, const std::string* other) {
    pass p{name, plan_address(name, request, other), std::nullopt};
    if (name == mgmt_name)
        if (const Value* gateway = yang_doc::member(request, "gateway")) {
            p.gateway = text_of(*gateway);
            check_gateway_address(*p.gateway);
        }
    return p;
}

// The addresses of an interface entry's "ietf-ip:ipv4" / "address" list, in order.
std::vector<address_pair> addresses_of(const Value* entry) {
    std::vector<address_pair> out;
    const Value* list = entry ? yang_doc::path(*entry, "ietf-ip:ipv4", "address") : nullptr;
    if (!list || !list->IsArray()) return out;
    for (const auto& item : list->GetArray()) {
        const Value* prefix = yang_doc::member(item, "prefix-length");
        out.push_back({std::string(yang_doc::string_of(yang_doc::member(item, "ip"))),
                       prefix && prefix->IsInt() ? prefix->GetInt() : 0});
    }
    return out;
}

address_pair first_address(const Value* entry) {
    auto list = addresses_of(entry);
    return list.empty() ? address_pair{} : list.front();
}

// e28's own address: the one of its list that is not the management address.
address_pair own_e28_address(const Value* e28, const std::string& mgmt_ip) {
    for (auto& a : addresses_of(e28))
        if (a.ip != mgmt_ip) return a;
    return {};
}

Value address_object(const address_pair& p, dh::Allocator& a) {
    Value item(rapidjson::kObjectType);
    item.AddMember("ip", Value(p.ip, a), a);
    item.AddMember("prefix-length", p.prefix_length, a);
    return item;
}

// Writes an entry's IPv4 forwarding flag and, as element 0 of its address list, `p`; an empty
// address removes the whole "ietf-ip:ipv4" container.
void write_ipv4(Value& entry, const address_pair& p, bool forwarding, dh::Allocator& a) {
    if (p.ip.empty()) {
        yang_doc::remove_member(entry, "ietf-ip:ipv4");
        return;
    }
    Value& ipv4 = yang_doc::object_member(entry, "ietf-ip:ipv4", a);
    yang_doc::set_member(ipv4, "forwarding", Value(forwarding), a);
    Value* list = yang_doc::member(ipv4, "address");
    if (!list || !list->IsArray()) {
        yang_doc::set_member(ipv4, "address", Value(rapidjson::kArrayType), a);
        list = yang_doc::member(ipv4, "address");
    }
    if (list->Empty()) list->PushBack(Value(rapidjson::kObjectType), a);
    Value& first = (*list)[0];
    if (!first.IsObject()) first.SetObject();
    yang_doc::set_member(first, "ip", Value(p.ip, a), a);
    yang_doc::set_member(first, "prefix-length", Value(p.prefix_length), a);
}

// The management address lives on the port e28 beside e28's own address: e28's list is rebuilt
// as the management address followed by its own, leaving out whichever is empty.
void rebuild_e28(Value& e28, const address_pair& mgmt, const address_pair& own, bool forwarding,
                 dh::Allocator& a) {
    yang_doc::remove_member(e28, "ietf-ip:ipv4");
    if (mgmt.ip.empty() && own.ip.empty()) return;
    Value list(rapidjson::kArrayType);
    for (const auto* p : {&mgmt, &own})
        if (!p->ip.empty()) list.PushBack(address_object(*p, a), a);
    Value ipv4(rapidjson::kObjectType);
    ipv4.AddMember("forwarding", forwarding, a);
    ipv4.AddMember("address", list, a);
    e28.AddMember("ietf-ip:ipv4", ipv4, a);
}

Document settings_reply(const address_pair& p) {
    Document out(rapidjson::kObjectType);
    auto& a = out.GetAllocator();
    out.AddMember("ipAddress", Value(p.ip.empty() ? "0.0.0.0" : p.ip, a), a);
    out.AddMember("netmask", Value(sysrepo_common::prefix_length_to_netmask(p.prefix_length), a),
                  a);
    return out;
}

bool is_known_interface(std::string_view name) {
    const auto& ieth = sysrepo_common::IETH_INTERFACES;
    const auto& tun = sysrepo_common::TUN_INTERFACES;
    return std::find(ieth.begin(), ieth.end(), name) != ieth.end() ||
           std::any_of(tun.begin(), tun.end(), [&](const auto& t) { return t.name == name; });
}

}  // namespace

// Every part of the request is validated before anything is changed, and the packet filter and
// the stored addresses follow only once the datastore took the change, so a refused or failed
// request changes neither. Inside a write batch the stored addresses change at once, for the
// batch's later writes, and are put back if the batch fails; the packet filter follows the
// batch's imports.
void interfaces_unit::set_ifconf(std::string_view name, const Document& request) {
    std::lock_guard lock(mutex_);
    std::vector<pass> passes;
    passes.reserve(2);
    if (name == sysrepo_common::MGMT_INTERFACE) {
        passes.push_back(plan_pass(mgmt_name, request, &addresses_.e28_ip));
        if (const Value* port = yang_doc::member(request, "interface"))
            passes.push_back(plan_pass(name, *port, &passes.front().address.ip));
    } else {
        passes.push_back(plan_pass(name, request, nullptr));
    }

    address_pair mgmt{addresses_.mgmt_ip, addresses_.mgmt_prefix_length};
    address_pair e28{addresses_.e28_ip, addresses_.e28_prefix_length};
    // The firewall sets to fill, and how to fill them back should a later write of the same
    // batch fail.
    nft_fills nft_updates;
    nft_fills nft_undo;
    for (const auto& p : passes) {
        if (p.name == mgmt_name) {
            mgmt = p.address;
            nft_updates.emplace_back(p.address.ip, mgmt_ports::mgmt);
            nft_undo.emplace_back(addresses_.mgmt_ip, mgmt_ports::mgmt);
        } else if (p.name == sysrepo_common::MGMT_INTERFACE) {
            e28 = p.address;
            nft_updates.emplace_back(p.address.ip, mgmt_ports::e28);
            nft_undo.emplace_back(addresses_.e28_ip, mgmt_ports::e28);
        } else if (p.name == "e27") {
            nft_updates.emplace_back(p.address.ip, mgmt_ports::e27);
        }
    }

    std::optional<std::string> e27_before;
    auto write = [&](const ospf_unit::generator* ospf_entry) {
        ds_.edit([&](Document& doc) {
            yang_doc::require_object(doc);
            for (const auto& p : passes) {
                const auto& [ip, prefix] = p.address;
                if (p.name == "e27" && !e27_before)
                    e27_before = first_address(yang_doc::interface_entry(doc, p.name)).ip;
                if (p.name == mgmt_name) {
                    update_ifconf(doc, mgmt_name, ip, prefix, true);
                    update_ifconf(doc, "lo", ip, 32, false);
                    for (std::string_view rdm : sysrepo_common::RDM_INTERFACES)
                        update_ifconf(doc, rdm, ip, 32, true);
                    for (const auto& tun : sysrepo_common::TUN_INTERFACES)
                        update_ifconf(doc, tun.name, ip, 32, true);
                    if (ospf_entry) (*ospf_entry)(doc);
                    if (p.gateway) update_gateway(doc, *p.gateway);
                } else {
                    update_ifconf(doc, p.name, ip, prefix, true);
                }
            }
        });
    };
    for (const auto& p : passes)
        MSG_LOG(6, "set_ifconf") << fmt::format("{} interface {}; ip: \"{}\", prefix: {}",
                                                p.address.ip.empty() ? "Clear" : "Config", p.name,
                                                p.address.ip, p.address.prefix_length)
                                 << msg_log::getCodeTrace(__FILE__, __LINE__);
    // The OSPF router id is the management address: its entry is regenerated in the same write.
    if (passes.front().name == mgmt_name)
        ospf_.change_router_id(mgmt.ip, [&](const ospf_unit::generator& g) { write(&g); });
    else
        write(nullptr);

    if (e27_before) nft_undo.emplace_back(*e27_before, mgmt_ports::e27);
    datastore_service::adopt(
        addresses_, stored_addresses{mgmt.ip, mgmt.prefix_length, e28.ip, e28.prefix_length},
        mutex_);
    datastore_service::after_commit([this, nft_updates] { fill_mgmt_sets(nft_updates); },
                                    [this, nft_undo] { fill_mgmt_sets(nft_undo); });
}

void interfaces_unit::fill_mgmt_sets(const nft_fills& fills) {
    for (const auto& [addresses, port] : fills) update_mgmt_nft(addresses, port);
}

void interfaces_unit::update_ifconf(Document& doc, std::string_view name, std::string address,
                                    int prefix_length, bool forwarding) {
    auto& a = doc.GetAllocator();
    const address_pair p{std::move(address), prefix_length};
    Value* entry = yang_doc::interface_entry(doc, name);
    Value* e28 = yang_doc::interface_entry(doc, sysrepo_common::MGMT_INTERFACE);
    Value* mgmt = yang_doc::interface_entry(doc, mgmt_name);
    if (name == mgmt_name) {
        const address_pair own = own_e28_address(e28, first_address(mgmt).ip);
        if (entry) write_ipv4(*entry, p, forwarding, a);
        if (e28) rebuild_e28(*e28, p, own, forwarding, a);
    } else if (name == sysrepo_common::MGMT_INTERFACE) {
        if (e28) rebuild_e28(*e28, first_address(mgmt), p, forwarding, a);
    } else if (entry) {
        write_ipv4(*entry, p, forwarding, a);
    }
}

Document interfaces_unit::get_ifconf_oper_ipv4(const std::string& name) {
    const std::string_view lookup = name == mgmt_name ? sysrepo_common::MGMT_INTERFACE : name;
    const Document oper = ds_.cached_oper("ietf-interfaces");
    std::string skip;
    {
        std::lock_guard lock(mutex_);
        if (name == mgmt_name)
            skip = addresses_.e28_ip;
        else if (name == sysrepo_common::MGMT_INTERFACE)
            skip = addresses_.mgmt_ip;
    }
    address_pair found{"0.0.0.0", 0};
    for (const auto& a : addresses_of(yang_doc::interface_entry(oper, lookup)))
        if (a.ip != skip) {
            found = a;
            break;
        }
    Document out = settings_reply(found);
    out.AddMember("prefix-length", found.prefix_length, out.GetAllocator());
    return out;
}

// For e28 the reply mirrors a settings request: the management address at the top and, under
// "interface", e28's own address when it has one. Reading them also makes them the stored
// addresses, so that the same-address checks and the OSPF router id hold after a restart.
Document interfaces_unit::get_ifconf(const Document& doc, std::string_view name) {
    if (name != sysrepo_common::MGMT_INTERFACE) {
        const Value* entry = yang_doc::interface_entry(doc, name);
        if (!entry) throw dh_error(-22, fmt::format("Invalid interface name: {}", name));
        return settings_reply(first_address(entry));
    }
    const address_pair mgmt = first_address(yang_doc::interface_entry(doc, mgmt_name));
    const address_pair own =
        own_e28_address(yang_doc::interface_entry(doc, sysrepo_common::MGMT_INTERFACE), mgmt.ip);
    {
        std::lock_guard lock(mutex_);
        addresses_ = {mgmt.ip, mgmt.prefix_length, own.ip, own.prefix_length};
    }
    ospf_.adopt_router_id(mgmt.ip);
    Document out = settings_reply(mgmt);
    if (!own.ip.empty()) {
        Document port = settings_reply(own);
        out.AddMember("interface", Value(port, out.GetAllocator()), out.GetAllocator());
    }
    return out;
}

// A tunnel sub-interface may be named in full ("e13.21") or by its port and VLAN.
void interfaces_unit::set_ifconf_enabled(std::string_view name, std::optional<int> vlan,
                                         const std::string& status) {
    auto refuse_enabled = [](const std::string& message) {
        dh::raise(-22, message, "set_ifconf_enabled");
    };
    const std::string entry_name = vlan && name.find('.') == std::string_view::npos
                                       ? fmt::format("{}.{}", name, *vlan)
                                       : std::string(name);
    if (!is_known_interface(entry_name))
        refuse_enabled(fmt::format("Invalid interface name: {}", entry_name));
    if (status != "up" && status != "down")
        refuse_enabled(fmt::format("Invalid adminStatus for {}: {}", entry_name, status));

    ds_.edit([&](Document& doc) {
        Value* entry = yang_doc::interface_entry(doc, entry_name);
        if (!entry) refuse_enabled(fmt::format("Invalid interface name: {}", entry_name));
        yang_doc::set_member(*entry, "enabled", Value(status == "up"), doc.GetAllocator());
    });
}

std::string interfaces_unit::get_ifconf_enabled(const Document& doc, std::string_view name) {
    const Value* entry = yang_doc::interface_entry(doc, name);
    if (!entry) throw dh_error(-22, fmt::format("Invalid interface name: {}", name));
    // "enabled" defaults to true in the interfaces model.
    return yang_doc::bool_of(yang_doc::member(*entry, "enabled")).value_or(true) ? "up" : "down";
}
