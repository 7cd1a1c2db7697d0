// Gauges built from node values at each scrape, and the listen address rule. The counters are
// checked where they are counted: door, datastore and server tests.

#include "metrics.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>

#include <prometheus/text_serializer.h>

#include "dh_api/dh_api.hpp"
#include "dh_db.hpp"

// A unit whose reads would run a host command: the scrape must never call it. (Outside the
// anonymous namespace: node types name its method.)
struct probe_unit {
    std::atomic<int> calls{0};
    bool present() { return ++calls > 0; }
};

namespace {

using pushed_double =
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<double>>;
using pushed_text =
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<std::string>>;

TEST(NodeGauges, HeldValuesOnlyBuiltAtEachScrape) {
    dh_db db;
    auto unit = std::make_shared<probe_unit>();
    auto e13 = pushed_double::create(db, "data/e13/sfp/rxPower");
    e13->set_value(-3.25);
    pushed_double::create(db, "data/e14/sfp/rxPower");  // no value yet
    pushed_text::create(db, "data/e1/linkStatus")->set_value("up");
    pushed_text::create(db, "data/e2/linkStatus")->set_value("down");
    pushed_text::create(db, "data/e3/linkStatus")->set_value("unknown");
    dh::api::status_value<bool>::create(db, "data/configStatus", true, 0);
    dh::api::volatile_value<&probe_unit::present>::create(db, "data/e13/sfp/present", unit);
    std::optional<double> outside;

    using metrics::conversion;
    metrics::gauge_collector gauges({
        {"dh_sfp_rx_power_dbm", "Received power.", "port",
         metrics::node_series(db, "data/{}/sfp/rxPower", {"e13", "e14", "e99"},
                              conversion::number)},
        {"dh_link_up", "Link up.", "interface",
         metrics::node_series(db, "data/{}/linkStatus", {"e1", "e2", "e3"}, conversion::up_down)},
        {"dh_link_number", "Text is no number.", "",
         metrics::node_series(db, "data/e1/linkStatus", {""}, conversion::number)},
        {"dh_config_ready", "Started.", "",
         metrics::node_series(db, "data/configStatus", {""}, conversion::number)},
        // Its reads call the unit, so it is never read for a scrape.
        {"dh_sfp_present", "Present.", "port",
         metrics::node_series(db, "data/{}/sfp/present", {"e13"}, conversion::number)},
        {"dh_outside", "Held elsewhere.", "", {{"", [&] { return outside; }}}},
    });
    // The sample lines of a scrape, without the HELP and TYPE comments.
    const auto scrape = [&] {
        std::istringstream text(prometheus::TextSerializer().Serialize(gauges.Collect()));
        std::string samples;
        for (std::string line; std::getline(text, line);)
            if (!line.starts_with('#')) samples += line + "\n";
        return samples;
    };

    const std::string links =
        "dh_link_up{interface=\"e1\"} 1\ndh_link_up{interface=\"e2\"} 0\ndh_config_ready 1\n";
    EXPECT_EQ(scrape(), "dh_sfp_rx_power_dbm{port=\"e13\"} -3.25\n" + links);
    EXPECT_EQ(unit->calls, 0);

    e13->set_value(-7.5);
    outside = 4;
    EXPECT_EQ(scrape(), "dh_sfp_rx_power_dbm{port=\"e13\"} -7.5\n" + links + "dh_outside 4\n");
}

TEST(Metrics, ListenAddresses) {
    for (const char* good : {"127.0.0.1:9701", "0.0.0.0:1", "[::]:65535", "[::1]:9701"})
        EXPECT_TRUE(metrics::is_listen_address(good)) << good;
    for (const char* bad :
         {"", "9701", ":9701", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:97x",
          "localhost:9701", "::1:9701", "[127.0.0.1]:9701", "1.2.3:9701", "127.0.0.1:-1"})
        EXPECT_FALSE(metrics::is_listen_address(bad)) << bad;
}

}  // namespace
