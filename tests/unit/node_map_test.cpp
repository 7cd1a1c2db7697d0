#include <set>
#include <string>
#include <vector>

#include "handler_fixture.hpp"
#include "version_texts.hpp"

namespace {

// The handler started against the device's configuration and operational state; no process is
// run.
class NodeMap : public handler_test {
  protected:
    void SetUp() override { start_handler(); }
};

TEST_F(NodeMap, RegistersEveryLeafOnceAndExportsThreeTimes) {
    EXPECT_EQ(db.list("").size(), 524u);
    EXPECT_EQ(read_node(db, "data/configStatus"), "true");
    // The count catches a missing leaf; the other tests read leaves of each kind of name.
    for (const char* path : {"config/ospf/e1/areaId", "config/mgmt/adminStatus", "config/e13/mode",
                             "config/ospf/e13.21/adminStatus", "data/e1.8/adminStatus"})
        EXPECT_EQ(db.find_leaf_node(path), nullptr) << path;
    EXPECT_EQ(fake->count("sysrepocfg --export"), 3u);
    EXPECT_EQ(fake->count("--import"), 0u);
}

TEST_F(NodeMap, OnlyParametersWhoseSetterIsADatastoreEditCanBeBatched) {
    std::set<std::string> not_batchable;
    for (const auto& node : db.list("config"))
        if (!node->batchable()) not_batchable.insert(node->get_path(0));
    std::set<std::string> expected{"config/automationMode", "config/acl/whitelist",
                                   "config/acl/adminStatus"};
    for (std::string_view port : sysrepo_common::RDM_INTERFACES)
        expected.insert("config/" + std::string(port) + "/lldp/enable");
    EXPECT_EQ(not_batchable, expected);
    EXPECT_FALSE(db.find_leaf_node("command/reboot")->batchable());
}

TEST_F(NodeMap, InitialValuesComeFromTheStartUpDocuments) {
    const std::pair<const char*, const char*> values[] = {
        {"data/fwVersion", R"("2.3.1")"},
        {"data/containerVersion", R"("qmx-dh-container 1.0.0")"},
        {"data/e2/macAddress", R"("")"},
        {"data/e1/linkMediaType", R"("1000BaseT")"},
        {"data/e2/adminStatus", R"("unknown")"},
        {"config/e28/ipv4Settings",
         R"({"ipAddress":"192.0.2.10","netmask":"255.255.255.0","interface":)"
         R"({"ipAddress":"10.0.28.1","netmask":"255.255.255.252"}})"},
        {"config/ospf/areaId", R"("0.0.0.1")"},
        {"config/ntp/secondaryServer", R"("10.0.0.2")"},
    };
    for (auto [path, value] : values) EXPECT_EQ(read_node(db, path), value) << path;
}

TEST_F(NodeMap, TheOneSecondPollPushesLinkChangesUntilTheHandlerGoes) {
    std::string oper = data_file("operational.json");
    const std::string up = R"("oper-status": "up")";
    oper.replace(oper.find(up), up.size(), R"("oper-status": "down")");
    fake->on("-d o -x /ietf-interfaces:interfaces", fake_executor::reply{0, oper});
    sched.advance(999ms);
    EXPECT_EQ(read_node(db, "data/e1/linkStatus"), R"("up")");
    sched.advance(1ms);
    EXPECT_EQ(read_node(db, "data/e1/linkStatus"), R"("down")");
    EXPECT_EQ(fake->count("-d o -x /ietf-interfaces:interfaces"), 2u);  // start, one poll

    handler.reset();
    fake->clear();
    sched.advance(1min);
    EXPECT_TRUE(fake->calls().empty());
}

TEST(VersionTexts, FirmwareVersionEdgeCases) {
    const std::pair<const char*, const char*> fw[] = {{"release 4.0 -- note", "release 4.0"},
                                                      {"QMX-RB-16E 5.1\n", "5.1\n"},
                                                      {"", ""},
                                                      {"QMX-RB-16E  -- x", ""}};
    for (auto [in, out] : fw) EXPECT_EQ(fw_version_from(in), out) << in;
}

}  // namespace
