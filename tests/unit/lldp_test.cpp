#include <stdexcept>
#include <string>

#include "handler_fixture.hpp"
#include "lldp_neighbours.hpp"

namespace {

const char* const two_ports = R"({"lldp":{"interface":[
    {"e2":{"chassis":{"sw-a":{}},"port":{"descr":"p1"}}},
    {"e1":{"chassis":{"sw-b":{}}}},
    {"e2":{"chassis":{"sw-c":{}}}},
    {"e9":{"chassis":{"sw-d":{}}}}]}})";

TEST(LldpNeighbours, InterfaceArrayAndItsSplitByPort) {
    EXPECT_EQ(to_json(lldp_neighbours::interfaces(R"({"lldp":{"interface":{"e1":{"x":1}}}})")),
              R"([{"e1":{"x":1}}])");
    EXPECT_EQ(to_json(lldp_neighbours::interfaces(R"({"lldp":{}})")), "[]");
    // Text that is no JSON at all is refused in the handler test below.
    EXPECT_EQ(error_of([] { lldp_neighbours::interfaces(R"({"lldp":{"interface":"e1"}})"); }),
              R"(-22 Invalid json response: {"lldp":{"interface":"e1"}})");

    // Elements without a member, or of another type, name no port (the split of a real answer
    // shows in the per-port nodes below).
    EXPECT_TRUE(lldp_neighbours::by_port(
                    lldp_neighbours::interfaces(R"({"lldp":{"interface":[{},1,"e1"]}})"))
                    .empty());
}

class Lldp : public handler_test {
  protected:
    void SetUp() override {
        fake->on("lldpctl", fake_executor::reply{0, two_ports});
        start_handler();
        fake->clear();
        // The value group polls once when the node joins; later polls are 30 s apart.
        ASSERT_EQ(after_a_tick("data/any/lldp/neighbours"), "[]");
    }
    // What `path` reads one tick later: a port's list is published when it lasted a tick.
    std::string after_a_tick(const std::string& path) {
        sched.advance(1s);
        return read_node(db, path);
    }
};

TEST_F(Lldp, SwitchingOnFetchesAtOnceAndSwitchingOffEmpties) {
    // Ports start off, and nothing runs while all are off.
    EXPECT_EQ(read_node(db, "config/e1/lldp/enable"), "false");
    EXPECT_EQ(read_node(db, "data/e13/lldp/neighbours"), "missing");
    EXPECT_EQ(to_json(handler->lldp().lldp_update_neighbours()), "[]");
    EXPECT_EQ(fake->count("lldpctl"), 0u);

    Document on;
    on.SetBool(true);
    db.find_leaf_node("config/e2/lldp/enable")->set("config/e2/lldp/enable", on);
    EXPECT_EQ(after_a_tick("data/e2/lldp/neighbours"),
              R"([{"chassis":{"sw-a":{}},"port":{"descr":"p1"}},{"chassis":{"sw-c":{}}}])");
    EXPECT_EQ(fake->count(ns + "/sbin/lldpctl -f json"), 1u);
    // Ports that are off stay empty, while the device-wide value lists every port.
    EXPECT_EQ(read_node(db, "data/e1/lldp/neighbours"), "[]");
    EXPECT_EQ(read_node(db, "data/any/lldp/neighbours"),
              to_json(lldp_neighbours::interfaces(two_ports)));

    handler->lldp().lldp_set_enable("e2", true);
    EXPECT_EQ(fake->count("lldpctl"), 1u);
    handler->lldp().lldp_set_enable("e2", false);
    EXPECT_EQ(read_node(db, "data/e2/lldp/neighbours"), "[]");
    EXPECT_FALSE(handler->lldp().lldp_get_enable("e2"));
    EXPECT_THROW(handler->lldp().lldp_set_enable("e13", true), std::out_of_range);
}

TEST_F(Lldp, SwitchingOnStartsTheThirtySecondsAgainAndUnparsableOutputChangesNoPort) {
    handler->lldp().lldp_set_enable("e1", true);
    EXPECT_EQ(after_a_tick("data/e1/lldp/neighbours"), R"([{"chassis":{"sw-b":{}}}])");
    sched.advance(28s);
    EXPECT_EQ(fake->count("lldpctl"), 1u);
    sched.advance(1s);
    EXPECT_EQ(fake->count("lldpctl"), 2u);

    fake->on("lldpctl", fake_executor::reply{0, "garbage"});
    EXPECT_EQ(error_of([&] { handler->lldp().lldp_update_neighbours(); }),
              "-22 Invalid json response: garbage");
    EXPECT_EQ(read_node(db, "data/e1/lldp/neighbours"), R"([{"chassis":{"sw-b":{}}}])");
}

}  // namespace
