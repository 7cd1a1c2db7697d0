#include "roles.hpp"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <fmt/format.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

namespace dh::server {

namespace {

std::string user_name(long uid) {
    std::vector<char> buf(16384);
    passwd pw{};
    passwd* found = nullptr;
    if (::getpwuid_r(static_cast<uid_t>(uid), &pw, buf.data(), buf.size(), &found) != 0 || !found)
        return {};
    return found->pw_name;
}

std::string group_name(gid_t gid) {
    std::vector<char> buf(16384);
    group gr{};
    group* found = nullptr;
    if (::getgrgid_r(gid, &gr, buf.data(), buf.size(), &found) != 0 || !found) return {};
    return found->gr_name;
}

// The user's primary group (from the socket's credentials) and every group they belong to.
std::vector<gid_t> groups_of(const std::string& user, long gid) {
    std::vector<gid_t> out;
    if (gid >= 0) out.push_back(static_cast<gid_t>(gid));
    if (user.empty()) return out;
    int n = 64;
    std::vector<gid_t> list(static_cast<std::size_t>(n));
    if (::getgrouplist(user.c_str(), static_cast<gid_t>(gid < 0 ? 0 : gid), list.data(), &n) < 0) {
        list.resize(static_cast<std::size_t>(n));
        if (::getgrouplist(user.c_str(), static_cast<gid_t>(gid < 0 ? 0 : gid), list.data(), &n) <
            0)
            return out;
    }
    list.resize(static_cast<std::size_t>(n));
    out.insert(out.end(), list.begin(), list.end());
    return out;
}

void read_section(const rapidjson::Value& v, const char* name, const std::string& source,
                  std::map<std::string, role, std::less<>>& into) {
    if (!v.IsObject())
        throw std::runtime_error(fmt::format("{}: \"{}\" must be an object", source, name));
    for (const auto& m : v.GetObject()) {
        const auto r = m.value.IsString() ? parse_role(m.value.GetString()) : std::nullopt;
        if (!r)
            throw std::runtime_error(
                fmt::format("{}: {} \"{}\": role must be monitor, operator or admin", source, name,
                            m.name.GetString()));
        into.emplace(m.name.GetString(), *r);
    }
}

}  // namespace

const char* role_name(role r) {
    switch (r) {
        case role::monitor:
            return "monitor";
        case role::operator_:
            return "operator";
        case role::admin:
            return "admin";
        case role::none:
            break;
    }
    return "none";
}

std::optional<role> parse_role(std::string_view name) {
    if (name == "monitor") return role::monitor;
    if (name == "operator") return role::operator_;
    if (name == "admin") return role::admin;
    return std::nullopt;
}

role_map role_map::load(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read role file " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return parse(text.str(), path);
}

role_map role_map::parse(std::string_view json, const std::string& source) {
    rapidjson::Document d;
    d.Parse(json.data(), json.size());
    if (d.HasParseError())
        throw std::runtime_error(fmt::format("{}: not JSON: {} at offset {}", source,
                                             rapidjson::GetParseError_En(d.GetParseError()),
                                             d.GetErrorOffset()));
    if (!d.IsObject()) throw std::runtime_error(source + ": must be a JSON object");
    role_map out;
    for (const auto& m : d.GetObject()) {
        const std::string_view key(m.name.GetString(), m.name.GetStringLength());
        if (key == "certificates") {
            read_section(m.value, "certificates", source, out.certificates_);
        } else if (key == "users") {
            read_section(m.value, "users", source, out.users_);
        } else if (key == "groups") {
            read_section(m.value, "groups", source, out.groups_);
        } else if (key == "plainTcp") {
            const auto r = m.value.IsString() ? parse_role(m.value.GetString()) : std::nullopt;
            if (!r)
                throw std::runtime_error(source +
                                         ": plainTcp: role must be monitor, operator or admin");
            out.plain_tcp_ = *r;
        } else {
            throw std::runtime_error(fmt::format("{}: unknown member \"{}\"", source, key));
        }
    }
    return out;
}

role role_map::for_subject(const std::string& subject) const {
    auto it = certificates_.find(subject);
    return it == certificates_.end() ? role::none : it->second;
}

role role_map::for_unix(long uid, long gid) const {
    if (uid == 0) return role::admin;
    role best = role::none;
    const std::string user = uid >= 0 ? user_name(uid) : std::string();
    if (auto it = users_.find(user); !user.empty() && it != users_.end()) best = it->second;
    if (groups_.empty()) return best;
    for (const gid_t g : groups_of(user, gid)) {
        const std::string name = group_name(g);
        if (auto it = groups_.find(name); !name.empty() && it != groups_.end())
            best = std::max(best, it->second);
    }
    return best;
}

bool permits(role r, codec::method_id m, std::string_view path,
             const std::vector<std::string>& admin_only) {
    using codec::method_id;
    switch (m) {
        case method_id::get:
        case method_id::subscribe:
        case method_id::unsubscribe:
        case method_id::info:
        case method_id::list:
        case method_id::history:
            return r >= role::monitor;
        case method_id::set_many:
        case method_id::confirm:
            return r >= role::operator_;
        case method_id::set:
        case method_id::run:
            if (std::find(admin_only.begin(), admin_only.end(), path) != admin_only.end())
                return r == role::admin;
            return r >= role::operator_;
        case method_id::unknown:
            break;
    }
    return true;
}

}  // namespace dh::server
