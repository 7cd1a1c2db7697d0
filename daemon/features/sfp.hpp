#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "dh_db.hpp"
#include "door.hpp"
#include "scheduler.hpp"

// Publishes, per pluggable optical port, module presence, optical powers, temperature margin and
// inventory, all read from `ethtool -m PORT` (cached one second per port). poll(), run every
// second by the scheduler, follows insertion and removal. Created as a shared object: its nodes
// hold weak references.
class sfp_plus_data_reader : public std::enable_shared_from_this<sfp_plus_data_reader> {
  public:
    // The powers and margins are polled by a value group on `sched`.
    sfp_plus_data_reader(dh_db& db, const host::door& door, dh::scheduler& sched);
    ~sfp_plus_data_reader();
    sfp_plus_data_reader(const sfp_plus_data_reader&) = delete;
    sfp_plus_data_reader& operator=(const sfp_plus_data_reader&) = delete;

    // Registers the nodes of every port.
    void init();

    bool present(std::string_view port);
    double get_power(const std::string& property, std::string_view port);
    double get_temp_margin(std::string_view port);
    std::string get_description(std::string_view port);
    std::string parse_string_from_property(const std::string& property, std::string_view port);
    double parse_double_from_property(const std::string& property, std::string_view port,
                                      std::string_view unit);
    bool update_present(std::string_view port);
    // One look at every port; never throws.
    void poll();
    // The device's temperature margin: that of its warmest module.
    double get_master_margin();
    // A number of the module data last read from `port` ("Module voltage" in "V"), taken from
    // the cache however old it is, without running ethtool; nothing while the port holds no
    // module or when the property is missing or unreadable.
    std::optional<double> last_reading(std::string_view port, const std::string& property,
                                       std::string_view unit) const;

  private:
    struct state;
    // Runs ethtool for `port` and caches what it printed; throws when ethtool fails.
    void load(std::string_view port);

    dh_db& db_;
    const host::door& door_;
    std::unique_ptr<state> state_;
};
