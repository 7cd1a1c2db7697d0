#include <string>
#include <utility>
#include <vector>

#include "ifospf_fixture.hpp"
#include "log_capture.hpp"

// Accepted settings of "mgmt", e27 and e28 also refill the packet filter's sets and write rule
// files under /var/persistent, so they are tested in the simulated device; here: validation, the
// document edits and the readers.

namespace {

class Interfaces : public handler_test {
  protected:
    std::string ipv4_of(const dh::Value& doc, std::string_view name) {
        const auto* entry = iface(doc, name);
        if (!entry) return "no entry";
        return entry->HasMember("ietf-ip:ipv4") ? to_json((*entry)["ietf-ip:ipv4"]) : "none";
    }
};

TEST_F(Interfaces, RefusedRequestsChangeNothing) {
    running_is(device());
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"({"netmask":"255.255.255.0"})", "Request is missing ipAddress."},
        {R"({"ipAddress":"10.0.0.1"})", "Request is missing netmask."},
        {R"({"ipAddress":"10.0.0.256","netmask":"255.255.255.0"})",
         "Invalid IP address: 10.0.0.256"},
        {R"({"ipAddress":"10.0.0.1","netmask":"255.255.255.x"})", "Invalid netmask: 255.255.255.x"},
        {R"({"ipAddress":"10.0.0.1","netmask":"255..255.0"})", "Invalid parameter <netmask>"},
        {R"({"ipAddress":"10.0.0.1","netmask":"255.0.255.0"})",
         "Invalid parameter <netmask>, '255.0.255.0' is not a valid netmask format."},
        {R"([1])", "Request is missing ipAddress."},
    };
    log_capture logs;
    for (const auto& [request, message] : cases) {
        auto e = catch_dh_error([&] { handler->set_ifconf("e5", parse(request)); });
        EXPECT_EQ(e.code(), -22) << request;
        EXPECT_EQ(e.message(), message) << request;
        const auto logged = logs.find(message);
        ASSERT_FALSE(logged.empty()) << message;
        EXPECT_EQ(logged.back().severity, 3);
        EXPECT_EQ(logged.back().channel, "set_ifconf");
    }

    // On e28 the nested part, the gateway and the same-address check are all validated before
    // anything is written: the first part alone would have been accepted.
    const std::vector<std::pair<std::string, std::string>> e28_cases = {
        {R"({"ipAddress":"10.0.0.1","netmask":"255.255.255.0","interface":{"ipAddress":"x",)"
         R"("netmask":"255.255.255.0"}})",
         "Invalid IP address: x"},
        {R"({"ipAddress":"10.0.0.1","netmask":"255.255.255.0","gateway":"router"})",
         "Invalid gateway address: router"},
        {R"({"ipAddress":"10.0.0.1","netmask":"255.255.255.0","interface":{)"
         R"("ipAddress":"10.0.0.1","netmask":"255.255.0.0"}})",
         "Same IP address as on mgmt interface: 10.0.0.1"},
        // Clearing the management address while e28 has none.
        {R"({"ipAddress":"0.0.0.0","netmask":"0.0.0.0"})",
         "Same IP address as on if-0/28 interface: "},
    };
    for (const auto& [request, message] : e28_cases)
        EXPECT_EQ(catch_dh_error([&] { handler->set_ifconf("e28", parse(request)); }).message(),
                  message);

    EXPECT_TRUE(imports("running").empty());
    EXPECT_TRUE(imports("startup").empty());
    for (const auto& command : fake->commands())
        EXPECT_EQ(command.find("nft"), std::string::npos) << command;
}

TEST_F(Interfaces, SettingsOfAnInternalPortAreWrittenAndLogged) {
    running_is(device());
    log_capture logs;
    handler->set_ifconf("e5", parse(R"({"ipAddress":"10.1.0.5","netmask":"255.255.0.0"})"));
    EXPECT_EQ(ipv4_of(last_import(), "e5"),
              R"({"forwarding":true,"address":[{"ip":"10.1.0.5","prefix-length":16}]})");
    EXPECT_EQ(imports("startup").size(), 1u);

    handler->set_ifconf("e5", parse(R"({"ipAddress":"0.0.0.0","netmask":"255.255.255.0"})"));
    EXPECT_EQ(ipv4_of(last_import(), "e5"), "none");
    EXPECT_EQ(logs.find(R"(Clear interface e5; ip: "", prefix: 24)").size(), 1u);
    EXPECT_EQ(logs.find(R"(Config interface e5; ip: "10.1.0.5", prefix: 16)").size(), 1u);

    handler->set_ifconf("e5", parse(R"({"ipAddress":"10.1.0.5","netmask":"0.0.0.0"})"));
    EXPECT_EQ(ipv4_of(last_import(), "e5"),
              R"({"forwarding":true,"address":[{"ip":"10.1.0.5","prefix-length":0}]})");
}

TEST_F(Interfaces, UpdateKeepsTheManagementAddressFirstOnE28) {
    Document doc = parse(device());
    handler->update_ifconf(doc, "e28", "10.0.28.1", 24, true);
    handler->update_ifconf(doc, "mgmt", "192.0.2.10", 24, true);
    EXPECT_EQ(ipv4_of(doc, "mgmt"),
              R"({"forwarding":true,"address":[{"ip":"192.0.2.10","prefix-length":24}]})");
    EXPECT_EQ(ipv4_of(doc, "e28"), R"({"forwarding":true,"address":[)"
                                   R"({"ip":"192.0.2.10","prefix-length":24},)"
                                   R"({"ip":"10.0.28.1","prefix-length":24}]})");
    // A new management address replaces the old one and keeps e28's own.
    handler->update_ifconf(doc, "mgmt", "192.0.2.11", 25, true);
    EXPECT_EQ(ipv4_of(doc, "e28"), R"({"forwarding":true,"address":[)"
                                   R"({"ip":"192.0.2.11","prefix-length":25},)"
                                   R"({"ip":"10.0.28.1","prefix-length":24}]})");
    handler->update_ifconf(doc, "e28", "", 0, true);
    EXPECT_EQ(ipv4_of(doc, "e28"),
              R"({"forwarding":true,"address":[{"ip":"192.0.2.11","prefix-length":25}]})");
    handler->update_ifconf(doc, "mgmt", "", 0, true);
    EXPECT_EQ(ipv4_of(doc, "mgmt"), "none");
    EXPECT_EQ(ipv4_of(doc, "e28"), "none");

    // Element 0 of any other interface is replaced, further addresses stay.
    doc = parse(R"({"ietf-interfaces:interfaces":{"interface":[{"name":"e3","ietf-ip:ipv4":)"
                R"({"forwarding":false,"address":[{"ip":"1.1.1.1","prefix-length":8},)"
                R"({"ip":"2.2.2.2","prefix-length":8}]}}]}})");
    handler->update_ifconf(doc, "e3", "3.3.3.3", 32, true);
    handler->update_ifconf(doc, "e4", "4.4.4.4", 32, true);
    EXPECT_EQ(ipv4_of(doc, "e3"), R"({"forwarding":true,"address":[)"
                                  R"({"ip":"3.3.3.3","prefix-length":32},)"
                                  R"({"ip":"2.2.2.2","prefix-length":8}]})");
    EXPECT_EQ(ipv4_of(doc, "e4"), "no entry");
}

TEST_F(Interfaces, ReadersOfConfiguredAndOperationalAddresses) {
    Document doc = parse(device());
    handler->update_ifconf(doc, "mgmt", "192.0.2.10", 24, true);
    handler->update_ifconf(doc, "e28", "10.0.28.1", 30, true);
    handler->update_ifconf(doc, "e2", "192.0.2.10", 32, true);
    EXPECT_EQ(to_json(handler->get_ifconf(doc, "e28")),
              R"({"ipAddress":"192.0.2.10","netmask":"255.255.255.0",)"
              R"("interface":{"ipAddress":"10.0.28.1","netmask":"255.255.255.252"}})");
    EXPECT_EQ(to_json(handler->get_ifconf(doc, "e2")),
              R"({"ipAddress":"192.0.2.10","netmask":"255.255.255.255"})");
    EXPECT_EQ(to_json(handler->get_ifconf(doc, "e3")),
              R"({"ipAddress":"0.0.0.0","netmask":"0.0.0.0"})");
    EXPECT_EQ(catch_dh_error([&] { handler->get_ifconf(doc, "e99"); }).message(),
              "Invalid interface name: e99");

    // Reading e28 made both addresses known: the operational e28 holds both, each name answers
    // its own, and the same-address check now sees e28's.
    fake->on("-d o -m 'ietf-interfaces'",
             fake_runner::reply{
                 0, R"({"ietf-interfaces:interfaces":{"interface":[{"name":"e28",)"
                    R"("ietf-ip:ipv4":{"address":[{"ip":"192.0.2.10",)"
                    R"("prefix-length":24},{"ip":"10.0.28.1","prefix-length":30}]}}]}})"});
    EXPECT_EQ(to_json(handler->get_ifconf_oper_ipv4("mgmt")),
              R"({"ipAddress":"192.0.2.10","netmask":"255.255.255.0","prefix-length":24})");
    EXPECT_EQ(to_json(handler->get_ifconf_oper_ipv4("e28")),
              R"({"ipAddress":"10.0.28.1","netmask":"255.255.255.252","prefix-length":30})");
    EXPECT_EQ(to_json(handler->get_ifconf_oper_ipv4("e1")),
              R"({"ipAddress":"0.0.0.0","netmask":"0.0.0.0","prefix-length":0})");
    running_is(device());
    EXPECT_EQ(catch_dh_error([&] {
                  handler->set_ifconf("e28",
                                      parse(R"({"ipAddress":"10.0.28.1","netmask":"255.0.0.0"})"));
              }).message(),
              "Same IP address as on if-0/28 interface: 10.0.28.1");
}

TEST_F(Interfaces, EnableSwitch) {
    running_is(device());
    handler->set_ifconf_enabled("e13.21", 21, "down");
    EXPECT_EQ(to_json((*iface(last_import(), "e13.21"))["enabled"]), "false");
    handler->set_ifconf_enabled("e14", 22, "down");
    EXPECT_EQ(handler->get_ifconf_enabled(last_import(), "e14.22"), "down");
    EXPECT_EQ(handler->get_ifconf_enabled(parse(R"({"ietf-interfaces:interfaces":{"interface":[)"
                                                R"({"name":"e1"}]}})"),
                                          "e1"),
              "up");

    const std::size_t before = imports().size();
    auto e = catch_dh_error([&] { handler->set_ifconf_enabled("e99", std::nullopt, "up"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), "Invalid interface name: e99");
    EXPECT_EQ(catch_dh_error([&] { handler->set_ifconf_enabled("e1", 9, "up"); }).message(),
              "Invalid interface name: e1.9");
    EXPECT_EQ(
        catch_dh_error([&] { handler->set_ifconf_enabled("e1", std::nullopt, "UP"); }).message(),
        "Invalid adminStatus for e1: UP");
    EXPECT_EQ(imports().size(), before);
}

TEST_F(Interfaces, ModesFollowBridgeAndTunnelSubInterface) {
    const Document doc = parse(device({"e11", "e12", "e3"}, {"e12.8", "e4.8"}));
    EXPECT_EQ(handler->_get_interface_mode_str(doc, "e1"), "tunnelOnly");
    EXPECT_EQ(handler->_get_interface_mode_str(doc, "e11"), "mgmtOnly");
    EXPECT_EQ(handler->_get_interface_mode_str(doc, "e12"), "mgmtAndTunnel");
    log_capture logs;
    EXPECT_EQ(handler->_get_interface_mode_str(doc, "e4"), "unknown");
    EXPECT_EQ(logs.find("Unknown interface mode for e4: br0=false, fw=false, fw_vlan=false, "
                        "ospf_tunnel_mode=tunnel")
                  .size(),
              1u);
    EXPECT_EQ(catch_dh_error([&] { handler->_get_interface_mode_str(doc, "e13"); }).message(),
              "Invalid interface name: e13");
}

TEST_F(Interfaces, ModeIsWrittenToStartupOnlyAndMovesOspf) {
    startup_is(
        device({"e12"}, {"e12.8"},
               R"(,"ietf-routing:routing":{"control-plane-protocols":{)"
               R"("control-plane-protocol":[{"type":"infix-routing:ospfv2","ietf-ospf:)"
               R"(ospf":{"areas":{"area":[{"area-id":"0.0.0.1","interfaces":{"interface":[)"
               R"({"name":"e12.8","enabled":true},{"name":"e12","enabled":false}]}}]}}}]}})"));
    handler->set_interface_mode("e12", "tunnelOnly");
    EXPECT_TRUE(imports("running").empty());
    ASSERT_EQ(imports("startup").size(), 1u);
    const Document doc = parse(imports("startup").back());
    EXPECT_EQ(handler->_get_interface_mode_str(doc, "e12"), "tunnelOnly");
    EXPECT_FALSE(iface(doc, "e12")->HasMember("infix-interfaces:bridge-port"));
    EXPECT_EQ(ipv4_of(doc, "e12"), R"({"forwarding":true})");
    EXPECT_EQ(ipv4_of(doc, "e12.8"), R"({"forwarding":false})");
    EXPECT_EQ(to_json(*at(doc,
                          "/ietf-routing:routing/control-plane-protocols/"
                          "control-plane-protocol/0/ietf-ospf:ospf/areas/area/0/interfaces")),
              R"({"interface":[{"name":"e12.8","enabled":false},{"name":"e12","enabled":true}]})");
    for (const auto& command : fake->commands())
        EXPECT_EQ(command.find("-d running"), std::string::npos) << command;

    startup_is(to_json(doc));
    handler->set_interface_mode("e12", "mgmtOnly");
    EXPECT_EQ(handler->_get_interface_mode_str(parse(imports("startup").back()), "e12"),
              "mgmtOnly");
    EXPECT_EQ(catch_dh_error([&] { handler->set_interface_mode("e13", "mgmtOnly"); }).message(),
              "Invalid interface name: e13");
    EXPECT_EQ(catch_dh_error([&] { handler->set_interface_mode("e1", "both"); }).message(),
              "Unknown interface mode: both");
}

}  // namespace
