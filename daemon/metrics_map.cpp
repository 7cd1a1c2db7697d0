// The device's gauges: one row per family, named as Prometheus names things (base units, a
// unit suffix, booleans as 1 and 0).

#include "metrics_map.hpp"

#include <string>

#include "ntp_status.hpp"
#include "sysrepo_common.hpp"

namespace {

template <std::size_t N>
std::vector<std::string> names(const std::array<std::string_view, N>& views) {
    return {views.begin(), views.end()};
}

// One series per optical port from a number of the module data the reader last read.
std::vector<metrics::gauge_series> module_reading(sfp_plus_data_reader& sfp,
                                                  const std::string& property,
                                                  std::string_view unit, double scale = 1) {
    std::vector<metrics::gauge_series> out;
    for (const auto port : sysrepo_common::SFP_INTERFACES)
        out.push_back({std::string(port), [&sfp, port, property, unit, scale] {
                           const auto v = sfp.last_reading(port, property, unit);
                           return v ? std::optional<double>(*v * scale) : std::nullopt;
                       }});
    return out;
}

}  // namespace

std::vector<metrics::gauge_family> device_gauges(dh_db& db, sysrepo_device_handler& handler) {
    using metrics::conversion;
    using metrics::node_series;
    const auto ports = names(sysrepo_common::SFP_INTERFACES);
    const auto interfaces = names(sysrepo_common::IETH_INTERFACES);
    auto& sfp = handler.sfp();
    auto& ntp = handler.ntp();

    std::vector<metrics::gauge_series> present;
    for (const auto& port : ports)
        present.push_back({port, [&sfp, port] { return sfp.present(port) ? 1.0 : 0.0; }});

    return {
        {"dh_sfp_present", "1 while an optical module is in the port.", "port", present},
        {"dh_sfp_rx_power_dbm", "Received optical power, dBm (-99 for none).", "port",
         node_series(db, "data/{}/sfp/rxPower", ports, conversion::number)},
        {"dh_sfp_tx_power_dbm", "Transmitted optical power, dBm (-99 for none).", "port",
         node_series(db, "data/{}/sfp/txPower", ports, conversion::number)},
        {"dh_sfp_rx_power_low_warning_threshold_dbm",
         "The module's low warning threshold of the received power, dBm.", "port",
         node_series(db, "data/{}/sfp/rxPowerLowWarningThreshold", ports, conversion::number)},
        {"dh_sfp_temperature_margin_celsius",
         "The module's high temperature alarm threshold minus its temperature.", "port",
         node_series(db, "data/{}/sfp/temperatureMargin", ports, conversion::number)},
        {"dh_sfp_temperature_celsius", "Module temperature.", "port",
         module_reading(sfp, "Module temperature", "degrees C")},
        {"dh_sfp_supply_voltage_volts", "Module supply voltage.", "port",
         module_reading(sfp, "Module voltage", "V")},
        {"dh_sfp_laser_bias_current_amperes", "Laser bias current.", "port",
         module_reading(sfp, "Laser bias current", "mA", 0.001)},
        {"dh_temperature_margin_celsius",
         "The device's temperature margin: that of its warmest optical module.", "",
         node_series(db, "data/temperatureMargin", {""}, conversion::number)},
        {"dh_link_up", "1 while the interface's link is up, 0 while it is down.", "interface",
         node_series(db, "data/{}/linkStatus", interfaces, conversion::up_down)},
        {"dh_interface_admin_up", "1 while the interface is enabled, 0 while it is disabled.",
         "interface", node_series(db, "data/{}/adminStatus", interfaces, conversion::up_down)},
        {"dh_ntp_synchronized",
         "1 when the last NTP status read found the clock synchronised to a configured server.",
         "",
         {{"",
           [&ntp]() -> std::optional<double> {
               const auto overall = ntp.last_overall();
               if (!overall) return std::nullopt;
               return *overall == ntp_status::synchronised ? 1.0 : 0.0;
           }}}},
        {"dh_config_ready", "1 once the daemon has read the configuration and serves every node.",
         "", node_series(db, "data/configStatus", {""}, conversion::number)},
    };
}
