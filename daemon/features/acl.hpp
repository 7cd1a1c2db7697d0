#pragma once

#include <mutex>
#include <string>

#include "dh_types.hpp"
#include "door.hpp"

using Document = dh::Document;

enum class addr_family : int { ipv4 = 0, ipv6 = 1 };

// The access-control whitelist: the packet filter's source set "whitelist_ipv4" and its switch.
// The list is kept in memory and reaches the filter while the switch is up.
class acl_unit {
  public:
    explicit acl_unit(const host::door& door);

    void acl_set_adminStatus(const std::string& status);
    void acl_set_whitelist(addr_family family, const Document& doc);
    Document acl_get_whitelist(addr_family family);

  private:
    void apply_nft(const std::string& statements);

    const host::door& door_;
    // Guards the switch and the list; held across the nft run that applies them.
    std::mutex mutex_;
    bool acl_enabled = false;
    std::string acl_whitelist;
};
