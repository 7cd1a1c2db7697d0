#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "../log_capture.hpp"
#include "dhapi_fakes.hpp"

using namespace dh::api;
using namespace std::chrono_literals;

namespace {

using pushed_text = hysteresis_filtered_value<pushed_volatile_value_impl<std::string>>;
using pushed_number = hysteresis_filtered_value<pushed_volatile_value_impl<double>>;
using pushed_doc = hysteresis_filtered_value<pushed_volatile_value_impl<dh::Document>>;
using polled_margin =
    hysteresis_filtered_value<polled_volatile_value_impl<&fake_handler::get_margin>>;

template <class Pred>
bool eventually(Pred pred) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

struct DhApiMonitored : ::testing::Test {
    dh_db db;
    std::shared_ptr<fake_handler> handler = std::make_shared<fake_handler>();
    std::shared_ptr<recording_session> alice = std::make_shared<recording_session>();
};

}  // namespace

TEST_F(DhApiMonitored, EqualFilterPublishesEveryChange) {
    auto node = pushed_text::create(db, "data/e1/linkStatus");
    try {
        read(*node);
        FAIL() << "read before any value";
    } catch (const dh_error& e) {
        EXPECT_EQ(e.code(), -61);
        EXPECT_EQ(e.message(), "Value has not been set");
    }
    EXPECT_EQ(subscribe(*node, alice), "null");
    node->set_value("down");
    node->set_value("down");
    node->set_value("up");
    EXPECT_EQ(read(*node), "\"up\"");
    EXPECT_EQ(alice->event_values(), (std::vector<std::string>{"\"down\"", "\"up\""}));
    EXPECT_EQ(db.history(10).Size(), 2u);

    auto d = info(*node);
    EXPECT_STREQ(d["type"].GetString(), "pushed value");
    EXPECT_STREQ(d["valueType"].GetString(), "string");
    EXPECT_EQ(to_json_text(d["capabilities"]), "{\"read\":true,\"subscribe\":true}");
    EXPECT_EQ(to_json_text(d["hysteresis"]), "{\"filter\":\"equal\"}");
    EXPECT_FALSE(d.HasMember("pollInterval"));
    EXPECT_FALSE(node->is_async());
}

TEST_F(DhApiMonitored, DefaultFilterPublishesLargeChangesAtOnceAndLastingOnesLater) {
    auto node =
        pushed_number::create(db, "data/t", hysteresis_filter<double>::make_default(5.0, 1.0, 2));
    subscribe(*node, alice);
    node->set_value(10.0);  // the first value is always published
    node->set_value(10.5);  // below the delayed limit
    node->periodic_task(false);
    node->periodic_task(false);
    EXPECT_EQ(read(*node), "10.0");

    node->set_value(12.0);  // waits
    node->periodic_task(false);
    node->set_value(12.5);  // still far enough: the wait goes on with the newer value
    EXPECT_EQ(read(*node), "10.0");
    node->periodic_task(false);
    EXPECT_EQ(read(*node), "12.5");

    node->set_value(10.8);  // waits ...
    node->periodic_task(false);
    node->set_value(12.2);  // ... until a value close to the published one ends the wait
    node->periodic_task(false);
    node->periodic_task(false);
    EXPECT_EQ(read(*node), "12.5");

    node->set_value(20.0);
    EXPECT_EQ(read(*node), "20.0");
    EXPECT_EQ(alice->event_values(), (std::vector<std::string>{"10.0", "12.5", "20.0"}));
    EXPECT_EQ(to_json_text(info(*node)["hysteresis"]),
              "{\"filter\":\"default\",\"ImmediateLimit\":5.0,\"delayedLimit\":1.0,"
              "\"delayCycles\":2}");
    EXPECT_EQ(node->value(), 20.0);
}

TEST_F(DhApiMonitored, CustomFilterAndPushedDocuments) {
    auto rising = pushed_number::create(
        db, "data/r",
        hysteresis_filter<double>::make_custom([](double p, double c) { return c > p; }));
    for (double v : {5.0, 3.0, 7.0, 6.0}) rising->set_value(v);
    EXPECT_EQ(read(*rising), "7.0");
    EXPECT_EQ(rising->value(), 6.0);  // the last value set, published or not

    // A delayed custom filter hides a value that is rebuilt in steps.
    auto neighbours = pushed_doc::create(
        db, "data/e1/lldp/neighbours",
        hysteresis_filter<dh::Document>::make_custom(
            [](const dh::Document& p, const dh::Document& c) { return p != c; }, 1));
    subscribe(*neighbours, alice);
    neighbours->set_value(json("[]"));
    for (int poll = 0; poll < 2; ++poll) {
        neighbours->set_value(json("[]"));
        auto v = neighbours->value();
        v.PushBack(dh::Value("n1", v.GetAllocator()), v.GetAllocator());
        neighbours->set_value(std::move(v));
        neighbours->periodic_task(false);
    }
    EXPECT_EQ(read(*neighbours), "[\"n1\"]");
    EXPECT_EQ(alice->event_values(), (std::vector<std::string>{"[]", "[\"n1\"]"}));
}

TEST_F(DhApiMonitored, PolledValueCountsItsIntervalAndKeepsTheLastValueOnErrors) {
    auto node = polled_margin::create(db, "data/temperatureMargin", handler,
                                      hysteresis_filter<double>::make_equal(), 3);
    handler->margin = 4.0;
    node->periodic_task(false);  // the first tick polls
    EXPECT_EQ(handler->reads, 1u);
    EXPECT_EQ(read(*node), "4.0");
    node->periodic_task(false);
    node->periodic_task(false);
    EXPECT_EQ(handler->reads, 1u);
    node->periodic_task(false);
    EXPECT_EQ(handler->reads, 2u);
    node->periodic_task(true);  // at once, and the interval starts again
    node->periodic_task(false);
    node->periodic_task(false);
    EXPECT_EQ(handler->reads, 3u);

    log_capture logs;
    handler->fail = true;
    handler->margin = 9.0;
    node->periodic_task(true);
    node->periodic_task(true);
    EXPECT_EQ(handler->reads, 5u);
    EXPECT_EQ(read(*node), "4.0");
    handler->fail = false;
    node->periodic_task(true);
    EXPECT_EQ(read(*node), "9.0");
    handler->fail = true;
    node->periodic_task(true);
    auto errors = logs.find("Polling data/temperatureMargin failed: -22 refused");
    ASSERT_EQ(errors.size(), 2u);  // one per streak
    EXPECT_EQ(errors[0].severity, 3);

    handler->fail = false;
    node->periodic_task(true);
    handler.reset();
    node->periodic_task(true);
    EXPECT_EQ(read(*node), "9.0");
    EXPECT_EQ(logs.find("Object has been removed").size(), 1u);
}

TEST_F(DhApiMonitored, PolledValueWithFixedArgumentsOutsideAGroup) {
    std::string port = "e13";
    using power = hysteresis_filtered_value<polled_volatile_value_impl<&fake_handler::power>>;
    auto node = power::create(db, "data/" + port + "/sfp/txPower", handler,
                              hysteresis_filter<double>::make_default(1.0, 0.5, 3), 5,
                              "Laser output power", std::string_view(port));
    port = "gone";
    node->periodic_task(true);
    EXPECT_EQ(handler->calls, std::vector<std::string>{"Laser output power e13"});
    EXPECT_EQ(read(*node), "-3.01");
    EXPECT_EQ(info(*node)["pollInterval"].GetUint(), 0u);
}

TEST_F(DhApiMonitored, PolledValueRunsOnItsGroupsWorker) {
    value_group group(10, 0, 1);
    auto node = polled_margin::create(db, "data/temperatureMargin", handler,
                                      hysteresis_filter<double>::make_default(1.0, 0.5, 1), 2);
    subscribe(*node, alice);
    handler->margin = 3.0;
    group.add_value(node, 1);
    ASSERT_TRUE(alice->wait_for_events(1));
    EXPECT_EQ(alice->event_values()[0], "3.0");
    handler->margin = 5.0;
    ASSERT_TRUE(alice->wait_for_events(2));
    EXPECT_EQ(alice->event_values()[1], "5.0");

    auto d = info(*node);
    EXPECT_STREQ(d["type"].GetString(), "polled value");
    EXPECT_STREQ(d["description"].GetString(), "polled value (read,subscribe)");
    EXPECT_STREQ(d["valueType"].GetString(), "double");
    EXPECT_EQ(d["pollInterval"].GetUint(), 20u);
    EXPECT_FALSE(node->is_async());

    const unsigned before = handler->reads;
    ASSERT_TRUE(eventually([&] { return handler->reads >= before + 2; }));
}
