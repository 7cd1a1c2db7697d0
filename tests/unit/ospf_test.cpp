#include <string>

#include "handler_fixture.hpp"

namespace {

const std::string protocols =
    "/ietf-routing:routing/control-plane-protocols/control-plane-protocol";

class Ospf : public handler_test {
  protected:
    // The device's configuration regenerated from a model in which OSPF is up in area 0.0.0.1,
    // every interface is engaged off (ospf_init) except e1, which routes on the port, and e12,
    // which routes on its tunnel sub-interface e12.8.
    void generate() {
        running_is(running_doc());
        handler->interfaces().get_ifconf(running_doc(),
                                         "e28");  // the management address is the router id
        handler->ospf().ospf_init();
        handler->ospf().set_ospf_area_id("0.0.0.1");
        handler->ospf().set_ospf_adminStatus("up");
        handler->ospf().set_ospf_if_adminStatus("e1", "up");
        handler->ospf().set_ospf_if_adminStatus("e12", "up");
        keep_last_import();
    }
    void set_area(const char* name, std::string id) {
        handler->ospf().set_ospf_interface_area_id(name, id);
    }
    bool has(const std::string& area, const std::string& name, const std::string& text) {
        return ospf_iface(last_import(), area, name).find(text) != std::string::npos;
    }
};

TEST_F(Ospf, RegeneratesTheDevicesEntryAndFollowsTheInterfaceModes) {
    generate();
    // data/running.json holds what the generator writes for this model; the static entry stays.
    EXPECT_EQ(json_at(last_import(), protocols), json_at(running_doc(), protocols));
    EXPECT_EQ(handler->ospf().get_ospf_if_adminStatus(last_import(), "e12"), "up");
    EXPECT_EQ(error_of([&] { handler->ospf().set_ospf_if_adminStatus("e11", "up"); }),
              "-22 OSPF interface not found: e11 mgmtOnly");
    EXPECT_EQ(error_of([&] { handler->ospf().set_ospf_if_adminStatus("e1", "on"); }),
              "-22 Unknown adminStatus for: e1");
    EXPECT_EQ(error_of([&] { handler->ospf().set_ospf_if_adminStatus("e1.8", "up"); }),
              "-22 OSPF unknown interface: e1.8");
    // Taking e12 down leaves OSPF off on both the port and its sub-interface.
    handler->ospf().set_ospf_if_adminStatus("e12", "down");
    EXPECT_FALSE(has("0.0.0.1", "e12", R"(","enabled":true)"));
    EXPECT_FALSE(has("0.0.0.1", "e12.8", R"(","enabled":true)"));
}

TEST_F(Ospf, AdminDownRemovesTheEntryAndEachGroupHasItsDefault) {
    running_is(running_doc());
    handler->ospf().set_ospf_area_id("0.0.0.2");
    EXPECT_EQ(json_at(last_import(), protocols),
              "[" + json_at(running_doc(), protocols + "/1") + "]");
    EXPECT_EQ(error_of([&] { handler->ospf().set_ospf_adminStatus("Up"); }),
              "-22 ospf admin status should be either 'up' or 'down' , not:Up");
    EXPECT_EQ(error_of([&] { handler->ospf().set_ospf_area_id("area1"); }),
              R"(-22 OSPF area id must be an IP address: "area1".)");
    EXPECT_EQ(imports().size(), 1u);

    // Without ospf_init no interface is engaged, so each group shows its default.
    handler->ospf().set_ospf_adminStatus("up");
    const Document imported = last_import();
    const auto& ospf = *at(imported, protocols + "/0/ietf-ospf:ospf");
    EXPECT_EQ(to_json(ospf["explicit-router-id"]), R"("")");
    const auto& list = ospf["areas"]["area"][0]["interfaces"]["interface"];
    ASSERT_EQ(list.Size(), 1u + 32 + 12 + 4 + 6);
    EXPECT_EQ(to_json(list[1]), R"({"name":"e1.8","enabled":true,"interface-type":)"
                                R"("point-to-point","bfd":{"enabled":true},"passive":false})");
    EXPECT_EQ(to_json(list[45]),
              R"({"name":"e17","enabled":false,"bfd":{"enabled":false},"passive":true})");
    EXPECT_EQ(to_json(list[49]),
              R"({"name":"e21","enabled":true,"bfd":{"enabled":false},"passive":true})");
}

TEST_F(Ospf, ReplacesTheOldEntryWhereItStands) {
    running_is(running_doc({{protocols, R"([{"type":"infix-routing:static","name":"default"},)"
                                        R"({"type":"infix-routing:ospfv2","name":"default",)"
                                        R"("ietf-ospf:ospf":{}}])"}}));
    handler->ospf().set_ospf_area_id("0.0.0.1");
    handler->ospf().set_ospf_adminStatus("up");
    // The static route keeps its place and content; the OSPF entry is replaced, not added.
    ASSERT_EQ(at(last_import(), protocols)->Size(), 2u);
    EXPECT_EQ(json_at(last_import(), protocols + "/0"),
              R"({"type":"infix-routing:static","name":"default"})");
    EXPECT_NE(json_at(last_import(), protocols + "/1/ietf-ospf:ospf/areas"), "absent");
}

TEST_F(Ospf, UplinkAreasAndSummary) {
    generate();
    set_area("e27", "0.0.0.2");
    set_area("e28", "0.0.0.2");
    // The uplinks share one extra area carrying the e28 id, in a second "area" member.
    EXPECT_NE(imports().back().find(R"(],"area":[{"area-id":"0.0.0.2","area-type":"nssa-area",)"
                                    R"("interfaces":{"interface":[{"name":"e27")"),
              std::string::npos);
    EXPECT_TRUE(has("0.0.0.2", "e28", "e28"));

    // One uplink in the instance area, the other in an area of its own; enabling e28 turns the
    // instance area's summary off.
    set_area("e27", "0.0.0.1");
    set_area("e28", "0.0.0.3");
    handler->ospf().set_ospf_if_adminStatus("e28", "up");
    EXPECT_TRUE(has("0.0.0.1", "e27", "e27"));
    EXPECT_EQ(ospf_iface(last_import(), "0.0.0.3", "e28"),
              R"({"name":"e28","enabled":true,"interface-type":"point-to-point",)"
              R"("bfd":{"enabled":true},"passive":false})");
    EXPECT_EQ(json_at(last_import(), protocols + "/0/ietf-ospf:ospf/areas/area/0/summary"),
              "false");

    // An empty id takes the uplink out of OSPF; the id is never read back.
    set_area("e27", "");
    EXPECT_EQ(ospf_iface(last_import(), "0.0.0.1", "e27"), "absent");
    EXPECT_EQ(error_of([&] { set_area("e27", "x"); }),
              R"(-22 OSPF area ID for intreface must be an IP address: "x".)");
}

TEST_F(Ospf, MetricWritesTheCompanionAndRemovesTheDefaultCost) {
    generate();
    handler->ospf().set_ospf_interface_metric("e5", 40);
    EXPECT_TRUE(has("0.0.0.1", "e5", R"("cost":40)"));
    EXPECT_TRUE(has("0.0.0.1", "e5.8", R"("cost":40)"));
    EXPECT_EQ(handler->ospf().get_ospf_interface_metric(last_import(), "e5.8"), 40u);
    // The model keeps the cost: a regeneration writes it again.
    handler->ospf().set_ospf_adminStatus("up");
    EXPECT_TRUE(has("0.0.0.1", "e5", R"("cost":40)"));

    keep_last_import();
    handler->ospf().set_ospf_interface_metric("e5", 100);
    EXPECT_FALSE(has("0.0.0.1", "e5", "cost"));
    EXPECT_FALSE(has("0.0.0.1", "e5.8", "cost"));
    EXPECT_EQ(handler->ospf().get_ospf_interface_metric(last_import(), "e5"), 100u);

    handler->ospf().set_ospf_interface_metric("e13.21", 255);
    EXPECT_EQ(error_of([&] { handler->ospf().set_ospf_interface_metric("e13.21", 256); }),
              "-34 OSPF interface metric is not within range (0 to 255)");
    // e27 is looked for in its uplink area, and is not in any before it has one.
    EXPECT_EQ(error_of([&] { handler->ospf().set_ospf_interface_metric("e27", 10); }),
              "-22 Unable to set metric: interface e27 not found.");
    EXPECT_EQ(error_of([&] { handler->ospf().get_ospf_interface_metric(last_import(), "e27"); }),
              "-22 Unable to get metric: interface e27 not found.");
    set_area("e27", "0.0.0.7");
    keep_last_import();
    handler->ospf().set_ospf_interface_metric("e27", 10);
    EXPECT_TRUE(has("0.0.0.7", "e27", R"("cost":10)"));
}

TEST_F(Ospf, PassiveWritesTheCompanionAndIsAnsweredFromTheModelOnceKnown) {
    generate();
    const Document before = last_import();
    EXPECT_FALSE(handler->ospf().get_ospf_interface_passive(before, "e3"));
    handler->ospf().set_ospf_interface_passive("e3", true);
    EXPECT_TRUE(has("0.0.0.1", "e3", R"("passive":true)"));
    EXPECT_TRUE(has("0.0.0.1", "e3.8", R"("passive":true)"));
    // The document says false, the model says true.
    EXPECT_TRUE(handler->ospf().get_ospf_interface_passive(before, "e3"));

    running_is(running_doc({{protocols, "[]"}}));
    EXPECT_EQ(error_of([&] { handler->ospf().set_ospf_interface_passive("e3", false); }),
              "-22 OSPF not possible to configure passive mode for interface 'e3'.");
}

}  // namespace
