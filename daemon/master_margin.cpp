#include <algorithm>
#include <optional>

#include "dh_error.hpp"
#include "sfp_plus_data_reader.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"

// The device's temperature margin is that of its warmest optical module: the smallest margin
// (high alarm threshold minus temperature) among the modules present whose temperatures can be
// read. Without such a module there is no margin to give, and the polled node keeps no new value.
double sysrepo_device_handler::get_master_margin() {
    std::optional<double> smallest;
    if (sfp_reader)
        for (auto port : sysrepo_common::SFP_INTERFACES) {
            if (!sfp_reader->present(port)) continue;
            try {
                const double margin = sfp_reader->get_temp_margin(port);
                smallest = smallest ? std::min(*smallest, margin) : margin;
            } catch (const std::exception&) {
                // A module without temperature monitoring does not count.
            }
        }
    if (!smallest) throw dh_error(-61, "Value has not been set");
    return *smallest;
}
