#include <algorithm>
#include <filesystem>
#include <string>

#include "handler_fixture.hpp"

// Writes made in one write batch (set_many): one export, one import of each datastore, host
// effects after the imports, and a batch that fails at any step changes nothing.

namespace {

const std::string export_running = ns + "sysrepocfg --export -f json -d running -t 30";
const std::string import_running = ns + "sysrepocfg --import -f json -d running -t 30";
const std::string import_startup = ns + "sysrepocfg --import -f json -d startup -t 30";
const std::string nft = ns + "/usr/sbin/nft -f -";
const std::string ntpd_restart = "/etc/init.d/ntpd restart";

class BatchWrite : public handler_test {
  protected:
    void SetUp() override {
        start_handler();
        before = to_json(running_doc());
        fake->clear();
    }

    std::string before;
    const updates several = {{"config/ntp/primaryServer", R"("192.0.2.1")"},
                             {"config/ntp/secondaryServer", R"("192.0.2.2")"},
                             {"config/dnsSettings", R"({"primaryDnsIpAddress":"192.0.2.53"})"},
                             {"config/ospf/e4/metric", "20"}};
    const std::string new_mgmt = R"({"ipAddress":"192.0.2.20","netmask":"255.255.255.0"})";
};

TEST_F(BatchWrite, ExportsOnceImportsEachDatastoreOnceAndThenActsOnTheHost) {
    EXPECT_EQ(write_together(several), "ok");
    const auto commands = fake->commands();
    EXPECT_EQ(std::count(commands.begin(), commands.end(), export_running), 1);
    EXPECT_EQ(imports("running").size(), 1u);
    EXPECT_EQ(imports("startup"), imports("running"));
    // After both imports, and once for both NTP servers.
    EXPECT_EQ(commands.back(), ntpd_restart);
    EXPECT_EQ(fake->count(ntpd_restart), 1u);

    EXPECT_NE(ospf_iface(last_import(), "0.0.0.1", "e4.8").find(R"("cost":20)"), std::string::npos);
    EXPECT_EQ(read_node(db, "config/ospf/e4/metric"), "20");
}

TEST_F(BatchWrite, ARefusedUpdateChangesNothingAndPutsModelsBack) {
    EXPECT_EQ(write_together({{"config/ospf/areaId", R"("0.0.0.9")"},
                              {"config/e28/ipv4Settings", new_mgmt},
                              {"config/ntp/primaryServer", R"("no host!")"}}),
              "2 -22 Invalid NTP server address: no host!");
    EXPECT_EQ(fake->count("--import"), 0u);
    EXPECT_EQ(fake->count("nft"), 0u);
    EXPECT_EQ(read_node(db, "config/ospf/areaId"), R"("0.0.0.1")");

    // The OSPF model is as it was: the next write regenerates the entry with the old area and
    // router id.
    EXPECT_EQ(write_together({{"config/ospf/e27/areaId", R"("0.0.0.2")"}}), "ok");
    const Document doc = last_import();
    EXPECT_NE(ospf_iface(doc, "0.0.0.1", "e1"), "absent");
    EXPECT_EQ(json_at(doc,
                      "/ietf-routing:routing/control-plane-protocols/control-plane-protocol/0/"
                      "ietf-ospf:ospf/explicit-router-id"),
              R"("192.0.2.10")");
}

TEST_F(BatchWrite, AFailedStartupImportPutsRunningBack) {
    fake->on(import_startup, fake_executor::reply{256, ""});
    EXPECT_EQ(write_together(several), "0 256 Failed to call: " + import_startup);
    ASSERT_EQ(imports("running").size(), 2u);
    EXPECT_EQ(parse(imports("running")[1]), parse(before));
    EXPECT_EQ(fake->count(ntpd_restart), 0u);
    EXPECT_EQ(root.read("/etc/resolv.conf"), "absent");
    EXPECT_EQ(read_node(db, "config/dnsSettings"),
              R"({"primaryDnsIpAddress":"10.0.0.53","secondaryDnsIpAddress":"fd00::53"})");
}

TEST_F(BatchWrite, AFailedHostEffectRestoresTheDatastoresAndUndoesEarlierEffects) {
    // The resolver file cannot be written: a directory stands in its place.
    std::filesystem::create_directories(root.path() / "etc/resolv.conf");
    EXPECT_EQ(write_together({{"config/e28/ipv4Settings", new_mgmt},
                              {"config/dnsSettings", R"({"primaryDnsIpAddress":"192.0.2.53"})"}}),
              "1 -5 Failed to open /etc/resolv.conf.");
    for (const char* ds : {"running", "startup"}) {
        ASSERT_EQ(imports(ds).size(), 2u) << ds;
        EXPECT_EQ(parse(imports(ds)[1]), parse(before)) << ds;
    }
    // The management set was filled with the new address, then with the old one again.
    texts fills;
    for (const auto& input : fake->inputs(nft))
        if (input.find("add element inet filter mgmt_ip_addresses") != std::string::npos)
            fills.push_back(input.substr(input.find('{')));
    EXPECT_EQ(fills, (texts{"{192.0.2.20} \n", "{192.0.2.10} \n"}));
    EXPECT_EQ(read_node(db, "config/e28/ipv4Settings"),
              R"({"ipAddress":"192.0.2.10","netmask":"255.255.255.0","interface":)"
              R"({"ipAddress":"10.0.28.1","netmask":"255.255.255.252"}})");
}

TEST_F(BatchWrite, AStartupOnlyEditReachesStartupAlone) {
    EXPECT_EQ(write_together({{"config/ntp/primaryServer", R"("192.0.2.1")"},
                              {"config/e4/mode", R"("tunnelOnly")"}}),
              "ok");
    const Document running = last_import("running");
    const Document startup = last_import("startup");
    EXPECT_EQ(json_at(startup, "/ietf-system:system/ntp/server/0/udp/address"), R"("192.0.2.1")");
    EXPECT_EQ(json_at(running, "/ietf-system:system/ntp/server/0/udp/address"), R"("192.0.2.1")");
    EXPECT_EQ(handler->interfaces()._get_interface_mode_str(startup, "e4"), "tunnelOnly");
    EXPECT_NE(handler->interfaces()._get_interface_mode_str(running, "e4"), "tunnelOnly");
}

}  // namespace
