// Start-up and the node map: every path the daemon serves, its node kind and the handler method
// behind it, in registration order (the numbers are the rows of the node reference,
// docs/nodes.md).

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "sfp_plus_data_reader.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"
#include "version_texts.hpp"

using namespace sysrepo_common;

namespace {

using H = sysrepo_device_handler;
template <auto M>
using param = dh::api::config_param<M>;
template <auto M>
using command = dh::api::command<M>;
template <auto M>
using volatile_value = dh::api::volatile_value<M>;
using const_text = dh::api::const_value<std::string>;
using temperature_margin_node =
    dh::api::hysteresis_filtered_value<dh::api::polled_volatile_value_impl<&H::get_master_margin>>;

// The temperature margin is polled every 5 s; a change of 2 degrees is published at once, one of
// half a degree once it has lasted 3 s, smaller ones not at all.
constexpr unsigned margin_poll_cycles = 5;
const auto margin_filter = temperature_margin_node::filter_type::make_default(2.0, 0.5, 3);

// Value-group classes: 1 for the monitored values that the group ticks, 0 for the rest.
constexpr unsigned plain = 0;
constexpr unsigned monitored = 1;

std::vector<std::string> texts(std::initializer_list<std::string_view> views) {
    return {views.begin(), views.end()};
}

}  // namespace

void sysrepo_device_handler::start() {
    ospf_init();
    Document running = export_data(false);
    const Document oper = get_ietf_ifaces_oper();
    register_nodes(running, oper);
    lldp_init();
    sfp_reader->init();
    poll_thread = std::thread(&sysrepo_device_handler::poll_func, this);
    config_status->set(true);
}

// The getters given to parameters run once, inside create(), and read the documents start()
// exported; so start-up costs one export however many parameters there are.
void sysrepo_device_handler::register_nodes(Document& running, const Document& oper) {
    const std::weak_ptr<H> self = weak_from_this();
    auto add = [this](auto node, unsigned cls = plain) {
        group.add_value(node, cls);
        return node;
    };

    // 1, 2
    add(command<&H::restore_factory_defaults>::create(db, "command/restoreFactoryDefaults", self,
                                                      true));
    add(command<&H::restore_factory_defaults>::create(db, "command/deliveryClear", self, false));
    // 3
    add(param<&H::set_automation_mode>::create(db, "config/automationMode", self, [this] {
        return get_automation_mode();
    }))->set_allowed_values(texts({MANAGED_ILA, MANAGEDNETCONF_MODE, MANAGEDCLI_MODE}));
    // 4
    for (std::string_view name : IETH_INTERFACES)
        add(param<&H::set_ifconf_enabled>::create(
            db, fmt::format("config/{}/adminStatus", name), self,
            [&, name] { return get_ifconf_enabled(running, name); }, name, std::optional<int>{}));
    // 5
    for (std::string_view name : IETH_INTERFACES)
        add(param<&H::set_ifconf>::create(
            db, fmt::format("config/{}/ipv4Settings", name), self,
            [&, name] { return get_ifconf(running, name); }, name));
    // 6
    for (std::string_view name : IETH_INTERFACES)
        add(const_text::create(db, fmt::format("data/{}/macAddress", name),
                               get_ifconf_oper_macaddr(oper, name)));
    // 7
    for (std::string_view name : IETH_INTERFACES)
        add(volatile_value<&H::get_ifconf_oper_ipv4>::create(
            db, fmt::format("data/{}/ipv4Settings", name), self, name));
    // 8 to 11: pushed by the poll thread.
    for (std::string_view name : IETH_INTERFACES)
        ietf_ifaces[name].admin_status = add(
            pushed_string_node::create(db, fmt::format("data/{}/adminStatus", name)), monitored);
    for (std::string_view name : IETH_INTERFACES)
        ietf_ifaces[name].link_status =
            add(pushed_string_node::create(db, fmt::format("data/{}/linkStatus", name)), monitored);
    for (std::string_view name : IETH_INTERFACES)
        ietf_ifaces[name].link_media_type = add(
            pushed_string_node::create(db, fmt::format("data/{}/linkMediaType", name)), monitored);
    for (std::string_view name : IETH_INTERFACES)
        ietf_ifaces[name].bridge_port =
            add(pushed_string_node::create(db, fmt::format("data/{}/bridgePort", name)), monitored);
    // 12
    add(volatile_value<&H::get_ifconf_oper_ipv4>::create(db, "data/mgmt/ipv4Settings", self,
                                                         "mgmt"));
    // 13
    for (const auto& tun : TUN_INTERFACES)
        add(param<&H::set_ifconf_enabled>::create(
            db, fmt::format("config/{}/adminStatus", tun.name), self,
            [&, name = tun.name] { return get_ifconf_enabled(running, name); }, tun.name,
            std::optional<int>{tun.vlan}));
    // 14
    add(volatile_value<&H::get_gateway>::create(db, "data/gateway", self));
    // 15
    add(param<&H::set_ospf_area_id>::create(db, "config/ospf/areaId", self,
                                            [&] { return get_ospf_area_id(running); }));
    // 16
    for (std::string_view name : RDM_INTERFACES)
        add(param<&H::set_interface_mode>::create(
                db, fmt::format("config/{}/mode", name), self,
                [&, name] { return _get_interface_mode_str(running, name); }, name))
            ->set_allowed_values({"tunnelOnly", "mgmtOnly", "mgmtAndTunnel"});
    // 17
    for (std::string_view name : RDM_INTERFACES)
        add(volatile_value<&H::get_interface_mode_str>::create(
            db, fmt::format("data/{}/mode", name), self, name));
    // 18
    add(param<&H::set_ospf_adminStatus>::create(db, "config/ospf/adminStatus", self, [&] {
        return get_ospf_adminStatus(running);
    }))->set_allowed_values({"up", "down"});
    // 19
    for (std::string_view name : OSPF_INTERFACES)
        add(param<&H::set_ospf_if_adminStatus>::create(
            db, fmt::format("config/ospf/{}/adminStatus", name), self,
            [&, name] { return get_ospf_if_adminStatus(running, name); }, name));
    // 20
    for (std::string_view name : OSPF_UPLINK_INTERFACES)
        add(param<&H::set_ospf_interface_area_id>::create(
            db, fmt::format("config/ospf/{}/areaId", name), self, [] { return std::string(); },
            name));
    // 21, 22
    for (const auto& tun : TUN_INTERFACES)
        add(param<&H::set_ospf_interface_metric>::create(
            db, fmt::format("config/ospf/{}/metric", tun.name), self,
            [&, name = tun.name] { return get_ospf_interface_metric(running, name); }, tun.name));
    for (const auto& tun : TUN_INTERFACES)
        add(param<&H::set_ospf_interface_passive>::create(
            db, fmt::format("config/ospf/{}/passive", tun.name), self,
            [&, name = tun.name] { return get_ospf_interface_passive(running, name); }, tun.name));
    // 23, 24
    for (std::string_view name : OSPF_INTERFACES)
        add(param<&H::set_ospf_interface_passive>::create(
            db, fmt::format("config/ospf/{}/passive", name), self,
            [&, name] { return get_ospf_interface_passive(running, name); }, name));
    for (std::string_view name : OSPF_INTERFACES)
        add(param<&H::set_ospf_interface_metric>::create(
            db, fmt::format("config/ospf/{}/metric", name), self,
            [&, name] { return get_ospf_interface_metric(running, name); }, name));
    // 25 to 28
    add(param<&H::set_ntp_adminStatus>::create(db, "config/ntp/adminStatus", self, [&] {
        return get_ntp_adminStatus(running);
    }))->set_allowed_values({"up", "down"});
    add(param<&H::set_ntp_server>::create(
        db, "config/ntp/primaryServer", self, [&] { return get_ntp_server(running, true); }, true));
    add(param<&H::set_ntp_server>::create(
        db, "config/ntp/secondaryServer", self, [&] { return get_ntp_server(running, false); },
        false));
    add(volatile_value<&H::get_ntp_status>::create(db, "data/ntp/serverStatus", self));
    // 29, 30
    add(command<&H::set_date_time>::create(db, "command/dateTime", self));
    add(volatile_value<&H::get_date_time>::create(db, "data/dateTime", self));
    // 31
    add(param<&H::set_dns_servers>::create(db, "config/dnsSettings", self,
                                           [&] { return get_dns_servers(running); }));
    // 32 to 34
    add(param<&H::acl_set_whitelist>::create(db, "config/acl/whitelist", self, {},
                                             addr_family::ipv4));
    add(param<&H::acl_set_adminStatus>::create(db, "config/acl/adminStatus", self, {}))
        ->set_allowed_values({"up", "down"});
    add(volatile_value<&H::acl_get_whitelist>::create(db, "data/acl/whitelist", self,
                                                      addr_family::ipv4));
    // 35, 36
    add(volatile_value<&H::run_cli_command>::create(db, "cli/show_ospf_neighbor", self,
                                                    "show ospf neighbor"));
    add(volatile_value<&H::run_cli_command>::create(db, "cli/show_ospf_routes", self,
                                                    "show ospf routes"));
    // 37 to 40
    add(command<&H::boot_image>::create(db, "command/bootImage", self));
    add(command<&H::switch_image>::create(db, "command/switchImage", self));
    add(volatile_value<&H::get_install_status>::create(db, "data/installStatus", self));
    add(command<&H::run_reboot_command>::create(db, "command/reboot", self));
    // 41, 42
    add(const_text::create(db, "data/fwVersion", read_fw_version()));
    add(const_text::create(db, "data/containerVersion", read_container_version()));
    // 43
    add(command<&H::techlog_generate>::create(db, "command/techlogGenerate", self));
    // 44
    add(temperature_margin_node::create(db, "data/temperatureMargin", self, margin_filter,
                                        margin_poll_cycles),
        monitored);
    // 45 to 47: lldp_init(); 48: the SFP+ reader's init().

    // The status values start out known rather than waiting for the poll thread's first cycle.
    update_ietf_ifaces_map(oper);
}
