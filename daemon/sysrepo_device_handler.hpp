#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "dh_api/dh_api.hpp"
#include "dh_db.hpp"
#include "dh_types.hpp"

class sfp_plus_data_reader;

using Document = dh::Document;

// Datastores for exports; the character is written after -d on the sysrepocfg command line.
enum class datastore : char { running = 'r', operational = 'o', factory_default = 'f' };

// A cached operational document and the steady-clock time after which it is stale.
struct TempDoc {
    Document doc;
    std::chrono::steady_clock::time_point expires;
};

// The management-capable ports whose address sets live in the packet filter.
enum class mgmt_ports : int { e27 = 0, e28 = 1, mgmt = 2 };

enum class addr_family : int { ipv4 = 0, ipv6 = 1 };

// How an internal interface carries OSPF: not at all, over its tunnel sub-interface(s) only, or
// on the port itself (the model's reset value).
enum class tunnel_mode_t : int { none = 0, tunnel = 1, port = 2 };

using pushed_string_node =
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<std::string>>;
using pushed_document_node =
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<Document>>;

// The interface status values of one interface, pushed by the poll thread.
struct sysrepo_ietf_ifaces_db {
    std::shared_ptr<pushed_string_node> admin_status;
    std::shared_ptr<pushed_string_node> link_status;
    std::shared_ptr<pushed_string_node> link_media_type;
    std::shared_ptr<pushed_string_node> bridge_port;
};

// Operational state of interfaces: the "ietf-interfaces" subtree of the operational datastore.
Document get_ietf_ifaces_oper();
Document get_ietf_ifaces_oper(const std::string& name);
// Exports datastore ds with free-form sysrepocfg selection arguments; dh_error 22
// "Invalid json in response" when the output is not JSON.
Document export_or_else_throw(datastore ds, std::string_view args);
// `rauc status --detailed --output-format=shell` text -> key/value map.
std::map<std::string, std::string> parse_rauc_status(const std::string& text);

// The daemon's one handler: it fills the framework's node tree and carries out every read,
// write and command against the device's services. Created once as a shared object; nodes hold
// weak references to it.
//
// Locks, in the order they may be taken: a node's own lock (held by the framework call that
// reaches a setter) -> image_mutex -> mutex -> install_status_mutex. A node's lock is never
// taken while `mutex` is held, except the per-port LLDP nodes, whose locks are leaves.
class sysrepo_device_handler : public std::enable_shared_from_this<sysrepo_device_handler> {
  public:
    explicit sysrepo_device_handler(dh_db& db);
    ~sysrepo_device_handler();
    sysrepo_device_handler(const sysrepo_device_handler&) = delete;
    sysrepo_device_handler& operator=(const sysrepo_device_handler&) = delete;

    void start();
    void poll_func();

    // Datastore bridge.
    Document export_data(bool startup);
    void import_data(Document& doc, bool startup_only);
    Document _cached_oper_get(std::string_view module);

    // Operational interface state.
    void update_ietf_ifaces_map(const Document& oper);
    static std::string get_ifconf_oper_macaddr(const Document& oper, std::string_view name);

    // IPv4 interface settings, enable switch, interface modes.
    void set_ifconf(std::string_view name, const Document& request);
    void update_ifconf(Document& doc, std::string_view name, std::string address, int prefix_length,
                       bool forwarding);
    Document get_ifconf_oper_ipv4(const std::string& name);
    Document get_ifconf(std::string_view name);
    Document get_ifconf(const Document& doc, std::string_view name);
    void set_ifconf_enabled(std::string_view name, std::optional<int> vlan,
                            const std::string& status);
    std::string get_ifconf_enabled(std::string_view name);
    std::string get_ifconf_enabled(const Document& doc, std::string_view name);
    void set_interface_mode(std::string name, const std::string& mode);
    std::string get_interface_mode_str(std::string name);
    std::string _get_interface_mode_str(const Document& doc, std::string_view name);

    // Default gateway.
    void set_gateway(const std::string& address);
    std::string get_gateway();
    void update_gateway(Document& doc, const std::string& address);

    // Management firewall sets.
    void update_mgmt_nft(const std::string& addresses, const mgmt_ports& port);

    // OSPF instance.
    void ospf_init();
    void set_ospf_area_id(const std::string& id);
    std::string get_ospf_area_id();
    std::string get_ospf_area_id(Document& doc);
    void set_ospf_adminStatus(const std::string& status);
    std::string get_ospf_adminStatus();
    std::string get_ospf_adminStatus(const Document& doc);
    void update_ospf_status(Document& doc);
    static const dh::Value& get_control_plane_protocol(const Document& doc);
    static dh::Value& get_control_plane_protocol(Document& doc);

    // OSPF interfaces: admin status, tunnel mode, metric, passive mode, uplink area.
    void set_ospf_if_adminStatus(std::string_view name, const std::string& status);
    std::string get_ospf_if_adminStatus(std::string_view name);
    std::string get_ospf_if_adminStatus(const Document& doc, std::string_view name);
    void _update_ospf_tunnel_mode(std::string_view name);
    void set_ospf_interface_metric(std::string_view name, unsigned int metric);
    unsigned int get_ospf_interface_metric(const Document& doc, std::string_view name);
    void _set_ospf_interface_metric(Document& doc, std::string_view name, unsigned int metric);
    unsigned int _get_ospf_interface_metric(const Document& doc, std::string_view name);
    void set_ospf_interface_passive(std::string_view name, bool passive);
    bool get_ospf_interface_passive(const Document& doc, std::string_view name);
    bool _set_ospf_interface_passive(Document& doc, std::string_view name, bool passive);
    std::optional<bool> _get_ospf_interface_passive(const Document& doc, std::string_view name);
    void set_ospf_interface_area_id(std::string_view name, std::string& id);
    std::string get_ospf_interface_area_id(std::string_view name);
    std::string get_ospf_interface_area_id(const Document& doc, std::string_view name);

    // NTP.
    std::string get_ntp_adminStatus();
    std::string get_ntp_adminStatus(const Document& doc);
    void set_ntp_adminStatus(const std::string& status);
    std::string get_ntp_server(bool primary);
    std::string get_ntp_server(const Document& doc, bool primary);
    void set_ntp_server(bool primary, const std::string& address);
    Document get_ntp_status();
    void restart_ntpd();

    // DNS.
    Document get_dns_servers();
    Document get_dns_servers(const Document& doc);
    void set_dns_servers(const Document& servers);
    void update_dns_server(Document& doc, const std::string& role, const std::string& address);
    void update_resolv_conf(const std::string& primary, const std::string& secondary);

    // Access-control whitelist.
    void acl_set_adminStatus(const std::string& status);
    void acl_set_whitelist(addr_family family, const Document& doc);
    Document acl_get_whitelist(addr_family family);
    std::string acl_get_adminStatus();
    Document _acl_get_whitelist(addr_family family);

    // LLDP.
    void lldp_init();
    void lldp_set_enable(std::string_view port, bool enable);
    bool lldp_get_enable(std::string_view port);
    Document lldp_update_neighbours();

    // Date and time, CLI passthrough, automation mode.
    std::string run_cli_command(const std::string& cmd);
    std::string get_date_time();
    bool set_date_time(const std::string& when);
    void set_automation_mode(const std::string& mode);
    std::string get_automation_mode();

    // Software images.
    bool boot_image(const std::string& arg);
    bool run_rauc_install_command(const std::string& url);
    bool switch_image(const std::string& arg);
    std::string get_install_status();

    // Maintenance.
    bool run_reboot_command(const bool& unused);
    bool restore_factory_defaults(bool reboot, unsigned int level);
    bool techlog_generate(const Document& doc);
    void handle_extra_package(const std::string& url);
    static void run_system_command(const char* command);

    // Device temperature margin for "data/temperatureMargin".
    double get_master_margin();

  private:
    // Registers the node map; `running` and `oper` are the documents start() exported once, from
    // which every initial value is read.
    void register_nodes(Document& running, const Document& oper);
    void set_install_status(std::string text);

    dh_db& db;

    // Guards the in-memory models (OSPF, addresses, ACL, LLDP flags), the document cache and
    // every export-edit-import sequence. Taken by setters and by _cached_oper_get.
    std::mutex mutex;
    // Held for the whole of boot_image and switch_image: one image operation at a time.
    std::mutex image_mutex;
    // Guards install_status only, for the moment of a copy or an assignment.
    std::mutex install_status_mutex;

    dh::api::value_group group{1000, 0, 0};
    std::shared_ptr<dh::api::status_value<bool>> config_status;

    // Last management address written by set_ifconf and its prefix length; likewise for e28.
    std::string mgmt_ip_address;
    int mgmt_prefix_length = 0;
    std::string e28_ip_address;
    int e28_prefix_length = 0;

    // Area id that marks an OSPF area as the tunnel area.
    std::string tunnel_ospf_area_id = "0.0.83.79";

    // OSPF model (guarded by mutex).
    std::string ospf_area_id;
    bool ospf_admin_up = false;
    std::map<std::string, std::optional<bool>, std::less<>> ospf_enabled;
    std::map<std::string, std::optional<bool>, std::less<>> ospf_passive;
    std::map<std::string, unsigned int, std::less<>> ospf_cost;
    std::map<std::string, std::string, std::less<>> ospf_uplink_area_id;
    std::map<std::string_view, bool> ospf_flag;
    std::map<std::string_view, tunnel_mode_t> ospf_tunnel_mode;

    std::thread poll_thread;
    // The poll thread waits on poll_wakeup between cycles so that the destructor's stop request
    // ends the wait at once; poll_mutex guards nothing else.
    std::mutex poll_mutex;
    std::condition_variable poll_wakeup;

    // Interface status values, filled by start() and updated by the poll thread.
    std::map<std::string_view, sysrepo_ietf_ifaces_db> ietf_ifaces;

    // LLDP (guarded by mutex).
    std::map<std::string_view, bool> lldp_enabled;
    std::map<std::string_view, std::shared_ptr<pushed_document_node>> lldp_neighbour_nodes;

    // Access-control whitelist (guarded by mutex).
    bool acl_enabled = false;
    std::string acl_whitelist;

    // Text of the last software-install step (guarded by install_status_mutex).
    std::string install_status;

    std::shared_ptr<sfp_plus_data_reader> sfp_reader;

    std::atomic<bool> stop_poll{false};

    // Operational documents by module name (guarded by mutex). Keys must have static lifetime.
    std::unordered_map<std::string_view, TempDoc> doc_cache;
};
