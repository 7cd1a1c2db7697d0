#include "metrics.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>

#include <prometheus/text_serializer.h>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include "../metric_sample.hpp"
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

std::string exposition(const prometheus::Collectable& c) {
    return prometheus::TextSerializer().Serialize(c.Collect());
}

std::string http_get(int port, const std::string& target) {
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket socket(io);
    socket.connect({boost::asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)});
    const std::string request = "GET " + target + " HTTP/1.0\r\nHost: localhost\r\n\r\n";
    boost::asio::write(socket, boost::asio::buffer(request));
    std::string response;
    boost::system::error_code ec;
    boost::asio::read(socket, boost::asio::dynamic_buffer(response), ec);
    return response;
}

}  // namespace

TEST(Metrics, HostCommandsCountByToolAndOutcomeWithTheirDurations) {
    const double ok_before =
        metric_count("dh_host_commands_total", {{"tool", "nft"}, {"outcome", "ok"}});
    const double failed_before =
        metric_count("dh_host_commands_total", {{"tool", "nft"}, {"outcome", "failed"}});
    const auto histogram_before =
        metric_sample("dh_host_command_duration_seconds", {{"tool", "nft"}});
    const auto count_before = histogram_before ? histogram_before->histogram.sample_count : 0;
    const auto sum_before = histogram_before ? histogram_before->histogram.sample_sum : 0.0;

    metrics::host_command("nft", "ok", 0.003);
    metrics::host_command("nft", "ok", 0.004);
    metrics::host_command("nft", "failed", 2.0);

    EXPECT_EQ(metric_count("dh_host_commands_total", {{"tool", "nft"}, {"outcome", "ok"}}),
              ok_before + 2);
    EXPECT_EQ(metric_count("dh_host_commands_total", {{"tool", "nft"}, {"outcome", "failed"}}),
              failed_before + 1);
    const auto histogram = metric_sample("dh_host_command_duration_seconds", {{"tool", "nft"}});
    ASSERT_TRUE(histogram);
    EXPECT_EQ(histogram->histogram.sample_count, count_before + 3);
    EXPECT_NEAR(histogram->histogram.sample_sum, sum_before + 2.007, 1e-9);
    // The two short runs fall at or under 5 ms, the long one only from 2.5 s on.
    std::map<double, std::uint64_t> buckets;
    for (const auto& b : histogram->histogram.bucket) buckets[b.upper_bound] = b.cumulative_count;
    EXPECT_EQ(buckets.at(0.005) - buckets.at(0.0025), 2u);
    EXPECT_EQ(buckets.at(2.5) - buckets.at(1), 1u);
}

TEST(Metrics, ImportsAndServerActivity) {
    const double failed_before = metric_count("dh_datastore_imports_total",
                                              {{"datastore", "startup"}, {"outcome", "failed"}});
    metrics::datastore_import("startup", false);
    metrics::datastore_import("running", true);
    EXPECT_EQ(metric_count("dh_datastore_imports_total",
                           {{"datastore", "startup"}, {"outcome", "failed"}}),
              failed_before + 1);
    EXPECT_GE(
        metric_count("dh_datastore_imports_total", {{"datastore", "running"}, {"outcome", "ok"}}),
        1);

    // A method name a client made up is not a label value of its own.
    metrics::request("get", "ok", 0.0002);
    metrics::request("drop-tables", "error", 0.0001);
    EXPECT_GE(metric_count("dh_requests_total", {{"method", "get"}, {"outcome", "ok"}}), 1);
    EXPECT_GE(metric_count("dh_requests_total", {{"method", "other"}, {"outcome", "error"}}), 1);
    EXPECT_FALSE(
        metric_sample("dh_requests_total", {{"method", "drop-tables"}, {"outcome", "error"}}));
    EXPECT_TRUE(metric_sample("dh_request_duration_seconds", {{"method", "other"}}));

    metrics::connection_opened("tcp");
    metrics::connection_opened("tcp");
    metrics::connection_opened("unix");
    metrics::connection_closed("tcp");
    EXPECT_EQ(metric_sample("dh_connections_open", {{"listener", "tcp"}})->gauge.value, 1);
    EXPECT_EQ(metric_sample("dh_connections_open", {{"listener", "unix"}})->gauge.value, 1);
    metrics::connection_closed("tcp");
    metrics::connection_closed("unix");

    const double events_before = metric_count("dh_events_sent_total", {});
    const double cut_before = metric_count("dh_slow_subscribers_cut_total", {});
    metrics::events_sent(3);
    metrics::slow_subscriber_cut();
    EXPECT_EQ(metric_count("dh_events_sent_total", {}), events_before + 3);
    EXPECT_EQ(metric_count("dh_slow_subscribers_cut_total", {}), cut_before + 1);
}

class NodeGauges : public testing::Test {
  protected:
    dh_db db;
    std::shared_ptr<probe_unit> unit = std::make_shared<probe_unit>();
};

TEST_F(NodeGauges, HeldValuesOnlyAndNothingForLeavesWithoutOne) {
    pushed_double::create(db, "data/e13/sfp/rxPower")->set_value(-3.25);
    pushed_double::create(db, "data/e14/sfp/rxPower");  // no value yet
    pushed_text::create(db, "data/e1/linkStatus")->set_value("up");
    pushed_text::create(db, "data/e2/linkStatus")->set_value("down");
    pushed_text::create(db, "data/e3/linkStatus")->set_value("unknown");
    dh::api::status_value<bool>::create(db, "data/configStatus", true, 0);
    dh::api::volatile_value<&probe_unit::present>::create(db, "e13/sfp/present", unit);

    using metrics::conversion;
    EXPECT_EQ(metrics::held_value(db, "data/e13/sfp/rxPower", conversion::number), -3.25);
    EXPECT_EQ(metrics::held_value(db, "data/e14/sfp/rxPower", conversion::number), std::nullopt);
    EXPECT_EQ(metrics::held_value(db, "data/e1/linkStatus", conversion::up_down), 1.0);
    EXPECT_EQ(metrics::held_value(db, "data/e2/linkStatus", conversion::up_down), 0.0);
    EXPECT_EQ(metrics::held_value(db, "data/e3/linkStatus", conversion::up_down), std::nullopt);
    EXPECT_EQ(metrics::held_value(db, "data/e1/linkStatus", conversion::number), std::nullopt);
    EXPECT_EQ(metrics::held_value(db, "data/configStatus", conversion::number), 1.0);
    EXPECT_EQ(metrics::held_value(db, "data/nothing", conversion::number), std::nullopt);
    // Its reads call the unit, so it is never read for a scrape.
    EXPECT_EQ(metrics::held_value(db, "e13/sfp/present", conversion::number), std::nullopt);
    EXPECT_EQ(unit->calls, 0);
}

TEST_F(NodeGauges, FamiliesAreBuiltAtEachScrapeFromTheCurrentValues) {
    auto e13 = pushed_double::create(db, "data/e13/sfp/rxPower");
    e13->set_value(-3.25);
    pushed_double::create(db, "data/e14/sfp/rxPower");
    pushed_text::create(db, "data/e1/linkStatus")->set_value("up");
    pushed_text::create(db, "data/e2/linkStatus")->set_value("down");
    dh::api::status_value<bool>::create(db, "data/configStatus", true, 0);
    std::optional<double> outside;

    using metrics::conversion;
    metrics::gauge_collector gauges({
        {"dh_sfp_rx_power_dbm", "Received power.", "port",
         metrics::node_series(db, "data/{}/sfp/rxPower", {"e13", "e14"}, conversion::number)},
        {"dh_link_up", "Link up.", "interface",
         metrics::node_series(db, "data/{}/linkStatus", {"e1", "e2"}, conversion::up_down)},
        {"dh_config_ready", "Started.", "",
         metrics::node_series(db, "data/configStatus", {""}, conversion::number)},
        {"dh_outside", "Held elsewhere.", "", {{"", [&] { return outside; }}}},
    });

    const std::string first = exposition(gauges);
    EXPECT_NE(
        first.find("# TYPE dh_sfp_rx_power_dbm gauge\ndh_sfp_rx_power_dbm{port=\"e13\"} -3.25\n"),
        std::string::npos)
        << first;
    EXPECT_EQ(first.find("port=\"e14\""), std::string::npos) << first;
    EXPECT_NE(first.find("dh_link_up{interface=\"e1\"} 1\n"), std::string::npos) << first;
    EXPECT_NE(first.find("dh_link_up{interface=\"e2\"} 0\n"), std::string::npos) << first;
    EXPECT_NE(first.find("dh_config_ready 1\n"), std::string::npos) << first;
    EXPECT_EQ(first.find("dh_outside"), std::string::npos) << first;

    e13->set_value(-7.5);
    outside = 4;
    const std::string second = exposition(gauges);
    EXPECT_NE(second.find("dh_sfp_rx_power_dbm{port=\"e13\"} -7.5\n"), std::string::npos) << second;
    EXPECT_NE(second.find("dh_outside 4\n"), std::string::npos) << second;
}

TEST_F(NodeGauges, EndpointServesTheTextFormat) {
    pushed_double::create(db, "data/e13/sfp/txPower")->set_value(-1.5);
    auto gauges = std::make_shared<metrics::gauge_collector>(std::vector<metrics::gauge_family>{
        {"dh_sfp_tx_power_dbm", "Transmitted power.", "port",
         metrics::node_series(db, "data/{}/sfp/txPower", {"e13"}, metrics::conversion::number)}});
    metrics::host_command("ethtool", "ok", 0.01);

    metrics::endpoint endpoint("127.0.0.1:0", {gauges, metrics::registry()});
    ASSERT_GT(endpoint.port(), 0);
    const std::string response = http_get(endpoint.port(), "/metrics");
    EXPECT_EQ(response.rfind("HTTP/1.1 200", 0), 0u) << response;
    EXPECT_NE(response.find("\ndh_sfp_tx_power_dbm{port=\"e13\"} -1.5\n"), std::string::npos)
        << response;
    EXPECT_NE(response.find("\ndh_host_commands_total{outcome=\"ok\",tool=\"ethtool\"} "),
              std::string::npos)
        << response;
    EXPECT_EQ(http_get(endpoint.port(), "/other").find("200"), std::string::npos);
}

TEST(Metrics, ListenAddresses) {
    for (const char* good : {"127.0.0.1:9701", "0.0.0.0:1", "[::]:65535", "[::1]:9701"})
        EXPECT_TRUE(metrics::is_listen_address(good)) << good;
    for (const char* bad :
         {"", "9701", ":9701", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:97x",
          "localhost:9701", "::1:9701", "[127.0.0.1]:9701", "1.2.3:9701", "127.0.0.1:-1"})
        EXPECT_FALSE(metrics::is_listen_address(bad)) << bad;
}
