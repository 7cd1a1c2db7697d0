#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "dh_error.hpp"
#include "fake_runner.hpp"
#include "lldp_neighbours.hpp"
#include "sysrepo_device_handler.hpp"

namespace {

std::string to_json(const dh::Value& v) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    v.Accept(writer);
    return buffer.GetString();
}

const char* const two_ports = R"({"lldp":{"interface":[
    {"e2":{"chassis":{"sw-a":{}},"port":{"descr":"p1"}}},
    {"e1":{"chassis":{"sw-b":{}}}},
    {"e2":{"chassis":{"sw-c":{}}}},
    {"e9":{"chassis":{"sw-d":{}}}}]}})";

}  // namespace

TEST(LldpNeighbours, InterfaceValueIsAlwaysAnArray) {
    EXPECT_EQ(to_json(lldp_neighbours::interfaces(R"({"lldp":{"interface":{"e1":{"x":1}}}})")),
              R"([{"e1":{"x":1}}])");
    EXPECT_EQ(
        to_json(lldp_neighbours::interfaces(R"({"lldp":{"interface":[{"e1":{}},{"e2":{}}]}})")),
        R"([{"e1":{}},{"e2":{}}])");
    EXPECT_EQ(to_json(lldp_neighbours::interfaces(R"({"lldp":{}})")), "[]");
    for (const char* bad : {"lldpd not running", R"({"lldp":{"interface":"e1"}})"}) {
        try {
            lldp_neighbours::interfaces(bad);
            ADD_FAILURE() << bad;
        } catch (const dh_error& e) {
            EXPECT_EQ(e.code(), -22);
            EXPECT_EQ(e.message(), std::string("Invalid json response: ") + bad);
        }
    }
}

TEST(LldpNeighbours, SplitByPortKeepsOrderAndCollectsSeveralNeighbours) {
    const auto ports = lldp_neighbours::by_port(lldp_neighbours::interfaces(two_ports));
    ASSERT_EQ(ports.size(), 3u);
    EXPECT_EQ(to_json(ports.at("e2")),
              R"([{"chassis":{"sw-a":{}},"port":{"descr":"p1"}},{"chassis":{"sw-c":{}}}])");
    EXPECT_EQ(to_json(ports.at("e1")), R"([{"chassis":{"sw-b":{}}}])");
    // Elements without a member, or of another type, name no port.
    EXPECT_TRUE(lldp_neighbours::by_port(
                    lldp_neighbours::interfaces(R"({"lldp":{"interface":[{},1,"e1"]}})"))
                    .empty());
}

class Lldp : public testing::Test {
  protected:
    fake_runner::guard fake;
    dh_db db;
    std::shared_ptr<sysrepo_device_handler> handler = std::make_shared<sysrepo_device_handler>(db);

    void SetUp() override {
        fake->on("lldpctl", fake_runner::reply{0, two_ports});
        handler->lldp_init();
        // The value group polls once when the node joins; later polls are 30 s apart.
        ASSERT_TRUE(reads_soon("data/any/lldp/neighbours", "[]"));
    }

    std::string read(const std::string& path) {
        Document doc;
        dh::Value out;
        try {
            db.find_leaf_node(path)->get(path, doc.GetAllocator(), out);
        } catch (const dh_error& e) {
            return e.message();
        }
        return to_json(out);
    }
    std::size_t lldpctl_runs() {
        std::size_t n = 0;
        for (const auto& cmd : fake->commands())
            if (cmd.find("lldpctl") != std::string::npos) ++n;
        return n;
    }
    // Waits (at most five seconds) until the node at `path` reads `expected`.
    bool reads_soon(const std::string& path, const std::string& expected) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (read(path) != expected) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }
};

TEST_F(Lldp, PortsStartOffAndNothingRunsWhileAllAreOff) {
    EXPECT_EQ(read("config/e1/lldp/enable"), "false");
    EXPECT_EQ(read("data/e12/lldp/neighbours"), "[]");
    EXPECT_EQ(db.find_leaf_node("data/e13/lldp/neighbours"), nullptr);
    EXPECT_EQ(to_json(handler->lldp_update_neighbours()), "[]");
    EXPECT_EQ(lldpctl_runs(), 0u);
}

TEST_F(Lldp, SwitchingOnFetchesAtOnceAndSwitchingOffEmpties) {
    Document on;
    on.SetBool(true);
    db.find_leaf_node("config/e2/lldp/enable")->set("config/e2/lldp/enable", on);
    ASSERT_TRUE(
        reads_soon("data/e2/lldp/neighbours",
                   R"([{"chassis":{"sw-a":{}},"port":{"descr":"p1"}},{"chassis":{"sw-c":{}}}])"));
    EXPECT_EQ(lldpctl_runs(), 1u);
    // Ports that are off stay empty, while the device-wide value lists every port.
    EXPECT_EQ(read("data/e1/lldp/neighbours"), "[]");
    EXPECT_TRUE(
        reads_soon("data/any/lldp/neighbours", to_json(lldp_neighbours::interfaces(two_ports))));

    handler->lldp_set_enable("e2", true);
    EXPECT_EQ(lldpctl_runs(), 1u);

    handler->lldp_set_enable("e2", false);
    EXPECT_EQ(read("data/e2/lldp/neighbours"), "[]");
    EXPECT_FALSE(handler->lldp_get_enable("e2"));
    EXPECT_THROW(handler->lldp_set_enable("e13", true), std::out_of_range);
}

TEST_F(Lldp, UnparsableOutputChangesNoPort) {
    handler->lldp_set_enable("e1", true);
    ASSERT_TRUE(reads_soon("data/e1/lldp/neighbours", R"([{"chassis":{"sw-b":{}}}])"));
    fake->on("lldpctl", fake_runner::reply{0, "garbage"});
    EXPECT_THROW(handler->lldp_update_neighbours(), dh_error);
    EXPECT_EQ(read("data/e1/lldp/neighbours"), R"([{"chassis":{"sw-b":{}}}])");
}
