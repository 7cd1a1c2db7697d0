#include <fmt/format.h>
#include <rapidjson/pointer.h>

#include <cctype>
#include <vector>

#include <boost/algorithm/string/split.hpp>

#include "dh_error.hpp"
#include "ietf_system.hpp"
#include "msg_log.hpp"
#include "ntp.hpp"
#include "ntp_status.hpp"
#include "raise.hpp"
#include "sysrepo_common.hpp"

namespace ntp_status {

namespace {

bool in_set(char c, std::string_view set) {
    return set.find(c) != std::string_view::npos;
}

}  // namespace

report evaluate(std::string_view selectdata, const std::string& primary,
                const std::string& secondary) {
    report r;
    std::size_t pos = 0;
    while (pos < selectdata.size()) {
        std::size_t end = selectdata.find('\n', pos);
        if (end == std::string_view::npos) end = selectdata.size();
        const std::string_view line = selectdata.substr(pos, end - pos);
        pos = end + 1;

        const std::size_t comma = line.find(',');
        const std::string_view state = line.substr(0, comma);
        if (state.empty()) continue;
        std::string_view name;
        if (comma != std::string_view::npos) {
            name = line.substr(comma + 1);
            name = name.substr(0, name.find(','));
        }
        const bool is_primary = name == primary;
        const bool is_secondary = name == secondary;

        if (in_set(state[0], "*+")) {
            r.overall = synchronised;
            // A selected "*" already recorded is never replaced by a combined "+".
            server_state* s = is_primary ? &r.primary : is_secondary ? &r.secondary : nullptr;
            if (s) {
                if (s->state != "*") s->state = state;
                s->code = synchronised;
            }
        } else if (in_set(state[0], "WPUD")) {
            if (r.overall == unknown) r.overall = not_synchronised;
            if (is_primary && r.primary.code != synchronised) {
                r.primary = {std::string(state), not_synchronised};
            } else if (is_secondary && r.secondary.code != synchronised) {
                r.secondary = {std::string(state), not_synchronised};
            }
        } else if (in_set(state[0], "NMd~wSOTx")) {
            auto open = [](const server_state& s) {
                return s.code != not_synchronised && s.code != synchronised;
            };
            if (is_primary && open(r.primary)) {
                r.primary = {std::string(state), not_connected};
            } else if (is_secondary && open(r.secondary)) {
                r.secondary = {std::string(state), not_connected};
            }
        }
    }
    return r;
}

std::string text(const server_state& s) {
    const char* word = "-";
    switch (s.code) {
        case synchronised:
            word = "synchronized";
            break;
        case not_connected:
            word = "not connected";
            break;
        case not_synchronised:
            word = "not synchronized";
            break;
        default:
            break;
    }
    return s.state.empty() ? std::string(word) : fmt::format("{} ({})", word, s.state);
}

bool is_valid_server_address(const std::string& address) {
    if (sysrepo_common::is_string_ipaddress(address)) return true;
    if (address.empty() || address.size() > 253) return false;
    std::vector<std::string_view> labels;
    boost::algorithm::split(labels, std::string_view(address), [](char c) { return c == '.'; });
    for (auto label : labels) {
        if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-')
            return false;
        for (char c : label)
            if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') return false;
    }
    return true;
}

}  // namespace ntp_status

namespace {

const char* role_name(bool primary) {
    return primary ? "primary" : "secondary";
}

// The "server" array of the NTP settings, or nullptr.
dh::Value* ntp_servers(dh::Value& system) {
    auto ntp = system.FindMember("ntp");
    if (ntp == system.MemberEnd() || !ntp->value.IsObject()) return nullptr;
    auto servers = ntp->value.FindMember("server");
    return servers != ntp->value.MemberEnd() && servers->value.IsArray() ? &servers->value
                                                                         : nullptr;
}

bool has_name(const dh::Value& entry, std::string_view name) {
    if (!entry.IsObject()) return false;
    auto it = entry.FindMember("name");
    return it != entry.MemberEnd() && it->value.IsString() &&
           std::string_view(it->value.GetString(), it->value.GetStringLength()) == name;
}

// The "ntp" object, created holding "enabled": false when missing.
dh::Value& ensure_ntp(dh::Value& system, dh::Allocator& allocator) {
    auto it = system.FindMember("ntp");
    if (it == system.MemberEnd()) {
        dh::Value ntp(rapidjson::kObjectType);
        ntp.AddMember("enabled", false, allocator);
        system.AddMember("ntp", ntp, allocator);
        return system["ntp"];
    }
    if (!it->value.IsObject()) it->value.SetObject();
    return it->value;
}

}  // namespace

ntp_unit::ntp_unit(const host::door& door, datastore_service& ds) : door_(door), ds_(ds) {}

std::string ntp_unit::get_ntp_adminStatus(const Document& doc) {
    const auto* enabled = rapidjson::Pointer("/ietf-system:system/ntp/enabled").Get(doc);
    return enabled && enabled->IsTrue() ? "up" : "down";
}

void ntp_unit::set_ntp_adminStatus(const std::string& status) {
    if (status != "down" && status != "up")
        dh::raise(-22, "ntp admin status should be either 'up' or 'down' , not:" + status,
                  "set_ntp_adminStatus");
    ds_.edit([&](Document& doc) {
        auto& ntp = ensure_ntp(ietf_system::container(doc), doc.GetAllocator());
        auto enabled = ntp.FindMember("enabled");
        if (enabled == ntp.MemberEnd())
            ntp.AddMember("enabled", status == "up", doc.GetAllocator());
        else
            enabled->value.SetBool(status == "up");
    });
    restart_after_commit();
}

std::string ntp_unit::get_ntp_server(const Document& doc, bool primary) {
    const auto* servers = rapidjson::Pointer("/ietf-system:system/ntp/server").Get(doc);
    if (!servers || !servers->IsArray()) return {};
    for (const auto& entry : servers->GetArray()) {
        if (!has_name(entry, role_name(primary))) continue;
        const auto* address = rapidjson::Pointer("/udp/address").Get(entry);
        return address && address->IsString() ? address->GetString() : std::string();
    }
    return {};
}

void ntp_unit::set_ntp_server(bool primary, const std::string& address) {
    // Hardening: the address ends up in chrony's configuration; only addresses and host names
    // are let through ("n/a" is what some clients write for "no server").
    if (!address.empty() && address != "n/a" && !ntp_status::is_valid_server_address(address))
        throw dh_error(-22, "Invalid NTP server address: " + address);

    const char* role = role_name(primary);
    ds_.edit([&](Document& doc) { edit_server(doc, role, primary, address); });
    restart_after_commit();
}

void ntp_unit::restart_after_commit() {
    // After a batch's imports, and once for all of its NTP writes: ntpd rereads the whole
    // configuration. Should a later step fail, a second restart rereads the restored one.
    datastore_service::after_commit([this] { restart_ntpd(); }, [this] { restart_ntpd(); }, this);
}

void ntp_unit::edit_server(Document& doc, const char* role, bool primary,
                           const std::string& address) {
    auto& allocator = doc.GetAllocator();
    auto& system = ietf_system::container(doc);

    if (address.empty()) {
        if (auto* servers = ntp_servers(system)) {
            for (auto it = servers->Begin(); it != servers->End(); ++it)
                if (has_name(*it, role)) {
                    servers->Erase(it);
                    break;
                }
        }
    } else {
        const std::string other = get_ntp_server(doc, !primary);
        if (!other.empty() && other != "n/a" &&
            sysrepo_common::is_string_ipaddress(address) !=
                sysrepo_common::is_string_ipaddress(other))
            throw dh_error(-22, fmt::format("Both NTP servers must be either IP address or DNS "
                                            "name: ({}, {}).",
                                            address, other));

        auto& ntp = ensure_ntp(system, allocator);
        if (!ntp_servers(system)) {
            ntp.RemoveMember("server");
            ntp.AddMember("server", dh::Value(rapidjson::kArrayType), allocator);
        }
        auto& servers = ntp["server"];
        dh::Value* found = nullptr;
        for (auto& entry : servers.GetArray())
            if (has_name(entry, role)) {
                found = &entry;
                break;
            }
        if (found) {
            rapidjson::Pointer("/udp/address").Set(*found, address, allocator);
        } else {
            dh::Value udp(rapidjson::kObjectType);
            udp.AddMember("address", dh::Value(address, allocator), allocator);
            dh::Value entry(rapidjson::kObjectType);
            entry.AddMember("udp", udp, allocator);
            entry.AddMember("name", dh::Value(role, allocator), allocator);
            entry.AddMember("association-type", "server", allocator);
            entry.AddMember("iburst", true, allocator);
            if (primary) entry.AddMember("prefer", true, allocator);
            servers.PushBack(entry, allocator);
        }
    }
}

Document ntp_unit::get_ntp_status() {
    ntp_status::report report;
    std::string primary;
    std::string secondary;
    const Document running = ds_.export_running();
    if (get_ntp_adminStatus(running) == "up") {
        primary = get_ntp_server(running, true);
        secondary = get_ntp_server(running, false);
        const std::string output = door_.call({"/bin/chronyc", "-cN", "selectdata"}, host::query());
        if (!output.empty()) report = ntp_status::evaluate(output, primary, secondary);
    }

    Document out(rapidjson::kObjectType);
    auto& allocator = out.GetAllocator();
    const std::string primary_text = primary.empty() ? "-" : ntp_status::text(report.primary);
    const std::string secondary_text = secondary.empty() ? "-" : ntp_status::text(report.secondary);
    out.AddMember("primary", dh::Value(primary_text, allocator), allocator);
    out.AddMember("secondary", dh::Value(secondary_text, allocator), allocator);
    out.AddMember("overall", report.overall, allocator);
    last_overall_ = report.overall;
    return out;
}

std::optional<int> ntp_unit::last_overall() const {
    const int overall = last_overall_.load();
    return overall < 0 ? std::nullopt : std::optional<int>(overall);
}

void ntp_unit::restart_ntpd() {
    door_.run({"/etc/init.d/ntpd", "restart"}, host::options{}.detached());
}
