#include <string>

#include "handler_fixture.hpp"

namespace {

using Gateway = handler_test;

std::string routing(const std::string& protocols) {
    return R"({"ietf-routing:routing":{"control-plane-protocols":{"control-plane-protocol":[)" +
           protocols + "]}}}";
}

TEST_F(Gateway, AppendsReplacesAndRemovesTheStaticEntry) {
    Document doc = parse("{}");
    handler->interfaces().update_gateway(doc, "10.0.0.254");
    const std::string created =
        R"({"type":"infix-routing:static","name":"default","static-routes":{)"
        R"("ietf-ipv4-unicast-routing:ipv4":{"route":[{"destination-prefix":"0.0.0.0/0",)"
        R"("next-hop":{"next-hop-address":"10.0.0.254"}}]}}})";
    EXPECT_EQ(to_json(doc), routing(created));

    // Only the first route's next hop changes; its prefix and further routes stay.
    const std::string routes =
        R"({"type":"infix-routing:static","name":"s","static-routes":{"ietf-ipv4-unicast-routing:ipv4":)"
        R"({"route":[{"destination-prefix":"10.0.0.0/8","next-hop":{"next-hop-address":"{}"}},)"
        R"({"destination-prefix":"0.0.0.0/0"}]}}})";
    const auto with_hop = [&](const std::string& hop) {
        return routing(std::string(routes).replace(routes.find("{}"), 2, hop));
    };
    doc = parse(with_hop("1.1.1.1"));
    handler->interfaces().update_gateway(doc, "10.0.0.1");
    EXPECT_EQ(to_json(doc), with_hop("10.0.0.1"));

    doc = parse(routing(R"({"type":"infix-routing:ospfv2"},)" + created));
    handler->interfaces().update_gateway(doc, "");
    EXPECT_EQ(to_json(doc), routing(R"({"type":"infix-routing:ospfv2"})"));

    // A static entry without routes is left without a gateway.
    const std::string empty_routes = routing(
        R"({"type":"infix-routing:static","static-routes":{"ietf-ipv4-unicast-routing:ipv4":{"route":[]}}})");
    doc = parse(empty_routes);
    handler->interfaces().update_gateway(doc, "10.0.0.1");
    EXPECT_EQ(to_json(doc), empty_routes);
}

TEST_F(Gateway, SetAndGetThroughTheRunningConfiguration) {
    running_is(running_doc());
    EXPECT_EQ(handler->interfaces().get_gateway(), "192.0.2.1");
    handler->datastore().edit(
        [](Document& d) { interfaces_unit::update_gateway(d, "192.0.2.254"); });
    keep_last_import();
    EXPECT_EQ(handler->interfaces().get_gateway(), "192.0.2.254");
    EXPECT_EQ(imports("startup").size(), 1u);

    EXPECT_EQ(error_of([&] {
                  handler->datastore().edit(
                      [](Document& d) { interfaces_unit::update_gateway(d, "gw.example"); });
              }),
              "-22 Invalid gateway address: gw.example");
    EXPECT_EQ(imports().size(), 1u);

    // The document edit of a removal is checked above.
    handler->datastore().edit([](Document& d) { interfaces_unit::update_gateway(d, ""); });
    keep_last_import();
    EXPECT_EQ(handler->interfaces().get_gateway(), "0.0.0.0");
    running_is(routing(
        R"({"type":"infix-routing:static","static-routes":{"ietf-ipv4-unicast-routing:ipv4":{"route":[]}}})"));
    EXPECT_EQ(handler->interfaces().get_gateway(), "0.0.0.0");
}

}  // namespace
