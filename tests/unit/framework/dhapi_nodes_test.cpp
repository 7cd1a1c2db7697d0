#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "../log_capture.hpp"
#include "dhapi_fakes.hpp"

using namespace dh::api;

namespace {

struct DhApiNodes : ::testing::Test {
    dh_db db;
    std::shared_ptr<fake_handler> handler = std::make_shared<fake_handler>();
    std::shared_ptr<recording_session> alice = std::make_shared<recording_session>();
    std::shared_ptr<recording_session> bob = std::make_shared<recording_session>();

    template <class F>
    static dh_error error_of(F&& f) {
        try {
            f();
        } catch (const dh_error& e) {
            return e;
        }
        ADD_FAILURE() << "no dh_error";
        return dh_error(0, "");
    }
};

}  // namespace

TEST_F(DhApiNodes, ParameterWritesReachTheMethodOnlyWhenTheValueChanges) {
    std::string name = "e13.21";
    auto node = config_param<&fake_handler::set_enabled>::create(
        db, "/config/" + name + "/adminStatus", handler, [] { return std::string("up"); },
        std::string_view(name), 21);
    name = "overwritten";  // the node keeps its own copy of the name
    EXPECT_EQ(db.find_leaf_node("config/e13.21/adminStatus"), node);
    EXPECT_EQ(read(*node), "\"up\"");
    subscribe(*node, alice);

    write(*node, "\"up\"");
    EXPECT_TRUE(handler->calls.empty());
    write(*node, "\"down\"");
    write(*node, "\"down\"");
    ASSERT_EQ(handler->calls, std::vector<std::string>{"e13.21 21 down"});
    EXPECT_EQ(read(*node), "\"down\"");
    EXPECT_EQ(alice->event_values(), (std::vector<std::string>{"\"up\"", "\"down\""}));
    auto history = db.history(10);
    ASSERT_EQ(history.Size(), 1u);
    EXPECT_STREQ(history[0]["path"].GetString(), "config/e13.21/adminStatus");
    EXPECT_STREQ(history[0]["value"].GetString(), "down");

    // A refusing method leaves the value and sends nothing.
    handler->fail = true;
    EXPECT_EQ(error_of([&] { write(*node, "\"bogus\""); }).message(), "refused");
    EXPECT_EQ(read(*node), "\"down\"");
    EXPECT_EQ(alice->event_values().size(), 2u);
    EXPECT_EQ(db.history(10).Size(), 1u);

    // Non-text values reach a text parameter as their JSON text.
    handler->fail = false;
    write(*node, "5");
    write(*node, "{\"a\":1}");
    EXPECT_EQ(handler->calls.back(), "e13.21 21 {\"a\":1}");
    EXPECT_EQ(handler->calls[1], "e13.21 21 5");
}

TEST_F(DhApiNodes, SubscribingSendsTheCurrentValueToThatSessionOnly) {
    auto node = config_param<&fake_handler::set_metric>::create(
        db, "config/ospf/e1/metric", handler, [] { return 10u; }, "e1");
    EXPECT_EQ(subscribe(*node, alice), "10");
    EXPECT_EQ(alice->event_values(), std::vector<std::string>{"10"});
    EXPECT_EQ(subscribe(*node, bob), "10");
    EXPECT_EQ(alice->event_values().size(), 1u);
    EXPECT_EQ(bob->event_values(), std::vector<std::string>{"10"});
    // The initial value of a subscription is not a change.
    EXPECT_EQ(db.history(10).Size(), 0u);

    try {
        write(*node, "-1");
        FAIL() << "-1 accepted";
    } catch (const json_value_conversion_error& e) {
        EXPECT_EQ(e.expected, "uint");
        EXPECT_EQ(e.actual, "32-bit signed integer");
    }
    EXPECT_TRUE(handler->calls.empty());
}

TEST_F(DhApiNodes, ParameterWithoutValueAndGoneHandler) {
    auto node = config_param<&fake_handler::set_metric>::create(
        db, "config/ospf/e2/metric", handler,
        []() -> unsigned { throw dh_error(-5, "datastore down"); }, "e2");
    EXPECT_EQ(read(*node), "null");
    EXPECT_EQ(subscribe(*node, alice), "null");
    EXPECT_TRUE(alice->event_values().empty());

    log_capture logs;
    write(*node, "7");
    EXPECT_EQ(read(*node), "7");
    EXPECT_EQ(read(*node), "7");
    auto warnings = logs.find(
        "Configuration parameter read before being set, path = "
        "config/ospf/e2/metric");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].severity, 4);
    EXPECT_EQ(warnings[0].channel, "config");

    node->reset();
    EXPECT_EQ(read(*node), "null");
    handler.reset();
    auto e = error_of([&] { write(*node, "8"); });
    EXPECT_EQ(e.code(), -2);
    EXPECT_EQ(e.message(), "Object has been removed");
}

TEST_F(DhApiNodes, ParameterConversionsAndDescription) {
    auto area = config_param<&fake_handler::set_area>::create(
        db, "config/ospf/e27/areaId", std::weak_ptr<fake_handler>(handler),
        [] { return std::string(); }, "e27");
    area->set_allowed_values({"0.0.0.0", "0.0.0.1"});
    write(*area, "\"9.9.9.9\"");  // not an allowed value: the method decides
    EXPECT_EQ(handler->calls.back(), "e27 9.9.9.9");
    EXPECT_EQ(read(*area), "\"9.9.9.9\"");  // the method's change of its argument is not kept

    auto d = info(*area);
    EXPECT_STREQ(d["description"].GetString(), "config value (read,write,subscribe)");
    EXPECT_STREQ(d["type"].GetString(), "config param");
    EXPECT_STREQ(d["valueType"].GetString(), "string");
    EXPECT_STREQ(d["defaultValue"].GetString(), "9.9.9.9");
    EXPECT_EQ(to_json_text(d["capabilities"]), "{\"read\":true,\"write\":true,\"subscribe\":true}");
    EXPECT_EQ(to_json_text(d["constraints"]), "{\"allowed\":[\"0.0.0.0\",\"0.0.0.1\"]}");
    EXPECT_TRUE(area->is_async());

    auto whitelist = config_param<&fake_handler::set_whitelist>::create(db, "config/acl/whitelist",
                                                                        handler, nullptr, 0);
    write(*whitelist, "\"[1,2]\"");
    EXPECT_EQ(handler->calls.back(), "0 [1,2]");
    EXPECT_THROW(write(*whitelist, "\"[1,\""), json_value_conversion_error);
    EXPECT_FALSE(info(*whitelist).HasMember("constraints"));
    EXPECT_EQ(to_json_text(info(*whitelist)["defaultValue"]), "[1,2]");

    auto metric =
        config_param<&fake_handler::set_metric>::create(db, "config/m", handler, nullptr, "e3");
    metric->set_grid_range(1, 65535, 1);
    EXPECT_EQ(to_json_text(info(*metric)["constraints"]), "{\"min\":1,\"max\":65535,\"grid\":1}");
    EXPECT_STREQ(info(*metric)["valueType"].GetString(), "unsigned int");
}

TEST_F(DhApiNodes, CommandRunsWithFixedArgumentsAndAnswersTheResult) {
    auto restore = command<&fake_handler::restore>::create(db, "command/restoreFactoryDefaults",
                                                           handler, true);
    dh::Document out;
    restore->run("", json("3"), out.GetAllocator(), out);
    EXPECT_TRUE(out.IsBool() && out.GetBool());
    restore->run("", json("12"), out.GetAllocator(), out);
    EXPECT_TRUE(out.IsBool() && !out.GetBool());
    EXPECT_EQ(handler->calls, (std::vector<std::string>{"reboot 3", "reboot 12"}));
    EXPECT_THROW(restore->run("", json("true"), out.GetAllocator(), out),
                 json_value_conversion_error);

    auto d = info(*restore);
    EXPECT_STREQ(d["description"].GetString(), "command value returning response (write)");
    EXPECT_STREQ(d["type"].GetString(), "command");
    EXPECT_STREQ(d["valueType"].GetString(), "unsigned int");
    EXPECT_STREQ(d["returnType"].GetString(), "bool");
    EXPECT_EQ(to_json_text(d["capabilities"]), "{\"write\":true}");
    EXPECT_TRUE(restore->write_returns_response());
    EXPECT_EQ(error_of([&] { write(*restore, "1"); }).code(), -95);

    auto reboot = command<&fake_handler::reboot>::create(db, "command/reboot", handler);
    reboot->run("", json("false"), out.GetAllocator(), out);
    EXPECT_EQ(handler->calls.back(), "later");
    handler.reset();
    EXPECT_EQ(error_of([&] { reboot->run("", json("true"), out.GetAllocator(), out); }).message(),
              "Object has been removed");
}

TEST_F(DhApiNodes, ConstantAndVolatileValues) {
    auto version = const_value<std::string>::create(db, "data/fwVersion", "2.3.1");
    EXPECT_EQ(read(*version), "\"2.3.1\"");
    EXPECT_STREQ(info(*version)["type"].GetString(), "const value");
    EXPECT_FALSE(version->is_async());

    auto status = volatile_value<&fake_handler::status_of>::create(db, "data/e1/ipv4Settings",
                                                                   handler, std::string("e1"));
    EXPECT_EQ(read(*status), "\"e1 #1\"");
    EXPECT_EQ(read(*status), "\"e1 #2\"");
    auto d = info(*status);
    EXPECT_STREQ(d["description"].GetString(), "volatile value (read)");
    EXPECT_STREQ(d["valueType"].GetString(), "string");
    EXPECT_EQ(to_json_text(d["capabilities"]), "{\"read\":true}");
    EXPECT_TRUE(status->is_async());

    handler->fail = true;
    EXPECT_EQ(error_of([&] { read(*status); }).message(), "refused");
    handler.reset();
    EXPECT_EQ(error_of([&] { read(*status); }).code(), -2);
}

TEST_F(DhApiNodes, StatusValueRisesAtOnceAndFallsAfterTheDelay) {
    auto node = status_value<bool>::create(db, "data/configStatus", false, 1);
    EXPECT_EQ(subscribe(*node, alice), "false");
    EXPECT_EQ(subscribe(*node, bob), "false");

    node->set(true);
    EXPECT_EQ(read(*node), "true");
    EXPECT_EQ(alice->event_values(), (std::vector<std::string>{"false", "true"}));
    EXPECT_EQ(bob->event_values().size(), 2u);
    EXPECT_EQ(db.history(10).Size(), 1u);

    node->set(false);
    node->periodic_task(false);
    EXPECT_EQ(read(*node), "true");
    node->periodic_task(false);
    EXPECT_EQ(read(*node), "false");
    EXPECT_EQ(alice->event_values().back(), "false");
    EXPECT_EQ(alice->event_values().size(), 3u);

    // A rise from a published false is immediate; the way back does not reach anybody if it
    // is undone within the delay.
    node->set(true);
    node->set(false);
    node->periodic_task(false);
    node->set(true);
    node->periodic_task(false);
    node->periodic_task(false);
    EXPECT_EQ(alice->event_values().size(), 4u);
    EXPECT_EQ(read(*node), "true");

    auto d = info(*node);
    EXPECT_STREQ(d["type"].GetString(), "status value");
    EXPECT_EQ(d["delayCycles"].GetUint(), 1u);
    EXPECT_FALSE(node->is_async());
}

TEST_F(DhApiNodes, StatusValueWithoutSubscribersAnswersTheValueSet) {
    auto node = status_value<bool>::create(db, "data/configStatus", false, 5);
    node->set(true);
    EXPECT_EQ(read(*node), "true");
    node->set(false);
    EXPECT_EQ(read(*node), "false");
    EXPECT_EQ(subscribe(*node, alice), "false");
    EXPECT_EQ(alice->event_values(), std::vector<std::string>{"false"});
}
