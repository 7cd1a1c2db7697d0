#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "datastore.hpp"
#include "dh_api/dh_api.hpp"
#include "door.hpp"
#include "ospf.hpp"

// The management-capable ports whose address sets live in the packet filter.
enum class mgmt_ports : int { e27 = 0, e28 = 1, mgmt = 2 };

using pushed_string_node =
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<std::string>>;

// The interface status values of one interface, pushed by poll().
struct sysrepo_ietf_ifaces_db {
    std::shared_ptr<pushed_string_node> admin_status;
    std::shared_ptr<pushed_string_node> link_status;
    std::shared_ptr<pushed_string_node> link_media_type;
    std::shared_ptr<pushed_string_node> bridge_port;
};

// IPv4 settings of the management and line interfaces, their enable switches and modes, the
// default gateway, the management firewall sets and the operational interface state.
// Lock order: interfaces -> ospf -> datastore.
class interfaces_unit {
  public:
    interfaces_unit(const host::door& door, datastore_service& ds, ospf_unit& ospf);

    void set_ifconf(std::string_view name, const Document& request);
    Document get_ifconf(const Document& doc, std::string_view name);
    Document get_ifconf_oper_ipv4(const std::string& name);
    void set_ifconf_enabled(std::string_view name, std::optional<int> vlan,
                            const std::string& status);
    std::string get_ifconf_enabled(const Document& doc, std::string_view name);
    void set_interface_mode(std::string name, const std::string& mode);
    std::string get_interface_mode_str(std::string name);
    std::string _get_interface_mode_str(const Document& doc, std::string_view name);
    std::string get_gateway();

    // Refills the set of `port` with `addresses` and saves its listing to the port's rule file.
    // A failing nft is logged and does not stop the caller.
    void update_mgmt_nft(const std::string& addresses, const mgmt_ports& port);
    using nft_fills = std::vector<std::pair<std::string, mgmt_ports>>;
    void fill_mgmt_sets(const nft_fills& fills);

    // The status values are registered by the node map; poll() and start-up push into them.
    std::map<std::string_view, sysrepo_ietf_ifaces_db>& status_nodes() { return ietf_ifaces; }
    void update_ietf_ifaces_map(const Document& oper);
    static std::string get_ifconf_oper_macaddr(const Document& oper, std::string_view name);
    // Reads the operational interface state and pushes the status values; a failed read is
    // logged and tried again at the next call.
    void poll();

    // Writes the gateway as the first route of the static-routing entry (address checked).
    static void update_gateway(Document& doc, const std::string& address);
    static void update_ifconf(Document& doc, std::string_view name, std::string address,
                              int prefix_length, bool forwarding);

  private:
    const host::door& door_;
    datastore_service& ds_;
    ospf_unit& ospf_;

    // The last management address written or read and its prefix length; likewise for e28's own.
    struct stored_addresses {
        std::string mgmt_ip;
        int mgmt_prefix_length = 0;
        std::string e28_ip;
        int e28_prefix_length = 0;
    };

    // Guards addresses_; held by set_ifconf across its datastore edit.
    std::mutex mutex_;
    stored_addresses addresses_;

    // Filled by the node map before the first poll, then never changed.
    std::map<std::string_view, sysrepo_ietf_ifaces_db> ietf_ifaces;
};
