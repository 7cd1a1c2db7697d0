#include "oper_state.hpp"

#include <string>

#include "handler_fixture.hpp"

namespace {

// data/operational.json holds interfaces in the forms the operational datastore gives them:
// full state, state from "enabled" only, an unusual oper-status, an unreadable speed, and bridge
// membership by either leaf or by a higher-layer interface.
TEST(OperState, StatusTextsFromInterfaceEntries) {
    const Document oper = parse(data_file("operational.json"));
    const std::pair<const char*, const char*> rows[] = {
        {"e1", "up up 1000BaseT none"},
        {"e11", "down down unknown br0"},
        {"e12", "down down unknown br1"},
        {"e13", "up up 10G br0"},
        {"e27", "unknown unknown unknown unknown"},
    };
    for (auto [name, expected] : rows) {
        const auto s = interface_status_from(find_oper_interface(oper, name));
        EXPECT_EQ(
            s.admin_status + " " + s.link_status + " " + s.link_media_type + " " + s.bridge_port,
            expected);
    }
    EXPECT_EQ(interfaces_unit::get_ifconf_oper_macaddr(oper, "e1"), "02:00:00:00:00:01");
    EXPECT_EQ(interfaces_unit::get_ifconf_oper_macaddr(oper, "e12"), "");
    EXPECT_EQ(interfaces_unit::get_ifconf_oper_macaddr(oper, "e99"), "");

    // A failed or empty export: every lookup finds nothing instead of failing.
    for (const char* json : {"null", "{}", R"({"ietf-interfaces:interfaces": []})",
                             R"({"ietf-interfaces:interfaces": {"interface": {}}})"}) {
        EXPECT_EQ(find_oper_interface(parse(json), "e1"), nullptr) << json;
        EXPECT_EQ(interfaces_unit::get_ifconf_oper_macaddr(parse(json), "e1"), "") << json;
    }
}

TEST(OperState, LinkMediaTypeFromSpeed) {
    const std::pair<const char*, const char*> cases[] = {
        {R"("1.0")", "1000BaseT"}, {"1", "1000BaseT"},    {R"("0.1")", "100BaseT"},
        {R"("0.01")", "10BaseT"},  {R"("10.0")", "10G"},  {R"("2.5")", "2.5G"},
        {R"("0.25")", "250M"},     {R"("0")", "unknown"}, {R"("-1")", "unknown"},
        {R"("1.0 ")", "unknown"},  {"true", "unknown"}};
    for (auto [json, text] : cases)
        EXPECT_EQ(link_media_type_from_speed(parse(json)), text) << json;
}

}  // namespace
