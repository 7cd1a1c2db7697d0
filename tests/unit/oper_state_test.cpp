#include "oper_state.hpp"

#include <gtest/gtest.h>

#include "sysrepo_device_handler.hpp"

namespace {

Document parse(const char* json) {
    Document d;
    d.Parse(json);
    EXPECT_FALSE(d.HasParseError()) << json;
    return d;
}

// Interfaces in the forms the operational datastore gives them: full state, state from "enabled"
// only, an unusual oper-status, an unreadable speed, and bridge membership by either leaf.
const char* const oper_json = R"({"ietf-interfaces:interfaces": {"interface": [
  {"name": "e1", "admin-status": "up", "oper-status": "up", "phys-address": "02:00:00:00:00:01",
   "ieee802-ethernet-interface:ethernet": {"speed": "1.0"}},
  {"name": "e11", "enabled": false, "oper-status": "lower-layer-down",
   "infix-interfaces:bridge-port": {"bridge": "br0"}},
  {"name": "e12", "admin-status": "down", "oper-status": "down",
   "ieee802-ethernet-interface:ethernet": {"speed": "fast"},
   "ieee802-dot1q-bridge:bridge-port": {"bridge-name": "br1"}},
  {"name": "e13", "admin-status": "up", "oper-status": "up", "higher-layer-if": ["e13.8", "br0"],
   "ieee802-ethernet-interface:ethernet": {"speed": 10}}
]}})";

TEST(OperState, StatusTextsFromInterfaceEntries) {
    const Document oper = parse(oper_json);
    struct row {
        const char* name;
        interface_status expected;
    };
    const row rows[] = {
        {"e1", {"up", "up", "1000BaseT", "none"}},
        {"e11", {"down", "down", "unknown", "br0"}},
        {"e12", {"down", "down", "unknown", "br1"}},
        {"e13", {"up", "up", "10G", "br0"}},
        {"e27", {"unknown", "unknown", "unknown", "unknown"}},
    };
    for (const auto& r : rows) {
        auto s = interface_status_from(find_oper_interface(oper, r.name));
        EXPECT_EQ(s.admin_status, r.expected.admin_status) << r.name;
        EXPECT_EQ(s.link_status, r.expected.link_status) << r.name;
        EXPECT_EQ(s.link_media_type, r.expected.link_media_type) << r.name;
        EXPECT_EQ(s.bridge_port, r.expected.bridge_port) << r.name;
    }
}

TEST(OperState, LinkMediaTypeFromSpeed) {
    const std::pair<const char*, const char*> cases[] = {
        {R"("1.0")", "1000BaseT"}, {R"("1")", "1000BaseT"},  {"1", "1000BaseT"},
        {R"("0.1")", "100BaseT"},  {R"("0.01")", "10BaseT"}, {"0.01", "10BaseT"},
        {R"("10.0")", "10G"},      {R"("2.5")", "2.5G"},     {R"("0.25")", "250M"},
        {R"("0")", "unknown"},     {R"("-1")", "unknown"},   {R"("1.0 ")", "unknown"},
        {R"("")", "unknown"},      {"null", "unknown"},      {"true", "unknown"}};
    for (auto [json, text] : cases) {
        Document speed = parse(json);
        EXPECT_EQ(link_media_type_from_speed(speed), text) << json;
    }
}

TEST(OperState, MacAddressAndMissingDocuments) {
    const Document oper = parse(oper_json);
    EXPECT_EQ(sysrepo_device_handler::get_ifconf_oper_macaddr(oper, "e1"), "02:00:00:00:00:01");
    EXPECT_EQ(sysrepo_device_handler::get_ifconf_oper_macaddr(oper, "e11"), "");
    EXPECT_EQ(sysrepo_device_handler::get_ifconf_oper_macaddr(oper, "e99"), "");

    // A failed or empty export: every lookup finds nothing instead of failing.
    for (const char* json : {"null", "{}", R"({"ietf-interfaces:interfaces": []})",
                             R"({"ietf-interfaces:interfaces": {"interface": {}}})"}) {
        Document doc = parse(json);
        EXPECT_EQ(find_oper_interface(doc, "e1"), nullptr) << json;
        EXPECT_EQ(sysrepo_device_handler::get_ifconf_oper_macaddr(doc, "e1"), "") << json;
    }
}

}  // namespace
