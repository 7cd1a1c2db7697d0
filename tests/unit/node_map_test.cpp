#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "fake_runner.hpp"
#include "sysrepo_device_handler.hpp"
#include "version_texts.hpp"

namespace {

const char* const running_json = R"({
  "ietf-interfaces:interfaces": {"interface": [
    {"name": "mgmt", "type": "infix-if-type:ethernet", "enabled": true,
     "ietf-ip:ipv4": {"forwarding": true, "address": [{"ip": "192.0.2.10", "prefix-length": 24}]}},
    {"name": "e1", "type": "infix-if-type:ethernet", "enabled": true},
    {"name": "e13.21", "type": "infix-if-type:vlan", "enabled": false}
  ]},
  "ietf-system:system": {"ntp": {"enabled": true, "server": [
    {"name": "primary", "udp": {"address": "192.0.2.123"}}]}}
})";

std::string oper_json(const char* e1_status) {
    return std::string(R"({"ietf-interfaces:interfaces": {"interface": [
      {"name": "e1", "admin-status": "up", "oper-status": ")") +
           e1_status + R"(", "phys-address": "02:00:00:00:00:01",
       "ieee802-ethernet-interface:ethernet": {"speed": "1.0"}},
      {"name": "e28", "admin-status": "up", "oper-status": "up",
       "infix-interfaces:bridge-port": {"bridge": "br0"}}
    ]}})";
}

std::string read(dh_db& db, const std::string& path) {
    auto node = db.find_leaf_node(path);
    if (!node) return "<no node>";
    Document doc;
    dh::Value out;
    node->get(path, doc.GetAllocator(), out);
    return out.IsString() ? out.GetString()
           : out.IsBool() ? (out.GetBool() ? "true" : "false")
                          : "<other>";
}

// The handler started against a fake host: no process is run, and every command is recorded.
class NodeMap : public testing::Test {
  protected:
    void SetUp() override {
        fake->on("sysrepocfg --export -f json -d running", fake_runner::reply{0, running_json});
        fake->on("-d o -x '/ietf-interfaces:interfaces'", fake_runner::reply{0, oper_json("up")});
        fake->on("cat /etc/version",
                 fake_runner::reply{0, "QMX QMX-RB-16E 2.3.1 -- build 20261101\n"});
        fake->on("cat /etc/image/image_name.txt",
                 fake_runner::reply{0, " qmx-dh-container 1.0.0 \n"});
        fake->on("ethtool", fake_runner::reply{256, ""});
        handler = std::make_shared<sysrepo_device_handler>(db);
        handler->start();
        started = fake->commands();
    }
    void TearDown() override { handler.reset(); }

    // Declared first: the runner outlives the handler's threads.
    fake_runner::guard fake;
    dh_db db;
    std::shared_ptr<sysrepo_device_handler> handler;
    std::vector<std::string> started;
};

TEST_F(NodeMap, RegistersEveryLeafOnce) {
    auto leaves = db.list("");
    EXPECT_EQ(leaves.size(), 523u);
    EXPECT_EQ(read(db, "data/configStatus"), "true");

    for (const char* path : {"command/restoreFactoryDefaults",
                             "command/deliveryClear",
                             "config/automationMode",
                             "config/e1/adminStatus",
                             "config/e28/ipv4Settings",
                             "data/e28/macAddress",
                             "data/e27/ipv4Settings",
                             "data/e1/bridgePort",
                             "data/mgmt/ipv4Settings",
                             "config/e1.8/adminStatus",
                             "config/e16.24/adminStatus",
                             "config/e12/mode",
                             "data/e12/mode",
                             "config/ospf/e27/areaId",
                             "config/ospf/e28/areaId",
                             "config/ospf/e1.8/metric",
                             "config/ospf/e1/metric",
                             "config/ospf/e13.21/passive",
                             "config/ospf/e28/passive",
                             "config/ospf/e28/adminStatus",
                             "data/ntp/serverStatus",
                             "config/acl/whitelist",
                             "cli/show_ospf_routes",
                             "data/installStatus",
                             "data/temperatureMargin",
                             "command/techlogGenerate",
                             "config/e12/lldp/enable",
                             "data/e1/lldp/neighbours",
                             "data/any/lldp/neighbours",
                             "data/e13/sfp/rxPower"})
        EXPECT_NE(db.find_leaf_node(path), nullptr) << path;
    for (const char* path : {"config/ospf/e1/areaId", "config/mgmt/adminStatus", "config/e13/mode",
                             "config/ospf/e13.21/adminStatus", "data/e1.8/adminStatus"})
        EXPECT_EQ(db.find_leaf_node(path), nullptr) << path;
}

TEST_F(NodeMap, StartUpExportsThreeTimes) {
    std::size_t exports = 0, others = 0;
    for (const auto& c : started) {
        if (c.find("sysrepocfg") == std::string::npos) continue;
        (c.find("--export") != std::string::npos ? exports : others)++;
    }
    EXPECT_EQ(exports, 3u);
    EXPECT_EQ(others, 0u);
}

TEST_F(NodeMap, InitialValuesComeFromTheStartUpDocuments) {
    EXPECT_EQ(read(db, "data/fwVersion"), "2.3.1");
    EXPECT_EQ(read(db, "data/containerVersion"), "qmx-dh-container 1.0.0");
    EXPECT_EQ(read(db, "data/e1/macAddress"), "02:00:00:00:00:01");
    EXPECT_EQ(read(db, "data/e2/macAddress"), "");
    EXPECT_EQ(read(db, "data/e1/linkStatus"), "up");
    EXPECT_EQ(read(db, "data/e1/linkMediaType"), "1000BaseT");
    EXPECT_EQ(read(db, "data/e28/bridgePort"), "br0");
    EXPECT_EQ(read(db, "data/e2/adminStatus"), "unknown");
}

TEST_F(NodeMap, PollThreadPushesLinkChangesAndStopsPromptly) {
    fake->on("-d o -x '/ietf-interfaces:interfaces'", fake_runner::reply{0, oper_json("down")});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(4);
    while (read(db, "data/e1/linkStatus") != "down" && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(read(db, "data/e1/linkStatus"), "down");

    const auto stopping = std::chrono::steady_clock::now();
    handler.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - stopping, std::chrono::milliseconds(500));
}

TEST(VersionTexts, FirmwareAndContainer) {
    const std::pair<const char*, const char*> fw[] = {
        {"QMX QMX-RB-16E 2.3.1 -- build 20261101\n", "2.3.1"},
        {"release 4.0 -- note", "release 4.0"},
        {"QMX-RB-16E 5.1\n", "5.1\n"},
        {"", ""},
        {"other text\n", "other text\n"},
        {"QMX-RB-16E  -- x", ""}};
    for (auto [in, out] : fw) EXPECT_EQ(fw_version_from(in), out) << in;
    EXPECT_EQ(container_version_from("\t qmx 1.0 \n\n"), "qmx 1.0");
    EXPECT_EQ(container_version_from(""), "");
}

}  // namespace
