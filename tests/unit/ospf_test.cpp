#include <string>

#include "ifospf_fixture.hpp"

namespace {

constexpr const char* routing_of_ospf_and_static =
    R"(,"ietf-routing:routing":{"control-plane-protocols":{"control-plane-protocol":[)"
    R"({"type":"infix-routing:static","name":"default"},)"
    R"({"type":"infix-routing:ospfv2","name":"default","ietf-ospf:ospf":{}}]}})";

class Ospf : public handler_test {
  protected:
    // The generated interface object `name` in the area `area` of an imported document.
    static std::string ospf_iface(const dh::Value& doc, const std::string& area,
                                  const std::string& name) {
        for (const auto& p :
             doc["ietf-routing:routing"]["control-plane-protocols"]["control-plane-protocol"]
                 .GetArray()) {
            if (std::string(p["type"].GetString()) != "infix-routing:ospfv2") continue;
            // Both "area" members (the instance area and the uplink areas) are searched.
            for (auto m = p["ietf-ospf:ospf"]["areas"].MemberBegin();
                 m != p["ietf-ospf:ospf"]["areas"].MemberEnd(); ++m)
                for (const auto& a : m->value.GetArray()) {
                    if (a["area-id"].GetString() != area) continue;
                    for (const auto& i : a["interfaces"]["interface"].GetArray())
                        if (i["name"].GetString() == name) return to_json(i);
                }
        }
        return "absent";
    }

    // OSPF up in area 0.0.0.1 on the device configuration, with the model as ospf_init leaves it.
    void generate(const std::vector<std::string>& bridged = {},
                  const std::vector<std::string>& vlans_on = {}) {
        running_is(device(bridged, vlans_on));
        handler->ospf_init();
        handler->set_ospf_area_id("0.0.0.1");
        handler->set_ospf_adminStatus("up");
        keep_last_import();
    }
};

TEST_F(Ospf, GeneratesEveryInterfaceGroupWithItsDefaults) {
    // Without ospf_init no interface is engaged, so each group shows its default.
    running_is(device());
    handler->set_ospf_area_id("0.0.0.1");
    handler->set_ospf_adminStatus("up");
    Document doc = last_import();
    const auto& protocol = *at(doc,
                               "/ietf-routing:routing/control-plane-protocols/"
                               "control-plane-protocol/0");
    EXPECT_STREQ(protocol["type"].GetString(), "infix-routing:ospfv2");
    EXPECT_STREQ(protocol["name"].GetString(), "default");
    EXPECT_STREQ(protocol["ietf-ospf:ospf"]["explicit-router-id"].GetString(), "");
    const auto& area = protocol["ietf-ospf:ospf"]["areas"]["area"][0];
    EXPECT_EQ(to_json(area["area-id"]), R"("0.0.0.1")");
    EXPECT_FALSE(area.HasMember("summary"));
    const auto& list = area["interfaces"]["interface"];
    ASSERT_EQ(list.Size(), 1u + 32 + 12 + 4 + 6);
    EXPECT_EQ(to_json(list[0]), R"({"name":"lo","enabled":true})");
    EXPECT_EQ(to_json(list[1]), R"({"name":"e1.8","enabled":true,"interface-type":)"
                                R"("point-to-point","bfd":{"enabled":true},"passive":false})");
    EXPECT_EQ(to_json(list[33]), R"({"name":"e1","enabled":false,"interface-type":)"
                                 R"("point-to-point","bfd":{"enabled":true},"passive":false})");
    EXPECT_EQ(to_json(list[45]),
              R"({"name":"e17","enabled":false,"bfd":{"enabled":false},"passive":true})");
    EXPECT_EQ(to_json(list[49]),
              R"({"name":"e21","enabled":true,"bfd":{"enabled":false},"passive":true})");
    EXPECT_EQ(ospf_iface(doc, "0.0.0.1", "e27"), "absent");

    // After ospf_init every interface is engaged off.
    handler->ospf_init();
    handler->set_ospf_adminStatus("up");
    doc = last_import();
    EXPECT_NE(ospf_iface(doc, "0.0.0.1", "e1.8").find(R"(","enabled":false)"), std::string::npos);
    EXPECT_NE(ospf_iface(doc, "0.0.0.1", "e21").find(R"(","enabled":false)"), std::string::npos);
}

TEST_F(Ospf, AdminDownRemovesTheEntryAndRefusesOtherTexts) {
    running_is(device({}, {}, routing_of_ospf_and_static));
    handler->set_ospf_area_id("0.0.0.9");
    handler->set_ospf_adminStatus("down");
    EXPECT_EQ(to_json(last_import()["ietf-routing:routing"]),
              R"({"control-plane-protocols":{"control-plane-protocol":[)"
              R"({"type":"infix-routing:static","name":"default"}]}})");

    const std::size_t before = imports().size();
    auto e = catch_dh_error([&] { handler->set_ospf_adminStatus("Up"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), "ospf admin status should be either 'up' or 'down' , not:Up");
    e = catch_dh_error([&] { handler->set_ospf_area_id("area1"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), R"(OSPF area id must be an IP address: "area1".)");
    EXPECT_EQ(imports().size(), before);
}

TEST_F(Ospf, ReplacesElementZeroWhereverTheOldEntryStood) {
    running_is(device({}, {}, routing_of_ospf_and_static));
    handler->set_ospf_area_id("0.0.0.1");
    handler->set_ospf_adminStatus("up");
    const Document doc = last_import();
    const auto& list = *at(doc,
                           "/ietf-routing:routing/control-plane-protocols/"
                           "control-plane-protocol");
    ASSERT_EQ(list.Size(), 2u);
    EXPECT_TRUE(list[0]["ietf-ospf:ospf"].HasMember("areas"));
    EXPECT_EQ(to_json(list[1]), R"({"type":"infix-routing:ospfv2","name":"default",)"
                                R"("ietf-ospf:ospf":{}})");
}

TEST_F(Ospf, UplinkAreasAndSummary) {
    generate();
    std::string e27 = "0.0.0.2", e28 = "0.0.0.2";
    handler->set_ospf_interface_area_id("e27", e27);
    handler->set_ospf_interface_area_id("e28", e28);
    Document doc = last_import();
    // The uplinks share one extra area carrying the e28 id, in a second "area" member.
    const std::string areas = to_json(*at(doc,
                                          "/ietf-routing:routing/control-plane-protocols/"
                                          "control-plane-protocol/0/ietf-ospf:ospf/areas"));
    EXPECT_NE(areas.find(R"(],"area":[{"area-id":"0.0.0.2","area-type":"nssa-area",)"
                         R"("interfaces":{"interface":[{"name":"e27")"),
              std::string::npos)
        << areas;
    EXPECT_NE(ospf_iface(doc, "0.0.0.2", "e28"), "absent");

    // One uplink in the instance area, the other in an area of its own; enabling e28 turns the
    // instance area's summary off.
    e27 = "0.0.0.1";
    e28 = "0.0.0.3";
    handler->set_ospf_interface_area_id("e27", e27);
    handler->set_ospf_interface_area_id("e28", e28);
    handler->set_ospf_if_adminStatus("e28", "up");
    doc = last_import();
    EXPECT_NE(ospf_iface(doc, "0.0.0.1", "e27"), "absent");
    EXPECT_EQ(ospf_iface(doc, "0.0.0.3", "e28"),
              R"({"name":"e28","enabled":true,"interface-type":"point-to-point",)"
              R"("bfd":{"enabled":true},"passive":false})");
    EXPECT_EQ(to_json(*at(doc,
                          "/ietf-routing:routing/control-plane-protocols/"
                          "control-plane-protocol/0/ietf-ospf:ospf/areas/area/0/summary")),
              "false");

    // An empty id takes the uplink out of OSPF; the id is never read back.
    e27.clear();
    handler->set_ospf_interface_area_id("e27", e27);
    EXPECT_EQ(ospf_iface(last_import(), "0.0.0.1", "e27"), "absent");
    EXPECT_EQ(handler->get_ospf_interface_area_id(last_import(), "e28"), "");
    std::string bad = "x";
    EXPECT_EQ(catch_dh_error([&] { handler->set_ospf_interface_area_id("e27", bad); }).message(),
              R"(OSPF area ID for intreface must be an IP address: "x".)");
}

TEST_F(Ospf, MetricWritesTheCompanionAndRemovesTheDefaultCost) {
    generate();
    handler->set_ospf_interface_metric("e5", 40);
    ASSERT_EQ(imports().size(), 3u);
    Document doc = last_import();
    EXPECT_NE(ospf_iface(doc, "0.0.0.1", "e5").find(R"("cost":40)"), std::string::npos);
    EXPECT_NE(ospf_iface(doc, "0.0.0.1", "e5.8").find(R"("cost":40)"), std::string::npos);
    EXPECT_EQ(handler->get_ospf_interface_metric(doc, "e5.8"), 40u);
    // The model keeps the cost: a regeneration writes it again.
    handler->set_ospf_adminStatus("up");
    EXPECT_NE(ospf_iface(last_import(), "0.0.0.1", "e5").find(R"("cost":40)"), std::string::npos);

    keep_last_import();
    handler->set_ospf_interface_metric("e5", 100);
    doc = last_import();
    EXPECT_EQ(ospf_iface(doc, "0.0.0.1", "e5").find("cost"), std::string::npos);
    EXPECT_EQ(ospf_iface(doc, "0.0.0.1", "e5.8").find("cost"), std::string::npos);
    EXPECT_EQ(handler->get_ospf_interface_metric(doc, "e5"), 100u);

    handler->set_ospf_interface_metric("e13.21", 255);
    auto e = catch_dh_error([&] { handler->set_ospf_interface_metric("e13.21", 256); });
    EXPECT_EQ(e.code(), -34);
    EXPECT_EQ(e.message(), "OSPF interface metric is not within range (0 to 255)");
    // e27 is looked for in its uplink area, and is not in any before it has one.
    e = catch_dh_error([&] { handler->set_ospf_interface_metric("e27", 10); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), "Unable to set metric: interface e27 not found.");
    e = catch_dh_error([&] { handler->get_ospf_interface_metric(last_import(), "e27"); });
    EXPECT_EQ(e.message(), "Unable to get metric: interface e27 not found.");
    std::string area = "0.0.0.7";
    handler->set_ospf_interface_area_id("e27", area);
    keep_last_import();
    handler->set_ospf_interface_metric("e27", 10);
    EXPECT_NE(ospf_iface(last_import(), "0.0.0.7", "e27").find(R"("cost":10)"), std::string::npos);
}

TEST_F(Ospf, PassiveWritesTheCompanionAndIsAnsweredFromTheModelOnceKnown) {
    generate();
    const Document before = last_import();
    EXPECT_FALSE(handler->get_ospf_interface_passive(before, "e3"));
    handler->set_ospf_interface_passive("e3", true);
    const Document doc = last_import();
    EXPECT_NE(ospf_iface(doc, "0.0.0.1", "e3").find(R"("passive":true)"), std::string::npos);
    EXPECT_NE(ospf_iface(doc, "0.0.0.1", "e3.8").find(R"("passive":true)"), std::string::npos);
    EXPECT_EQ(handler->_get_ospf_interface_passive(doc, "e3"), std::optional<bool>(true));
    // The document says false, the model says true.
    EXPECT_TRUE(handler->get_ospf_interface_passive(before, "e3"));
    EXPECT_EQ(handler->_get_ospf_interface_passive(before, "nope"), std::nullopt);

    running_is(device());
    auto e = catch_dh_error([&] { handler->set_ospf_interface_passive("e3", false); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), "OSPF not possible to configure passive mode for interface 'e3'.");
}

TEST_F(Ospf, InterfaceAdminStatusFollowsTheInterfaceMode) {
    // e1 routes on the port, e12 carries the tunnel on e12.8, e11 is management only.
    generate({"e11", "e12"}, {"e12.8"});
    handler->set_ospf_if_adminStatus("e1", "up");
    keep_last_import();
    handler->set_ospf_if_adminStatus("e12", "up");
    const Document doc = last_import();
    auto enabled = [&](const std::string& name) {
        return ospf_iface(doc, "0.0.0.1", name).find(R"(","enabled":true)") != std::string::npos;
    };
    EXPECT_TRUE(enabled("e1"));
    EXPECT_FALSE(enabled("e1.8"));
    EXPECT_FALSE(enabled("e12"));
    EXPECT_TRUE(enabled("e12.8"));
    EXPECT_EQ(handler->get_ospf_if_adminStatus(doc, "e12"), "up");
    EXPECT_EQ(handler->get_ospf_if_adminStatus(doc, "e2"), "down");

    keep_last_import();
    auto e = catch_dh_error([&] { handler->set_ospf_if_adminStatus("e11", "up"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), "OSPF interface not found: e11 mgmtOnly");
    EXPECT_EQ(catch_dh_error([&] { handler->set_ospf_if_adminStatus("e1", "on"); }).message(),
              "Unknown adminStatus for: e1");
    EXPECT_EQ(catch_dh_error([&] { handler->set_ospf_if_adminStatus("e1.8", "up"); }).message(),
              "OSPF unknown interface: e1.8");

    // Taking e12 down leaves OSPF off on both the port and its sub-interface.
    handler->set_ospf_if_adminStatus("e12", "down");
    EXPECT_NE(ospf_iface(last_import(), "0.0.0.1", "e12.8").find(R"(","enabled":false)"),
              std::string::npos);
}

}  // namespace
