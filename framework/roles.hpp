#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rpc_codec.hpp"

namespace dh::server {

// What a client may do, each role including the ones before it:
// monitor: get, subscribe, unsubscribe, info, list, history;
// operator: also set, set_many (each update checked as a set) and confirm, and run of commands
// that do not interrupt service;
// admin: everything.
enum class role { none, monitor, operator_, admin };

const char* role_name(role r);
std::optional<role> parse_role(std::string_view name);

// The role file: who gets which role.
//
//   {"certificates": {"CN=noc-console,O=Example": "operator"},
//    "users": {"backup": "monitor"}, "groups": {"netadmin": "admin"},
//    "plainTcp": "monitor"}
//
// Certificates are named by their subject as OpenSSL prints it in RFC 2253 form. Unix users and
// groups apply to the Unix socket; root there is always admin. "plainTcp" is the role of every
// client of the unauthenticated TCP and IPv6 ports (default monitor). A client that matches
// nothing has no role and every request it makes is refused.
class role_map {
  public:
    // Raises std::runtime_error naming the file and what is wrong with it.
    static role_map load(const std::string& path);
    static role_map parse(std::string_view json, const std::string& source);

    role for_subject(const std::string& subject) const;
    role for_unix(long uid, long gid) const;
    role for_plain_tcp() const { return plain_tcp_; }

  private:
    std::map<std::string, role, std::less<>> certificates_;
    std::map<std::string, role, std::less<>> users_;
    std::map<std::string, role, std::less<>> groups_;
    role plain_tcp_ = role::monitor;
};

// Whether `r` may call `m` on `path` (trimmed; empty for list and history). `admin_only` lists
// the paths whose set or run interrupts service.
bool permits(role r, codec::method_id m, std::string_view path,
             const std::vector<std::string>& admin_only);

}  // namespace dh::server
