#include "sfp.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <chrono>
#include <mutex>
#include <shared_mutex>
#include <sstream>
#include <unordered_map>

#include "dh_api/dh_api.hpp"
#include "dh_error.hpp"
#include "ethtool_parse.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"

using namespace std::chrono_literals;

namespace ethtool {

properties parse_module_info(std::string_view text) {
    properties out;
    std::istringstream in{std::string(text)};
    for (std::string line; std::getline(in, line);) {
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        out[boost::algorithm::trim_copy(line.substr(0, colon))] =
            boost::algorithm::trim_copy(line.substr(colon + 1));
    }
    return out;
}

double parse_number(const std::string& text, std::string_view unit) {
    const auto slash = text.find('/');
    const auto at = text.find(unit);
    if (slash == std::string::npos || at == std::string::npos) throw dh_error(-22, "illformed");
    if (slash < at) return std::stod(text.substr(slash + 2, at - 3 - slash));
    return std::stod(text.substr(0, at - 1));
}

namespace {

// "0x07 (LC)" -> "LC"; a text without parentheses stays as it is.
std::string name_in_parentheses(const std::string& text) {
    const auto open = text.find('(');
    const auto close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) return text;
    return text.substr(open + 1, close - open - 1);
}

}  // namespace

std::string compose_description(const std::function<std::string(const std::string&)>& property) {
    const auto identifier = property("Identifier");
    const auto part_number = property("Vendor PN");
    auto transceiver = property("Transceiver type");
    const auto length = property("Length (SMF,km)");
    const auto connector = property("Connector");
    const auto wavelength = property("Laser wavelength");

    const bool sfp28 = part_number.find("SFP28") != std::string::npos ||
                       transceiver.find("SFP28") != std::string::npos ||
                       transceiver.find("25G") != std::string::npos;
    if (const auto sep = transceiver.rfind(": "); sep != std::string::npos)
        transceiver.erase(0, sep + 2);
    return fmt::format("{}, {}, {}, {}, {}", sfp28 ? "SFP28" : name_in_parentheses(identifier),
                       transceiver, wavelength, length, name_in_parentheses(connector));
}

}  // namespace ethtool

namespace {

namespace units = dh::api::units;

using pushed_string =
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<std::string>>;
using presence_node = dh::api::volatile_value<&sfp_plus_data_reader::present>;
using power_node = dh::api::hysteresis_filtered_value<
    dh::api::polled_volatile_value_impl<&sfp_plus_data_reader::get_power>>;
using margin_node = dh::api::hysteresis_filtered_value<
    dh::api::polled_volatile_value_impl<&sfp_plus_data_reader::get_temp_margin>>;

// Powers and margins are polled every POLL_CYCLES ticks of the reader's one-second group.
constexpr unsigned POLL_CYCLES = 2;

host::argv_t ethtool_argv(std::string_view port) {
    return {"ethtool", "-m", std::string(port)};
}

const host::options ethtool_options = host::query().quiet();

}  // namespace

struct sfp_plus_data_reader::state {
    struct TempMap {
        ethtool::properties props;
        dh::clock::time_point expires;
    };
    struct inventory {
        std::shared_ptr<pushed_string> serial_number, hw_revision, part_name, description,
            fw_revision;
    };

    // Guards cache: reads shared, stores exclusive; never held while ethtool runs.
    std::shared_mutex cache_mutex;
    std::unordered_map<std::string, TempMap> cache;

    // One flag per port, made in the constructor; the map itself never changes afterwards.
    std::unordered_map<std::string, std::atomic<bool>> presence;

    // Filled by init() before the poll starts; afterwards only the poll uses it.
    std::unordered_map<std::string, inventory> inventories;

    // Half a second out of step with the owner's one-second poll, so the two do not run at once.
    dh::api::value_group group;
    const dh::clock& time;

    explicit state(dh::scheduler& sched) : group(sched, 1000, 500), time(sched.time()) {}
};

sfp_plus_data_reader::sfp_plus_data_reader(dh_db& db, const host::door& door, dh::scheduler& sched)
    : db_(db), door_(door), state_(std::make_unique<state>(sched)) {
    for (auto port : sysrepo_common::SFP_INTERFACES) state_->presence[std::string(port)] = false;
}

sfp_plus_data_reader::~sfp_plus_data_reader() = default;

void sfp_plus_data_reader::init() {
    MSG_LOG(6, "init") << "Initializing SFP+ data reader."
                       << msg_log::getCodeTrace(__FILE__, __LINE__);
    const auto self = weak_from_this();
    auto& group = state_->group;
    const auto power_filter = [] { return power_node::filter_type::make_default(1.0, 0.2, 3); };
    for (auto view : sysrepo_common::SFP_INTERFACES) {
        const std::string port(view);
        // Class 0: a read-through value has no periodic work for the group's ticks.
        group.add_value(presence_node::create(db_, fmt::format("{}/sfp/present", port), self, port),
                        0);
        const auto add = [&](std::shared_ptr<dh_db_leaf_node> node, const char* unit) {
            node->set_unit(unit);
            group.add_value(node, 1);
        };
        add(power_node::create(db_, fmt::format("data/{}/sfp/rxPower", port), self, power_filter(),
                               POLL_CYCLES, "Receiver signal average optical power", port),
            units::dbm);
        add(power_node::create(db_, fmt::format("data/{}/sfp/txPower", port), self, power_filter(),
                               POLL_CYCLES, "Laser output power", port),
            units::dbm);
        add(power_node::create(db_, fmt::format("data/{}/sfp/rxPowerLowWarningThreshold", port),
                               self, power_node::filter_type::make_equal(), POLL_CYCLES,
                               "Laser rx power low warning threshold", port),
            units::dbm);
        add(margin_node::create(db_, fmt::format("data/{}/sfp/temperatureMargin", port), self,
                                margin_node::filter_type::make_default(5.0, 1.0, 5), POLL_CYCLES,
                                port),
            units::celsius);

        // Inventory texts are empty while no module is in the port.
        auto make = [&](std::string_view leaf) {
            auto node = pushed_string::create(db_, fmt::format("{}/sfp/inventory/{}", port, leaf));
            node->set_value("");
            return node;
        };
        state_->inventories[port] = {make("serialNumber"), make("hwRevision"), make("partName"),
                                     make("description"), make("fwRevision")};
    }
}

bool sfp_plus_data_reader::present(std::string_view port) {
    const auto it = state_->presence.find(std::string(port));
    return it != state_->presence.end() && it->second.load();
}

// Polled readings of an empty port fail without starting ethtool: the poll has found the
// port empty within the last second.
static void require_present(sfp_plus_data_reader& reader, std::string_view port) {
    if (!reader.present(port))
        throw dh_error(-22, fmt::format("Failed to get SFP info. SFP+ {} not present.", port));
}

double sfp_plus_data_reader::get_power(const std::string& property, std::string_view port) {
    require_present(*this, port);
    const double value = parse_double_from_property(property, port, "dBm");
    return value <= -40.0 ? -99.0 : value;
}

double sfp_plus_data_reader::get_temp_margin(std::string_view port) {
    require_present(*this, port);
    return parse_double_from_property("Module temperature high alarm threshold", port,
                                      "degrees C") -
           parse_double_from_property("Module temperature", port, "degrees C");
}

std::string sfp_plus_data_reader::get_description(std::string_view port) {
    try {
        return ethtool::compose_description([&](const std::string& property) {
            return parse_string_from_property(property, port);
        });
    } catch (const std::exception& e) {
        MSG_LOG(4, "get_description")
            << fmt::format("Failed to get SFP+ {} description: {}", port, e.what())
            << msg_log::getCodeTrace(__FILE__, __LINE__);
    } catch (...) {
        MSG_LOG(4, "get_description") << fmt::format("Failed to get SFP+ {} description.", port)
                                      << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
    return {};
}

std::string sfp_plus_data_reader::parse_string_from_property(const std::string& property,
                                                             std::string_view port) {
    const std::string key(port);
    {
        std::shared_lock lock(state_->cache_mutex);
        const auto it = state_->cache.find(key);
        if (it != state_->cache.end() && state_->time.now() < it->second.expires) {
            const auto found = it->second.props.find(property);
            if (found == it->second.props.end()) throw dh_error(-22, "property not found");
            return found->second;
        }
    }

    try {
        load(port);
    } catch (const std::exception& e) {
        throw dh_error(-22, std::string("Failed to get SFP info. ") + e.what());
    }
    std::shared_lock lock(state_->cache_mutex);
    const auto& props = state_->cache[key].props;
    const auto found = props.find(property);
    if (found == props.end()) throw dh_error(-22, "Could not find property in cache.");
    return found->second;
}

void sfp_plus_data_reader::load(std::string_view port) {
    auto props = ethtool::parse_module_info(door_.call(ethtool_argv(port), ethtool_options, false));
    std::unique_lock lock(state_->cache_mutex);
    state_->cache[std::string(port)] = {std::move(props), state_->time.now() + 1s};
}

double sfp_plus_data_reader::parse_double_from_property(const std::string& property,
                                                        std::string_view port,
                                                        std::string_view unit) {
    return ethtool::parse_number(parse_string_from_property(property, port), unit);
}

std::optional<double> sfp_plus_data_reader::last_reading(std::string_view port,
                                                         const std::string& property,
                                                         std::string_view unit) const {
    const auto flag = state_->presence.find(std::string(port));
    if (flag == state_->presence.end() || !flag->second.load()) return std::nullopt;
    std::string text;
    {
        std::shared_lock lock(state_->cache_mutex);
        const auto cached = state_->cache.find(std::string(port));
        if (cached == state_->cache.end()) return std::nullopt;
        const auto found = cached->second.props.find(property);
        if (found == cached->second.props.end()) return std::nullopt;
        text = found->second;
    }
    try {
        // "0.5000 mW / -3.01 dBm" and "45.00 degrees C / 113.00 degrees F" name two units;
        // "3.3010 V" and "35.120 mA" one.
        if (text.find('/') != std::string::npos) return ethtool::parse_number(text, unit);
        if (!text.ends_with(fmt::format(" {}", unit))) return std::nullopt;
        std::size_t used = 0;
        const double value = std::stod(text, &used);
        if (used != text.size() - unit.size() - 1) return std::nullopt;
        return value;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

bool sfp_plus_data_reader::update_present(std::string_view port) {
    bool now_present = true;
    try {
        load(port);
    } catch (const std::exception&) {
        now_present = false;
    }

    auto& flag = state_->presence.at(std::string(port));
    const bool was_present = flag.load();
    const auto inv = state_->inventories.find(std::string(port));
    if (was_present && !now_present) {
        MSG_LOG(6, "update_present") << fmt::format("SFP+ {} not present.", port)
                                     << msg_log::getCodeTrace(__FILE__, __LINE__);
        if (inv != state_->inventories.end())
            for (auto* node : {&inv->second.serial_number, &inv->second.hw_revision,
                               &inv->second.part_name, &inv->second.description})
                (*node)->set_value("");
    } else if (!was_present && now_present) {
        if (inv != state_->inventories.end()) {
            // A property the module does not report leaves its inventory text empty; a module
            // whose data cannot be read is not marked present, so the next poll tries again.
            bool unreadable = false;
            const auto read = [&](const std::string& property) {
                try {
                    return parse_string_from_property(property, port);
                } catch (const std::exception& e) {
                    MSG_LOG(4, "update_present")
                        << fmt::format("SFP+ {} {}: {}", port, property, e.what())
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
                    unreadable = unreadable || std::string_view(e.what()).starts_with("Failed");
                    return std::string();
                }
            };
            const std::string serial = read("Vendor SN"), revision = read("Vendor rev"),
                              part = read("Vendor PN");
            if (unreadable) return false;
            inv->second.serial_number->set_value(serial);
            inv->second.hw_revision->set_value(revision);
            inv->second.part_name->set_value(part);
            inv->second.description->set_value(get_description(port));
        }
        MSG_LOG(6, "update_present")
            << fmt::format("SFP+ {} present.", port) << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
    flag.store(now_present);
    return now_present;
}

void sfp_plus_data_reader::poll() {
    try {
        for (auto port : sysrepo_common::SFP_INTERFACES) update_present(port);
    } catch (...) {
        MSG_LOG(6, "sfp_plus_data_reader::poll_func")
            << "Unknown error." << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
}

// The device's temperature margin is that of its warmest optical module: the smallest margin
// (high alarm threshold minus temperature) among the modules present whose temperatures can be
// read. Without such a module there is no margin to give, and the polled node keeps no new value.
double sfp_plus_data_reader::get_master_margin() {
    std::optional<double> smallest;
    for (auto port : sysrepo_common::SFP_INTERFACES) {
        if (!present(port)) continue;
        try {
            const double margin = get_temp_margin(port);
            smallest = smallest ? std::min(*smallest, margin) : margin;
        } catch (const std::exception&) {
            // A module without temperature monitoring does not count.
        }
    }
    if (!smallest) throw dh_error(-61, "Value has not been set");
    return *smallest;
}
