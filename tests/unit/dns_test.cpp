#include <string>

#include "handler_fixture.hpp"

// set_dns_servers rewrites /etc/resolv.conf of the machine it runs on, so its accepted writes are
// tested in the simulated device only; here: the document edits, the reader and the refusals.

namespace {

using Dns = handler_test;

TEST_F(Dns, UpdateCreatesChangesAndRemovesTheFirstEntryOfARole) {
    Document doc = parse(R"({"ietf-interfaces:interfaces":{}})");
    handler->dns().update_dns_server(doc, "secondary", "10.0.0.2");
    handler->dns().update_dns_server(doc, "primary", "10.0.0.1");
    // The form of a created entry is checked in the simulated device.
    EXPECT_EQ(to_json(handler->dns().get_dns_servers(doc)),
              R"({"secondaryDnsIpAddress":"10.0.0.2","primaryDnsIpAddress":"10.0.0.1"})");

    doc = parse(R"({"ietf-system:system":{"dns-resolver":{"search":["x"],"server":[
        {"name":"tertiary","udp-and-tcp":{"address":"9.9.9.9"}},
        {"name":"primary","udp-and-tcp":{"address":"1.1.1.1","port":53}},
        {"name":"primary"},
        {"name":"secondary","udp-and-tcp":{"address":"2.2.2.2"}}]}}})");
    handler->dns().update_dns_server(doc, "primary", "fd00::1");
    handler->dns().update_dns_server(doc, "secondary", "");
    handler->dns().update_dns_server(doc, "secondary", "");
    EXPECT_EQ(to_json(doc), R"({"ietf-system:system":{"dns-resolver":{"search":["x"],"server":[)"
                            R"({"name":"tertiary","udp-and-tcp":{"address":"9.9.9.9"}},)"
                            R"({"name":"primary","udp-and-tcp":{"address":"fd00::1","port":53}},)"
                            R"({"name":"primary"}]}}})");
    // The reader lists every entry of a role that has an address, in array order.
    EXPECT_EQ(to_json(handler->dns().get_dns_servers(doc)), R"({"primaryDnsIpAddress":"fd00::1"})");
    handler->dns().update_dns_server(doc, "secondary", "2.2.2.2");
    handler->dns().update_dns_server(doc, "primary", "");
    handler->dns().update_dns_server(doc, "primary", "3.3.3.3");
    EXPECT_EQ(to_json(handler->dns().get_dns_servers(doc)),
              R"({"primaryDnsIpAddress":"3.3.3.3","secondaryDnsIpAddress":"2.2.2.2"})");
    EXPECT_EQ(to_json(handler->dns().get_dns_servers(running_doc())),
              R"({"primaryDnsIpAddress":"10.0.0.53","secondaryDnsIpAddress":"fd00::53"})");
}

TEST_F(Dns, InvalidAddressesAreRefusedBeforeAnythingRuns) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"primaryDnsIpAddress":"x'; touch /tmp/canary; '"})", "x'; touch /tmp/canary; '"},
        {R"({"primaryDnsIpAddress":"1.1.1.1","secondaryDnsIpAddress":"1.1.1.1\nnameserver 6.6.6.6"})",
         "1.1.1.1\nnameserver 6.6.6.6"},
        {R"({"primaryDnsIpAddress":"dns.example"})", "dns.example"},
        {R"({"secondaryDnsIpAddress":5})", "5"},
    };
    for (auto [json, address] : cases)
        EXPECT_EQ(error_of([&] { handler->dns().set_dns_servers(parse(json)); }),
                  std::string("-22 Invalid DNS server address: ") + address);
    EXPECT_EQ(error_of([&] { handler->dns().set_dns_servers(parse(R"(["1.1.1.1"])")); }),
              "-22 Invalid DNS settings format.");
    EXPECT_TRUE(fake->calls().empty());
}

}  // namespace
