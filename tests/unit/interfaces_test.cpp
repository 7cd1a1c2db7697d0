#include <string>

#include "handler_fixture.hpp"
#include "oper_state.hpp"

// Interface addresses, the default gateway, the management filter sets, interface modes and the
// operational state. Accepted settings of "mgmt", e27 and e28 also refill the packet filter's
// sets and write rule files under /var/persistent, so they are tested in the simulated device;
// here: validation, the document edits and the readers.

namespace {

class Interfaces : public handler_test {
  protected:
    static std::string ipv4_of(const dh::Value& doc, std::string_view name) {
        const auto* entry = iface(doc, name);
        if (!entry) return "no entry";
        return entry->HasMember("ietf-ip:ipv4") ? to_json((*entry)["ietf-ip:ipv4"]) : "none";
    }
    static std::string addresses(const std::string& list) {
        return R"({"forwarding":true,"address":[)" + list + "]}";
    }
    std::string set(const char* name, const std::string& request) {
        return error_of([&] { handler->interfaces().set_ifconf(name, parse(request)); });
    }
};

TEST_F(Interfaces, RefusedRequestsChangeNothing) {
    running_is(running_doc());
    const std::string ip = R"("ipAddress":"10.0.0.1")", mask = R"("netmask":"255.255.255.0")";
    struct row {
        const char* name;
        std::string request, error;
    };
    const row rows[] = {
        {"e5", "{" + mask + "}", "Request is missing ipAddress."},
        {"e5", "[1]", "Request is missing ipAddress."},
        {"e5", "{" + ip + "}", "Request is missing netmask."},
        {"e5", R"({"ipAddress":"10.0.0.256",)" + mask + "}", "Invalid IP address: 10.0.0.256"},
        {"e5", "{" + ip + R"(,"netmask":"255.255.255.x"})", "Invalid netmask: 255.255.255.x"},
        {"e5", "{" + ip + R"(,"netmask":"255..255.0"})", "Invalid parameter <netmask>"},
        {"e5", "{" + ip + R"(,"netmask":"255.0.255.0"})",
         "Invalid parameter <netmask>, '255.0.255.0' is not a valid netmask format."},
        // On e28 the nested part, the gateway and the same-address check are all validated
        // before anything is written: the first part alone would have been accepted.
        {"e28", "{" + ip + "," + mask + R"(,"interface":{"ipAddress":"x",)" + mask + "}}",
         "Invalid IP address: x"},
        {"e28", "{" + ip + "," + mask + R"(,"gateway":"router"})",
         "Invalid gateway address: router"},
        {"e28", "{" + ip + "," + mask + R"(,"interface":{)" + ip + R"(,"netmask":"255.255.0.0"}})",
         "Same IP address as on mgmt interface: 10.0.0.1"},
        // Clearing the management address while e28 has none.
        {"e28", R"({"ipAddress":"0.0.0.0","netmask":"0.0.0.0"})",
         "Same IP address as on if-0/28 interface: "},
    };
    for (const auto& r : rows) EXPECT_EQ(set(r.name, r.request), "-22 " + r.error) << r.request;
    EXPECT_EQ(fake->count("--import"), 0u);
    EXPECT_EQ(fake->count("nft"), 0u);
}

TEST_F(Interfaces, SettingsOfAnInternalPortAreWritten) {
    running_is(running_doc());
    set("e5", R"({"ipAddress":"10.1.0.5","netmask":"255.255.0.0"})");
    EXPECT_EQ(ipv4_of(last_import(), "e5"), addresses(R"({"ip":"10.1.0.5","prefix-length":16})"));
    set("e5", R"({"ipAddress":"0.0.0.0","netmask":"255.255.255.0"})");
    EXPECT_EQ(ipv4_of(last_import(), "e5"), "none");
    set("e5", R"({"ipAddress":"10.1.0.5","netmask":"0.0.0.0"})");
    EXPECT_EQ(ipv4_of(last_import(), "e5"), addresses(R"({"ip":"10.1.0.5","prefix-length":0})"));
}

TEST_F(Interfaces, UpdateKeepsTheManagementAddressFirstOnE28) {
    Document doc = running_doc();
    const std::string own = R"({"ip":"10.0.28.1","prefix-length":30})";
    const std::string mgmt = R"({"ip":"192.0.2.11","prefix-length":25})";
    // A new management address replaces the old one on both, and e28 keeps its own.
    handler->interfaces().update_ifconf(doc, "mgmt", "192.0.2.11", 25, true);
    EXPECT_EQ(ipv4_of(doc, "mgmt"), addresses(mgmt));
    EXPECT_EQ(ipv4_of(doc, "e28"), addresses(mgmt + "," + own));
    handler->interfaces().update_ifconf(doc, "e28", "10.0.28.5", 24, true);
    EXPECT_EQ(ipv4_of(doc, "e28"), addresses(mgmt + R"(,{"ip":"10.0.28.5","prefix-length":24})"));
    handler->interfaces().update_ifconf(doc, "e28", "", 0, true);
    EXPECT_EQ(ipv4_of(doc, "e28"), addresses(mgmt));
    handler->interfaces().update_ifconf(doc, "mgmt", "", 0, true);
    EXPECT_EQ(ipv4_of(doc, "mgmt") + ipv4_of(doc, "e28"), "nonenone");
    handler->interfaces().update_ifconf(doc, "e28", "10.0.28.1", 30, true);
    EXPECT_EQ(ipv4_of(doc, "e28"), addresses(own));

    // Element 0 of any other interface is replaced, further addresses stay.
    doc = parse(R"({"ietf-interfaces:interfaces":{"interface":[{"name":"e3","ietf-ip:ipv4":)"
                R"({"forwarding":false,"address":[{"ip":"1.1.1.1","prefix-length":8},)"
                R"({"ip":"2.2.2.2","prefix-length":8}]}}]}})");
    handler->interfaces().update_ifconf(doc, "e3", "3.3.3.3", 32, true);
    handler->interfaces().update_ifconf(doc, "e4", "4.4.4.4", 32, true);
    EXPECT_EQ(ipv4_of(doc, "e3"), addresses(R"({"ip":"3.3.3.3","prefix-length":32},)"
                                            R"({"ip":"2.2.2.2","prefix-length":8})"));
    EXPECT_EQ(ipv4_of(doc, "e4"), "no entry");
}

TEST_F(Interfaces, ReadersOfConfiguredAndOperationalAddresses) {
    const Document doc = running_doc();
    const auto get = [&](const char* name) {
        return to_json(handler->interfaces().get_ifconf(doc, name));
    };
    EXPECT_EQ(get("e28"), R"({"ipAddress":"192.0.2.10","netmask":"255.255.255.0",)"
                          R"("interface":{"ipAddress":"10.0.28.1","netmask":"255.255.255.252"}})");
    EXPECT_EQ(get("e2"), R"({"ipAddress":"192.0.2.10","netmask":"255.255.255.255"})");
    EXPECT_EQ(get("e27"), R"({"ipAddress":"0.0.0.0","netmask":"0.0.0.0"})");
    EXPECT_EQ(error_of([&] { get("e99"); }), "-22 Invalid interface name: e99");

    // Reading e28 made both addresses known: the operational e28 holds both, each name answers
    // its own, and the same-address check now sees e28's.
    fake->on("-d o -m ietf-interfaces", fake_executor::reply{0, data_file("operational.json")});
    const auto oper = [&](const char* name) {
        return to_json(handler->interfaces().get_ifconf_oper_ipv4(name));
    };
    EXPECT_EQ(oper("mgmt"),
              R"({"ipAddress":"192.0.2.10","netmask":"255.255.255.0","prefix-length":24})");
    EXPECT_EQ(oper("e28"),
              R"({"ipAddress":"10.0.28.1","netmask":"255.255.255.252","prefix-length":30})");
    EXPECT_EQ(oper("e1"), R"({"ipAddress":"0.0.0.0","netmask":"0.0.0.0","prefix-length":0})");
    running_is(running_doc());
    EXPECT_EQ(set("e28", R"({"ipAddress":"10.0.28.1","netmask":"255.0.0.0"})"),
              "-22 Same IP address as on if-0/28 interface: 10.0.28.1");
}

TEST_F(Interfaces, EnableSwitch) {
    running_is(running_doc());
    handler->interfaces().set_ifconf_enabled("e13.21", 21, "down");
    EXPECT_EQ(handler->interfaces().get_ifconf_enabled(last_import(), "e13.21"), "down");
    handler->interfaces().set_ifconf_enabled("e14", 22, "up");
    EXPECT_EQ(handler->interfaces().get_ifconf_enabled(last_import(), "e14.22"), "up");
    // "enabled" defaults to true.
    EXPECT_EQ(handler->interfaces().get_ifconf_enabled(
                  parse(R"({"ietf-interfaces:interfaces":{"interface":[{"name":"e1"}]}})"), "e1"),
              "up");
    const auto refusal = [&](const char* name, std::optional<int> vlan, const char* status) {
        return error_of([&] { handler->interfaces().set_ifconf_enabled(name, vlan, status); });
    };
    EXPECT_EQ(refusal("e99", std::nullopt, "up"), "-22 Invalid interface name: e99");
    EXPECT_EQ(refusal("e1", 9, "up"), "-22 Invalid interface name: e1.9");
    EXPECT_EQ(refusal("e1", std::nullopt, "UP"), "-22 Invalid adminStatus for e1: UP");
    EXPECT_EQ(imports().size(), 2u);
}

TEST_F(Interfaces, ModesAreReadFromBridgeAndTunnelAndWrittenToStartupOnly) {
    Document doc = running_doc();
    const auto mode = [&](const char* name) {
        return handler->interfaces()._get_interface_mode_str(doc, name);
    };
    EXPECT_EQ(mode("e1") + " " + mode("e11") + " " + mode("e12") + " " + mode("e4"),
              "tunnelOnly mgmtOnly mgmtAndTunnel unknown");
    EXPECT_EQ(error_of([&] { mode("e13"); }), "-22 Invalid interface name: e13");

    const auto startup_is = [&](const Document& d) {
        fake->on("--export -f json -d startup", fake_executor::reply{0, to_json(d)});
    };
    startup_is(doc);
    handler->interfaces().set_interface_mode("e12", "tunnelOnly");
    EXPECT_EQ(fake->count("-d running"), 0u);
    ASSERT_EQ(imports("startup").size(), 1u);
    doc = last_import("startup");
    EXPECT_EQ(mode("e12"), "tunnelOnly");
    EXPECT_FALSE(iface(doc, "e12")->HasMember("infix-interfaces:bridge-port"));
    EXPECT_EQ(ipv4_of(doc, "e12"), R"({"forwarding":true})");
    EXPECT_EQ(ipv4_of(doc, "e12.8"),
              R"({"forwarding":false,"address":[{"ip":"192.0.2.10","prefix-length":32}]})");
    // OSPF ran on e12.8 and now runs on e12.
    EXPECT_EQ(json_at(parse(ospf_iface(doc, "0.0.0.1", "e12.8")), "/enabled"), "false");
    EXPECT_EQ(json_at(parse(ospf_iface(doc, "0.0.0.1", "e12")), "/enabled"), "true");

    startup_is(doc);
    handler->interfaces().set_interface_mode("e12", "mgmtOnly");
    doc = last_import("startup");
    EXPECT_EQ(mode("e12"), "mgmtOnly");
    EXPECT_EQ(error_of([&] { handler->interfaces().set_interface_mode("e13", "mgmtOnly"); }),
              "-22 Invalid interface name: e13");
    EXPECT_EQ(error_of([&] { handler->interfaces().set_interface_mode("e1", "both"); }),
              "-22 Unknown interface mode: both");
}

using Gateway = handler_test;

// The gateway is the next hop of the static entry's first route; e28's settings write it.
TEST_F(Gateway, WrittenWithTheManagementSettingsAndReadFromRunning) {
    const std::string entries =
        "/ietf-routing:routing/control-plane-protocols/control-plane-protocol";
    const std::string routes = "/static-routes/ietf-ipv4-unicast-routing:ipv4/route";
    // The static entry of data/running.json (one route, via 192.0.2.1) alone, and a second route.
    const std::string other = R"({"destination-prefix":"10.0.0.0/8"})";
    running_is(running_doc({{entries, "[" + json_at(running_doc(), entries + "/1") + "]"},
                            {entries + "/0" + routes + "/1", other}}));
    EXPECT_EQ(handler->interfaces().get_gateway(), "192.0.2.1");
    const auto set_gateway = [&](const std::string& gateway) {
        handler->interfaces().set_ifconf(
            "e28", parse(R"({"ipAddress":"192.0.2.10","netmask":"255.255.255.0","gateway":")" +
                         gateway + R"("})"));
        keep_last_import();
        return handler->interfaces().get_gateway();
    };
    // Only the first route's next hop changes; further routes stay.
    EXPECT_EQ(set_gateway("192.0.2.254"), "192.0.2.254");
    EXPECT_EQ(json_at(last_import(), entries + "/0" + routes + "/1"), other);
    // An empty gateway removes the static entry; a new one is then created.
    EXPECT_EQ(set_gateway(""), "0.0.0.0");
    EXPECT_EQ(json_at(last_import(), entries), "[]");
    EXPECT_EQ(set_gateway("10.0.0.254"), "10.0.0.254");
    const std::string hop = entries + "/1" + routes + "/0/next-hop/next-hop-address";
    EXPECT_EQ(json_at(last_import(), entries + "/0"),
              json_at(running_doc({{hop, R"("10.0.0.254")"}}), entries + "/1"));
}

using MgmtFirewall = handler_test;

const std::string nft = ns + "/usr/sbin/nft -f -";
const std::string rule_dir = "/var/persistent/etc/nftables/";

// A refill with an address, and the saved listing, are tested in the simulated device.
TEST_F(MgmtFirewall, RefillsTheSetAndSavesItsListing) {
    // An empty text only flushes; an empty listing leaves the file alone.
    handler->interfaces().update_mgmt_nft("", mgmt_ports::e27);
    EXPECT_EQ(fake->inputs(nft).front(), "flush set inet filter e27_ip_addresses;\n");
    EXPECT_EQ(root.read(rule_dir + "ruleset-e27-ip.nft"), "absent");

    // A failing nft is logged and the update goes on with the listing.
    fake->on("flush set inet filter e28", fake_executor::reply{256, ""});
    fake->on("list set inet filter e28", fake_executor::reply{0, "listing\n"});
    handler->interfaces().update_mgmt_nft("1.1.1.1", mgmt_ports::e28);
    EXPECT_EQ(root.read(rule_dir + "ruleset-e28-ip.nft"), "listing\n");

    fake->clear();
    EXPECT_EQ(error_of([&] {
                  handler->interfaces().update_mgmt_nft("1.1.1.1", static_cast<mgmt_ports>(3));
              }),
              "-22 Invalid interface for mgmt nft rule");
    EXPECT_TRUE(fake->calls().empty());
}

// data/operational.json holds interfaces in the forms the operational datastore gives them:
// full state, state from "enabled" only, an unusual oper-status, an unreadable speed, and bridge
// membership by either leaf or by a higher-layer interface.
TEST(OperState, StatusTextsFromInterfaceEntriesAndSpeeds) {
    const Document oper = parse(data_file("operational.json"));
    const std::pair<const char*, const char*> rows[] = {{"e1", "up up 1000BaseT none"},
                                                        {"e11", "down down unknown br0"},
                                                        {"e12", "down down unknown br1"},
                                                        {"e13", "up up 10G br0"},
                                                        {"e27", "unknown unknown unknown unknown"}};
    for (auto [name, expected] : rows) {
        const auto s = interface_status_from(find_oper_interface(oper, name));
        EXPECT_EQ(
            s.admin_status + " " + s.link_status + " " + s.link_media_type + " " + s.bridge_port,
            expected);
    }
    EXPECT_EQ(interfaces_unit::get_ifconf_oper_macaddr(oper, "e1"), "02:00:00:00:00:01");
    EXPECT_EQ(interfaces_unit::get_ifconf_oper_macaddr(oper, "e12"), "");

    // A failed or empty export: every lookup finds nothing instead of failing.
    for (const char* json : {"null", "{}", R"({"ietf-interfaces:interfaces": []})",
                             R"({"ietf-interfaces:interfaces": {"interface": {}}})"}) {
        EXPECT_EQ(find_oper_interface(parse(json), "e1"), nullptr) << json;
        EXPECT_EQ(interfaces_unit::get_ifconf_oper_macaddr(parse(json), "e1"), "") << json;
    }

    const std::pair<const char*, const char*> cases[] = {
        {R"("1.0")", "1000BaseT"}, {"1", "1000BaseT"},    {R"("0.1")", "100BaseT"},
        {R"("0.01")", "10BaseT"},  {R"("10.0")", "10G"},  {R"("2.5")", "2.5G"},
        {R"("0.25")", "250M"},     {R"("0")", "unknown"}, {R"("-1")", "unknown"},
        {R"("1.0 ")", "unknown"},  {"true", "unknown"}};
    for (auto [json, text] : cases)
        EXPECT_EQ(link_media_type_from_speed(parse(json)), text) << json;
}

}  // namespace
