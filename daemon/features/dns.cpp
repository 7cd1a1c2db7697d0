#include <rapidjson/pointer.h>

#include <fstream>
#include <memory>
#include <optional>
#include <sstream>

#include "dh_error.hpp"
#include "dns.hpp"
#include "ietf_system.hpp"
#include "msg_log.hpp"
#include "raise.hpp"

namespace {

constexpr const char* resolv_conf_path = "/etc/resolv.conf";

bool has_name(const dh::Value& entry, const std::string& name) {
    if (!entry.IsObject()) return false;
    auto it = entry.FindMember("name");
    return it != entry.MemberEnd() && it->value.IsString() && name == it->value.GetString();
}

// A member of the client's settings object as text: a string as it stands, any other JSON value
// as its compact JSON text (so that it is refused by the address check), absent as empty.
std::string member_text(const Document& settings, const char* name) {
    auto it = settings.FindMember(name);
    if (it == settings.MemberEnd()) return {};
    if (it->value.IsString()) return it->value.GetString();
    return json_text(it->value);
}

}  // namespace

dns_unit::dns_unit(const host::door& door, datastore_service& ds) : door_(door), ds_(ds) {}

Document dns_unit::get_dns_servers(const Document& doc) {
    Document out(rapidjson::kObjectType);
    auto& allocator = out.GetAllocator();
    const auto* servers = rapidjson::Pointer("/ietf-system:system/dns-resolver/server").Get(doc);
    if (!servers || !servers->IsArray()) return out;
    for (const auto& entry : servers->GetArray()) {
        const char* member = has_name(entry, "primary")     ? "primaryDnsIpAddress"
                             : has_name(entry, "secondary") ? "secondaryDnsIpAddress"
                                                            : nullptr;
        const auto* address = rapidjson::Pointer("/udp-and-tcp/address").Get(entry);
        if (!member || !address || !address->IsString()) continue;
        out.AddMember(dh::Value(member, allocator), dh::Value(*address, allocator), allocator);
    }
    return out;
}

void dns_unit::set_dns_servers(const Document& servers) {
    // Hardening: both addresses go into the resolver file and the datastore; only IPv4 and IPv6
    // addresses are accepted, checked before anything is changed.
    if (!servers.IsObject()) throw dh_error(-22, "Invalid DNS settings format.");
    const std::string primary = member_text(servers, "primaryDnsIpAddress");
    const std::string secondary = member_text(servers, "secondaryDnsIpAddress");
    for (const auto& address : {primary, secondary})
        if (!address.empty() && !ietf_system::is_ip_address(address))
            throw dh_error(-22, "Invalid DNS server address: " + address);

    std::lock_guard lock(mutex_);
    ds_.edit([&](Document& doc) {
        ietf_system::container(doc);
        update_dns_server(doc, "primary", primary);
        update_dns_server(doc, "secondary", secondary);
    });
    // Inside a write batch the file is written after the batch's imports; should a later step of
    // the batch fail, the text it had goes back.
    auto previous = std::make_shared<std::optional<std::string>>();
    datastore_service::after_commit(
        [this, primary, secondary, previous] {
            *previous = read_resolv_conf();
            update_resolv_conf(primary, secondary);
        },
        [this, previous] {
            if (*previous) write_resolv_conf(**previous);
        });
}

void dns_unit::update_dns_server(Document& doc, const std::string& role,
                                 const std::string& address) {
    const rapidjson::Pointer pointer("/ietf-system:system/dns-resolver/server");
    auto* servers = pointer.Get(doc);
    if (address.empty()) {
        if (servers && servers->IsArray()) {
            for (auto it = servers->Begin(); it != servers->End(); ++it)
                if (has_name(*it, role)) {
                    servers->Erase(it);
                    break;
                }
        }
        return;
    }

    auto& allocator = doc.GetAllocator();
    if (!servers || !servers->IsArray()) {
        ietf_system::container(doc);
        dh::Value empty(rapidjson::kArrayType);
        servers = &pointer.Set(doc, empty);
    }
    for (auto& entry : servers->GetArray())
        if (has_name(entry, role)) {
            rapidjson::Pointer("/udp-and-tcp/address").Set(entry, address, allocator);
            return;
        }
    dh::Value udp_and_tcp(rapidjson::kObjectType);
    udp_and_tcp.AddMember("address", dh::Value(address, allocator), allocator);
    dh::Value entry(rapidjson::kObjectType);
    entry.AddMember("udp-and-tcp", udp_and_tcp, allocator);
    entry.AddMember("name", dh::Value(role, allocator), allocator);
    servers->PushBack(entry, allocator);
}

void dns_unit::update_resolv_conf(const std::string& primary, const std::string& secondary) {
    std::string text;
    if (!primary.empty()) text += "nameserver " + primary + '\n';
    if (!secondary.empty()) text += "nameserver " + secondary + '\n';
    write_resolv_conf(text + "options edns0 trust-ad\n");
}

void dns_unit::write_resolv_conf(const std::string& text) {
    std::ofstream file(door_.file(resolv_conf_path), std::ios::out | std::ios::trunc);
    if (!file.is_open()) dh::raise(-5, "Failed to open /etc/resolv.conf.", "update_resolv_conf");
    file << text;
}

std::optional<std::string> dns_unit::read_resolv_conf() const {
    std::ifstream file(door_.file(resolv_conf_path));
    if (!file) return std::nullopt;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}
