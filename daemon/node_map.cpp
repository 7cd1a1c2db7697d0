// The node map: every path the daemon serves, its node kind, and the unit and method behind it,
// in registration order (the numbers are the rows of the node reference, docs/nodes.md).

#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"
#include "version_texts.hpp"

using namespace sysrepo_common;

namespace {

template <auto M>
using param = dh::api::config_param<M>;
template <auto M>
using command = dh::api::command<M>;
template <auto M>
using volatile_value = dh::api::volatile_value<M>;
using const_text = dh::api::const_value<std::string>;
using temperature_margin_node = dh::api::hysteresis_filtered_value<
    dh::api::polled_volatile_value_impl<&sfp_plus_data_reader::get_master_margin>>;
using lldp_poll_node = dh::api::hysteresis_filtered_value<
    dh::api::polled_volatile_value_impl<&lldp_unit::lldp_update_neighbours>>;
using pushed_document_node =
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<Document>>;

// lldpd sends every 30 s by default, so neighbours cannot change faster than that.
constexpr unsigned lldp_poll_cycles = 30;

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

void sysrepo_device_handler::register_nodes(const Document& running, const Document& oper) {
    using IF = interfaces_unit;
    using OSPF = ospf_unit;
    using NTP = ntp_unit;
    using SYS = system_unit;
    using IMG = images_unit;
    using MNT = maintenance_unit;
    const std::weak_ptr<IF> ifs = interfaces_;
    const std::weak_ptr<OSPF> ospf = ospf_;
    const std::weak_ptr<NTP> ntp = ntp_;
    const std::weak_ptr<SYS> sys = system_;
    const std::weak_ptr<IMG> img = images_;
    const std::weak_ptr<MNT> mnt = maintenance_;
    auto add = [this](auto node, unsigned cls = plain) {
        group.add_value(node, cls);
        return node;
    };
    // A parameter whose setter is a datastore edit (its host effects deferred by the unit): it
    // may be written in set_many and in a confirmed commit. The others (commands, and parameters
    // whose setter only runs host commands or writes files) are added with add.
    auto add_batchable = [&add](auto node) {
        node->allow_in_batches();
        return add(node);
    };

    // 1, 2
    add(command<&MNT::restore_factory_defaults>::create(db, "command/restoreFactoryDefaults", mnt,
                                                        true));
    add(command<&MNT::restore_factory_defaults>::create(db, "command/deliveryClear", mnt, false));
    // 3
    add(param<&SYS::set_automation_mode>::create(db, "config/automationMode", sys, [this] {
        return system_->get_automation_mode();
    }))->set_allowed_values(texts({MANAGED_ILA, MANAGEDNETCONF_MODE, MANAGEDCLI_MODE}));
    // 4
    for (std::string_view name : IETH_INTERFACES)
        add_batchable(param<&IF::set_ifconf_enabled>::create(
            db, fmt::format("config/{}/adminStatus", name), ifs,
            [&, name] { return interfaces_->get_ifconf_enabled(running, name); }, name,
            std::optional<int>{}));
    // 5
    for (std::string_view name : IETH_INTERFACES)
        add_batchable(param<&IF::set_ifconf>::create(
            db, fmt::format("config/{}/ipv4Settings", name), ifs,
            [&, name] { return interfaces_->get_ifconf(running, name); }, name));
    // 6
    for (std::string_view name : IETH_INTERFACES)
        add(const_text::create(db, fmt::format("data/{}/macAddress", name),
                               IF::get_ifconf_oper_macaddr(oper, name)));
    // 7
    for (std::string_view name : IETH_INTERFACES)
        add(volatile_value<&IF::get_ifconf_oper_ipv4>::create(
            db, fmt::format("data/{}/ipv4Settings", name), ifs, name));
    // 8 to 11: pushed by the interfaces unit's poll.
    auto& status = interfaces_->status_nodes();
    for (std::string_view name : IETH_INTERFACES)
        status[name].admin_status = add(
            pushed_string_node::create(db, fmt::format("data/{}/adminStatus", name)), monitored);
    for (std::string_view name : IETH_INTERFACES)
        status[name].link_status =
            add(pushed_string_node::create(db, fmt::format("data/{}/linkStatus", name)), monitored);
    for (std::string_view name : IETH_INTERFACES)
        status[name].link_media_type = add(
            pushed_string_node::create(db, fmt::format("data/{}/linkMediaType", name)), monitored);
    for (std::string_view name : IETH_INTERFACES)
        status[name].bridge_port =
            add(pushed_string_node::create(db, fmt::format("data/{}/bridgePort", name)), monitored);
    // 12
    add(volatile_value<&IF::get_ifconf_oper_ipv4>::create(db, "data/mgmt/ipv4Settings", ifs,
                                                          "mgmt"));
    // 13
    for (const auto& tun : TUN_INTERFACES)
        add_batchable(param<&IF::set_ifconf_enabled>::create(
            db, fmt::format("config/{}/adminStatus", tun.name), ifs,
            [&, name = tun.name] { return interfaces_->get_ifconf_enabled(running, name); },
            tun.name, std::optional<int>{tun.vlan}));
    // 14
    add(volatile_value<&IF::get_gateway>::create(db, "data/gateway", ifs));
    // 15
    add_batchable(param<&OSPF::set_ospf_area_id>::create(
        db, "config/ospf/areaId", ospf, [&] { return ospf_->get_ospf_area_id(running); }));
    // 16
    for (std::string_view name : RDM_INTERFACES)
        add_batchable(param<&IF::set_interface_mode>::create(
                          db, fmt::format("config/{}/mode", name), ifs,
                          [&, name] { return interfaces_->_get_interface_mode_str(running, name); },
                          name))
            ->set_allowed_values({"tunnelOnly", "mgmtOnly", "mgmtAndTunnel"});
    // 17
    for (std::string_view name : RDM_INTERFACES)
        add(volatile_value<&IF::get_interface_mode_str>::create(
            db, fmt::format("data/{}/mode", name), ifs, name));
    // 18
    add_batchable(param<&OSPF::set_ospf_adminStatus>::create(
                      db, "config/ospf/adminStatus", ospf,
                      [&] { return ospf_->get_ospf_adminStatus(running); }))
        ->set_allowed_values({"up", "down"});
    // 19
    for (std::string_view name : OSPF_INTERFACES)
        add_batchable(param<&OSPF::set_ospf_if_adminStatus>::create(
            db, fmt::format("config/ospf/{}/adminStatus", name), ospf,
            [&, name] { return ospf_->get_ospf_if_adminStatus(running, name); }, name));
    // 20
    for (std::string_view name : OSPF_UPLINK_INTERFACES)
        add_batchable(param<&OSPF::set_ospf_interface_area_id>::create(
            db, fmt::format("config/ospf/{}/areaId", name), ospf, [] { return std::string(); },
            name));
    // 21, 22
    for (const auto& tun : TUN_INTERFACES)
        add_batchable(param<&OSPF::set_ospf_interface_metric>::create(
            db, fmt::format("config/ospf/{}/metric", tun.name), ospf,
            [&, name = tun.name] { return ospf_->get_ospf_interface_metric(running, name); },
            tun.name));
    for (const auto& tun : TUN_INTERFACES)
        add_batchable(param<&OSPF::set_ospf_interface_passive>::create(
            db, fmt::format("config/ospf/{}/passive", tun.name), ospf,
            [&, name = tun.name] { return ospf_->get_ospf_interface_passive(running, name); },
            tun.name));
    // 23, 24
    for (std::string_view name : OSPF_INTERFACES)
        add_batchable(param<&OSPF::set_ospf_interface_passive>::create(
            db, fmt::format("config/ospf/{}/passive", name), ospf,
            [&, name] { return ospf_->get_ospf_interface_passive(running, name); }, name));
    for (std::string_view name : OSPF_INTERFACES)
        add_batchable(param<&OSPF::set_ospf_interface_metric>::create(
            db, fmt::format("config/ospf/{}/metric", name), ospf,
            [&, name] { return ospf_->get_ospf_interface_metric(running, name); }, name));
    // 25 to 28
    add_batchable(param<&NTP::set_ntp_adminStatus>::create(db, "config/ntp/adminStatus", ntp, [&] {
        return NTP::get_ntp_adminStatus(running);
    }))->set_allowed_values({"up", "down"});
    add_batchable(param<&NTP::set_ntp_server>::create(
        db, "config/ntp/primaryServer", ntp, [&] { return NTP::get_ntp_server(running, true); },
        true));
    add_batchable(param<&NTP::set_ntp_server>::create(
        db, "config/ntp/secondaryServer", ntp, [&] { return NTP::get_ntp_server(running, false); },
        false));
    add(volatile_value<&NTP::get_ntp_status>::create(db, "data/ntp/serverStatus", ntp));
    // 29, 30
    add(command<&SYS::set_date_time>::create(db, "command/dateTime", sys));
    add(volatile_value<&SYS::get_date_time>::create(db, "data/dateTime", sys));
    // 31
    add_batchable(param<&dns_unit::set_dns_servers>::create(
        db, "config/dnsSettings", std::weak_ptr<dns_unit>(dns_),
        [&] { return dns_->get_dns_servers(running); }));
    // 32 to 34
    const std::weak_ptr<acl_unit> acl = acl_;
    add(param<&acl_unit::acl_set_whitelist>::create(db, "config/acl/whitelist", acl, {},
                                                    addr_family::ipv4));
    add(param<&acl_unit::acl_set_adminStatus>::create(db, "config/acl/adminStatus", acl, {}))
        ->set_allowed_values({"up", "down"});
    add(volatile_value<&acl_unit::acl_get_whitelist>::create(db, "data/acl/whitelist", acl,
                                                             addr_family::ipv4));
    // 35, 36
    add(volatile_value<&SYS::run_cli_command>::create(db, "cli/show_ospf_neighbor", sys,
                                                      "show ospf neighbor"));
    add(volatile_value<&SYS::run_cli_command>::create(db, "cli/show_ospf_routes", sys,
                                                      "show ospf routes"));
    // 37 to 40
    add(command<&IMG::boot_image>::create(db, "command/bootImage", img));
    add(command<&IMG::switch_image>::create(db, "command/switchImage", img));
    add(volatile_value<&IMG::get_install_status>::create(db, "data/installStatus", img));
    add(command<&MNT::run_reboot_command>::create(db, "command/reboot", mnt));
    // 41, 42
    add(const_text::create(db, "data/fwVersion", read_fw_version(door_)));
    add(const_text::create(db, "data/containerVersion", read_container_version(door_)));
    // 43
    add(command<&MNT::techlog_generate>::create(db, "command/techlogGenerate", mnt));
    // 44
    add(temperature_margin_node::create(db, "data/temperatureMargin",
                                        std::weak_ptr<sfp_plus_data_reader>(sfp_), margin_filter,
                                        margin_poll_cycles),
        monitored)
        ->set_unit(dh::api::units::celsius);
    // 45, 46
    const std::weak_ptr<lldp_unit> lldp = lldp_;
    for (std::string_view port : RDM_INTERFACES) {
        lldp_->attach(
            port, pushed_document_node::create(db, fmt::format("data/{}/lldp/neighbours", port),
                                               pushed_document_node::filter_type::make_equal()));
        add(param<&lldp_unit::lldp_set_enable>::create(
            db, fmt::format("config/{}/lldp/enable", port), lldp,
            [this, port] { return lldp_->lldp_get_enable(port); }, port));
    }
    // 47
    lldp_->attach_poll(
        add(lldp_poll_node::create(db, "data/any/lldp/neighbours", lldp,
                                   lldp_poll_node::filter_type::make_equal(), lldp_poll_cycles),
            monitored));
    // 48: presence, powers, margins and inventory per optical port.
    sfp_->init();
    // 49: the state of a confirmed commit.
    commits_->attach_status(commit_status_node::create(db, "data/commitStatus"));

    // The status values start out known rather than waiting for the first poll.
    interfaces_->update_ietf_ifaces_map(oper);
}
