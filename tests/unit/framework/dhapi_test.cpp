// The value kinds of dh_api: conversions, parameters, commands, constant, volatile, status and
// monitored values, and value groups. Nodes are driven directly, with recording sessions.

#include <limits>

#include <fmt/format.h>

#include "dh_api/dh_api.hpp"
#include "server_test_support.hpp"

using namespace dh::api;
using server_test::parse;
using namespace std::chrono_literals;

enum class family : int { ipv4 = 0, ipv6 = 1 };

// Handler methods of the signatures the node kinds bind, outside the anonymous namespace as
// they become template arguments; each call is recorded as text.
struct fake_handler {
    std::vector<std::string> calls;
    // Read and written across threads by the polling tests.
    std::atomic<bool> fail{false};
    std::atomic<unsigned> reads{0};
    std::atomic<double> margin{1.0};

    void check() {
        if (fail) throw dh_error(-22, "refused");
    }
    void set_enabled(std::string_view name, std::optional<int> vlan, const std::string& status) {
        check();
        calls.push_back(fmt::format("{} {} {}", name, vlan ? std::to_string(*vlan) : "-", status));
    }
    void set_metric(std::string_view name, unsigned int metric) {
        calls.push_back(fmt::format("{} {}", name, metric));
    }
    void set_area(std::string_view name, std::string& id) {
        calls.push_back(fmt::format("{} {}", name, id));
        id = "changed by the method";
    }
    void set_whitelist(family f, const dh::Document& doc) {
        calls.push_back(fmt::format("{} {}", static_cast<int>(f), to_json_text(doc)));
    }
    bool restore(bool reboot, unsigned int level) {
        calls.push_back(fmt::format("{} {}", reboot ? "reboot" : "stay", level));
        return level < 10;
    }
    std::string status_of(const std::string& name) {
        check();
        return name + " #" + std::to_string(++reads);
    }
    double get_margin() {
        ++reads;
        check();
        return margin;
    }
};

namespace {

using strings = std::vector<std::string>;

// A session that records the value of every event nodes deliver to it, as JSON text; nodes
// driven directly deliver on the test's thread.
struct recording_session : dh_session {
    void deliver(std::shared_ptr<const std::string> line) override {
        values.push_back(to_json_text(parse(*line)["params"]["value"]));
    }
    strings values;
};

// Subscribes `session` to `node`; answers what the subscription answered, as JSON text.
std::string subscribe(dh_db_leaf_node& node, const std::shared_ptr<dh_session>& session) {
    std::mutex m;
    std::unique_lock lock(m);
    dh::Document out;
    node.subscribe(session, node.get_path(0), out.GetAllocator(), out, lock);
    return to_json_text(out);
}
std::string read(dh_db_leaf_node& node) {
    dh::Document out;
    node.get(node.get_path(0), out.GetAllocator(), out);
    return to_json_text(out);
}
void write(dh_db_leaf_node& node, const std::string& value) {
    node.set("", parse(value));
}
std::string run(dh_db_leaf_node& node, const std::string& value) {
    dh::Document out;
    node.run("", parse(value), out.GetAllocator(), out);
    return to_json_text(out);
}
// One member of the node's description, as JSON text.
std::string info(dh_db_leaf_node& node, const char* member) {
    dh::Document d;
    return to_json_text(node.get_info(d.GetAllocator())[member]);
}
// The code and text of the dh_error f throws.
template <class F>
std::string error_of(F&& f) {
    return server_test::thrown<dh_error>(
        f, [](const dh_error& e) { return fmt::format("{} {}", e.code(), e.message()); });
}
// What from_json<T> says it expected and got for `text`.
template <class T>
std::string mismatch(const char* text) {
    return server_test::thrown<json_value_conversion_error>(
        [&] { from_json<T>(parse(text)); },
        [](const auto& e) { return e.expected + ", " + e.actual; });
}

struct DhApi : ::testing::Test {
    dh_db db;
    std::shared_ptr<fake_handler> handler = std::make_shared<fake_handler>();
    std::shared_ptr<recording_session> alice = std::make_shared<recording_session>();
    std::shared_ptr<recording_session> bob = std::make_shared<recording_session>();
};

TEST(DhApiConversion, TypeNamesAcceptedValuesAndMismatches) {
    // The mismatches below name null, string, float and 64-bit unsigned as well.
    const std::pair<const char*, const char*> names[] = {{"true", "bool"},
                                                         {"{}", "object"},
                                                         {"[]", "array"},
                                                         {"4294967295", "32-bit unsigned integer"},
                                                         {"-2147483648", "32-bit signed integer"},
                                                         {"-2147483649", "64-bit signed integer"},
                                                         {"3.4028234e38", "float"},
                                                         {"1e300", "double"}};
    for (const auto& [text, name] : names) EXPECT_EQ(json_type_name(parse(text)), name) << text;

    EXPECT_EQ(from_json<unsigned>(parse("4294967295")), 4294967295u);
    EXPECT_EQ(to_json_text(from_json<dh::Document>(parse(R"(" {\"k\": true} ")"))), "{\"k\":true}");

    EXPECT_EQ(mismatch<unsigned>("-1"), "uint, 32-bit signed integer");
    EXPECT_EQ(mismatch<unsigned>("1.5"), "uint, float");
    EXPECT_EQ(mismatch<unsigned>("4294967296"), "uint, 64-bit unsigned integer");
    EXPECT_EQ(mismatch<bool>("1"), "bool, 32-bit unsigned integer");
    EXPECT_EQ(mismatch<bool>("null"), "bool, null");
    EXPECT_EQ(mismatch<dh::Document>("\"not json\""), "stringified object or array, string");
    EXPECT_EQ(mismatch<dh::Document>("42"), "object or array, 32-bit unsigned integer");

    dh::Document d;
    EXPECT_EQ(
        to_json_text(to_json_value(std::numeric_limits<double>::infinity(), d.GetAllocator())),
        "null");
    EXPECT_EQ(to_json_text(to_json_value(family::ipv6, d.GetAllocator())), "1");
}

TEST_F(DhApi, ParameterWritesReachTheMethodOnlyWhenTheValueChanges) {
    std::string name = "e13.21";
    auto node = config_param<&fake_handler::set_enabled>::create(
        db, "/config/" + name + "/adminStatus", handler, [] { return std::string("up"); },
        std::string_view(name), 21);
    name = "overwritten";  // the node keeps its own copy of the name
    EXPECT_EQ(db.find_leaf_node("config/e13.21/adminStatus"), node);
    EXPECT_EQ(subscribe(*node, alice), "\"up\"");
    EXPECT_EQ(subscribe(*node, bob), "\"up\"");
    EXPECT_EQ(alice->values, strings{"\"up\""});  // each subscriber gets its own initial value

    for (const char* value : {"\"up\"", "\"down\"", "\"down\""}) write(*node, value);
    ASSERT_EQ(handler->calls, strings{"e13.21 21 down"});
    EXPECT_EQ(read(*node), "\"down\"");
    EXPECT_EQ(alice->values, (strings{"\"up\"", "\"down\""}));
    EXPECT_EQ(bob->values.size(), 2u);

    // A refusing method leaves the value and sends nothing.
    handler->fail = true;
    EXPECT_EQ(error_of([&] { write(*node, "\"bogus\""); }), "-22 refused");
    EXPECT_EQ(read(*node), "\"down\"");
    EXPECT_EQ(alice->values.size(), 2u);

    // After a failure even the value kept reaches the method: the device may differ from it.
    // Non-text values reach a text parameter as their JSON text.
    handler->fail = false;
    for (const char* value : {"\"down\"", "5", "{\"a\":1}"}) write(*node, value);
    EXPECT_EQ(handler->calls,
              (strings{"e13.21 21 down", "e13.21 21 down", "e13.21 21 5", "e13.21 21 {\"a\":1}"}));
}

TEST_F(DhApi, ParameterWithoutValueConversionsDescriptionAndGoneHandler) {
    auto node = config_param<&fake_handler::set_metric>::create(
        db, "config/ospf/e2/metric", handler,
        []() -> unsigned { throw dh_error(-5, "datastore down"); }, "e2");
    EXPECT_EQ(read(*node), "null");
    EXPECT_EQ(subscribe(*node, alice), "null");
    EXPECT_TRUE(alice->values.empty());
    EXPECT_THROW(write(*node, "-1"), json_value_conversion_error);

    write(*node, "7");
    EXPECT_EQ(read(*node), "7");

    node->reset();
    EXPECT_EQ(read(*node), "null");

    auto area = config_param<&fake_handler::set_area>::create(
        db, "config/ospf/e27/areaId", handler, [] { return std::string(); }, "e27");
    area->set_allowed_values({"0.0.0.0", "0.0.0.1"});
    write(*area, "\"9.9.9.9\"");  // not an allowed value: the method decides
    EXPECT_EQ(handler->calls.back(), "e27 9.9.9.9");
    EXPECT_EQ(read(*area), "\"9.9.9.9\"");  // the method's change of its argument is not kept
    EXPECT_EQ(info(*area, "constraints"), R"({"allowed":["0.0.0.0","0.0.0.1"]})");

    auto whitelist = config_param<&fake_handler::set_whitelist>::create(
        db, "config/acl/whitelist", handler, nullptr, family::ipv4);
    write(*whitelist, "\"[1,2]\"");
    EXPECT_EQ(handler->calls.back(), "0 [1,2]");
    EXPECT_EQ(read(*whitelist), "[1,2]");

    auto metric =
        config_param<&fake_handler::set_metric>::create(db, "config/m", handler, nullptr, "e3");
    metric->set_grid_range(1, 65535, 1);
    EXPECT_EQ(info(*metric, "constraints"), R"({"min":1,"max":65535,"grid":1})");

    handler.reset();
    EXPECT_EQ(error_of([&] { write(*node, "8"); }), "-2 Object has been removed");
}

TEST_F(DhApi, CommandAndVolatileValueCallTheMethodEachTime) {
    auto restore = command<&fake_handler::restore>::create(db, "command/restoreFactoryDefaults",
                                                           handler, true);
    EXPECT_EQ(run(*restore, "3"), "true");
    EXPECT_EQ(run(*restore, "12"), "false");
    EXPECT_EQ(handler->calls, (strings{"reboot 3", "reboot 12"}));
    EXPECT_THROW(run(*restore, "true"), json_value_conversion_error);
    EXPECT_EQ(error_of([&] { write(*restore, "1"); }), "-95 Operation not supported");

    auto status = volatile_value<&fake_handler::status_of>::create(db, "data/e1/ipv4Settings",
                                                                   handler, std::string("e1"));
    EXPECT_EQ(read(*status), "\"e1 #1\"");
    EXPECT_EQ(read(*status), "\"e1 #2\"");
    handler->fail = true;
    EXPECT_EQ(error_of([&] { read(*status); }), "-22 refused");
}

TEST_F(DhApi, StatusValueRisesAtOnceAndFallsAfterTheDelay) {
    // Without subscribers nobody waits for an event: the value set is the value read.
    auto node = status_value<bool>::create(db, "data/configStatus", false, 1);
    node->set(true);
    node->set(false);
    EXPECT_EQ(read(*node), "false");
    EXPECT_EQ(subscribe(*node, alice), "false");

    // Each step: sets ('1', '0') and ticks ('.'), then the value read and the events so far.
    const std::tuple<const char*, const char*, strings> steps[] = {
        {"1", "true", {"false", "true"}},
        {"0.", "true", {"false", "true"}},
        {".", "false", {"false", "true", "false"}},
        // A fall undone within the delay reaches nobody.
        {"10.1..", "true", {"false", "true", "false", "true"}}};
    for (const auto& [script, value, sent] : steps) {
        for (const char ch : std::string_view(script))
            ch == '.' ? node->periodic_task(false) : node->set(ch == '1');
        EXPECT_EQ(read(*node), value) << script;
        EXPECT_EQ(alice->values, sent) << script;
    }
}

using pushed_number = hysteresis_filtered_value<pushed_volatile_value_impl<double>>;
using polled_margin =
    hysteresis_filtered_value<polled_volatile_value_impl<&fake_handler::get_margin>>;

// The equal filter publishes every change, a custom one what its predicate accepts, and the
// default one large changes at once and lasting ones later.
TEST_F(DhApi, HysteresisFilters) {
    auto node = hysteresis_filtered_value<pushed_volatile_value_impl<std::string>>::create(
        db, "data/e1/linkStatus");
    EXPECT_EQ(error_of([&] { read(*node); }), "-61 Value has not been set");
    EXPECT_EQ(subscribe(*node, alice), "null");
    for (const char* v : {"down", "down", "up"}) node->set_value(v);
    EXPECT_EQ(read(*node), "\"up\"");
    EXPECT_EQ(alice->values, (strings{"\"down\"", "\"up\""}));

    auto rising = pushed_number::create(
        db, "data/r",
        hysteresis_filter<double>::make_custom([](double p, double c) { return c > p; }));
    for (double v : {5.0, 3.0, 7.0, 6.0}) rising->set_value(v);
    EXPECT_EQ(read(*rising), "7.0");
    EXPECT_EQ(rising->value(), 6.0);  // the last value set, published or not

    auto t =
        pushed_number::create(db, "data/t", hysteresis_filter<double>::make_default(5.0, 1.0, 2));
    subscribe(*t, bob);
    // Each step: a value set, ticks, then the published value. Both limits are inclusive.
    // The first value is always published; 10.5 is below the delayed limit; 11.0, exactly at
    // it, waits, and the wait goes on with 12.5; 11.5 waits until 12.2, close to the published
    // value, ends the wait; 17.5, exactly at the immediate limit, is published at once.
    const std::tuple<double, int, const char*> steps[] = {
        {10.0, 0, "10.0"}, {10.5, 2, "10.0"}, {11.0, 1, "10.0"}, {12.5, 1, "12.5"},
        {11.5, 1, "12.5"}, {12.2, 2, "12.5"}, {17.5, 0, "17.5"}};
    for (const auto& [value, ticks, published] : steps) {
        t->set_value(value);
        for (int i = 0; i < ticks; ++i) t->periodic_task(false);
        EXPECT_EQ(read(*t), published) << value;
    }
    EXPECT_EQ(bob->values, (strings{"10.0", "12.5", "17.5"}));
    EXPECT_EQ(info(*t, "hysteresis"),
              R"({"filter":"default","ImmediateLimit":5.0,"delayedLimit":1.0,"delayCycles":2})");
}

TEST_F(DhApi, PolledValueCountsItsIntervalAndKeepsTheLastValueOnErrors) {
    auto node = polled_margin::create(db, "data/temperatureMargin", handler,
                                      hysteresis_filter<double>::make_equal(), 3);
    handler->margin = 4.0;
    // Reads after each tick: the first tick polls, then every third; an immediate tick polls and
    // starts the interval again.
    const std::pair<bool, unsigned> ticks[] = {{false, 1}, {false, 1}, {false, 1}, {false, 2},
                                               {true, 3},  {false, 3}, {false, 3}};
    for (const auto& [immediate, reads] : ticks) {
        node->periodic_task(immediate);
        EXPECT_EQ(handler->reads, reads);
    }
    EXPECT_EQ(read(*node), "4.0");

    handler->fail = true;
    handler->margin = 9.0;
    node->periodic_task(true);
    EXPECT_EQ(read(*node), "4.0");
    handler->fail = false;
    node->periodic_task(true);
    EXPECT_EQ(read(*node), "9.0");
}

struct ticking_node : dh_db_leaf_node {
    using dh_db_leaf_node::dh_db_leaf_node;
    void periodic_task(bool immediate) override {
        ticks += immediate ? 100 : 1;
        if (fail) throw std::runtime_error("broken sensor");
    }
    std::atomic<unsigned> ticks{0};
    std::atomic<bool> fail{false};
};

TEST(DhApiValueGroup, TicksFromItsPhaseSurvivesFailuresAndEndsWithTheGroup) {
    dh_db db;
    dh::manual_scheduler sched;
    auto monitored = std::make_shared<ticking_node>(db, strings{"a"});
    auto broken = std::make_shared<ticking_node>(db, strings{"b"});
    auto plain = std::make_shared<ticking_node>(db, strings{"c"});
    broken->fail = true;
    bool ran = false;
    {
        value_group group(sched, 5, 200);
        group.add_value(monitored, 1);
        group.add_value(broken, 1);
        group.add_value(plain, 0);
        sched.advance(199ms);
        EXPECT_EQ(monitored->ticks, 0u);
        sched.advance(21ms);  // the first tick at the phase, then every 5 ms
        EXPECT_EQ(std::tuple(monitored->ticks.load(), broken->ticks.load(), plain->ticks.load()),
                  std::tuple(5u, 5u, 0u));
        broken.reset();
        EXPECT_EQ(group.size(), 2u);
        sched.advance(5ms);
        EXPECT_EQ(monitored->ticks, 6u);

        group.post([] { throw std::runtime_error("ignored"); });
        group.post([&] { ran = true; });
        sched.run_pending();
        EXPECT_TRUE(ran);
        group.post([&] { ran = false; });  // still waiting when the group goes
    }
    sched.advance(1s);
    EXPECT_EQ(monitored->ticks, 6u);
    EXPECT_TRUE(ran);
}

// The owner of a group may be released by a job the group posted.
TEST(DhApiValueGroup, OwnerReleasedFromItsJob) {
    dh::manual_scheduler sched;
    struct owner {
        explicit owner(dh::scheduler& s) : group(s, 5, 0) {}
        value_group group;
    };
    auto o = std::make_shared<owner>(sched);
    bool done = false;
    owner* raw = o.get();
    raw->group.post([keep = std::move(o), &done]() mutable {
        keep.reset();
        done = true;
    });
    sched.run_pending();
    EXPECT_TRUE(done);
}

}  // namespace
