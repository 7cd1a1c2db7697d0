#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "dh_error.hpp"
#include "fake_runner.hpp"
#include "sysrepo_device_handler.hpp"

// set_dns_servers rewrites /etc/resolv.conf of the machine it runs on, so its accepted writes are
// tested in the simulated device only; here: the document edits and the refusals.

namespace {

std::string to_json(const dh::Value& v) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    v.Accept(writer);
    return buffer.GetString();
}

Document parse(const char* json) {
    Document doc;
    doc.Parse(json);
    return doc;
}

template <typename F>
dh_error catch_dh_error(F&& f) {
    try {
        f();
    } catch (const dh_error& e) {
        return e;
    }
    ADD_FAILURE() << "no dh_error thrown";
    return dh_error(0, "");
}

class Dns : public testing::Test {
  protected:
    fake_runner::guard fake;
    dh_db db;
    std::shared_ptr<sysrepo_device_handler> handler = std::make_shared<sysrepo_device_handler>(db);
};

}  // namespace

TEST_F(Dns, UpdateCreatesChangesAndRemovesTheFirstEntryOfARole) {
    Document doc = parse(R"({"ietf-interfaces:interfaces":{}})");
    handler->update_dns_server(doc, "secondary", "10.0.0.2");
    handler->update_dns_server(doc, "primary", "10.0.0.1");
    EXPECT_EQ(to_json(doc),
              R"({"ietf-interfaces:interfaces":{},"ietf-system:system":{"dns-resolver":{"server":[)"
              R"({"udp-and-tcp":{"address":"10.0.0.2"},"name":"secondary"},)"
              R"({"udp-and-tcp":{"address":"10.0.0.1"},"name":"primary"}]}}})");

    doc = parse(R"({"ietf-system:system":{"dns-resolver":{"search":["x"],"server":[
        {"name":"tertiary","udp-and-tcp":{"address":"9.9.9.9"}},
        {"name":"primary","udp-and-tcp":{"address":"1.1.1.1","port":53}},
        {"name":"primary"},
        {"name":"secondary","udp-and-tcp":{"address":"2.2.2.2"}}]}}})");
    handler->update_dns_server(doc, "primary", "fd00::1");
    handler->update_dns_server(doc, "secondary", "");
    handler->update_dns_server(doc, "secondary", "");
    EXPECT_EQ(to_json(doc), R"({"ietf-system:system":{"dns-resolver":{"search":["x"],"server":[)"
                            R"({"name":"tertiary","udp-and-tcp":{"address":"9.9.9.9"}},)"
                            R"({"name":"primary","udp-and-tcp":{"address":"fd00::1","port":53}},)"
                            R"({"name":"primary"}]}}})");

    // Removing from a document without the array leaves it untouched.
    doc = parse(R"({"ietf-system:system":{}})");
    handler->update_dns_server(doc, "primary", "");
    EXPECT_EQ(to_json(doc), R"({"ietf-system:system":{}})");
}

TEST_F(Dns, ReadListsEntriesByRoleInArrayOrder) {
    const Document doc = parse(R"({"ietf-system:system":{"dns-resolver":{"server":[
        {"name":"secondary","udp-and-tcp":{"address":"2.2.2.2"}},
        {"name":"other","udp-and-tcp":{"address":"9.9.9.9"}},
        {"name":"primary","udp-and-tcp":{"address":"1.1.1.1"}},
        {"name":"primary","udp-and-tcp":{"address":"3.3.3.3"}}]}}})");
    EXPECT_EQ(to_json(handler->get_dns_servers(doc)),
              R"({"secondaryDnsIpAddress":"2.2.2.2","primaryDnsIpAddress":"1.1.1.1",)"
              R"("primaryDnsIpAddress":"3.3.3.3"})");
    EXPECT_EQ(to_json(handler->get_dns_servers(parse(R"({"ietf-system:system":{}})"))), "{}");
}

TEST_F(Dns, InvalidAddressesAreRefusedBeforeAnythingRuns) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"primaryDnsIpAddress":"x'; touch /tmp/canary; '"})",
         "Invalid DNS server address: x'; touch /tmp/canary; '"},
        {R"({"primaryDnsIpAddress":"1.1.1.1","secondaryDnsIpAddress":"1.1.1.1\nnameserver 6.6.6.6"})",
         "Invalid DNS server address: 1.1.1.1\nnameserver 6.6.6.6"},
        {R"({"primaryDnsIpAddress":"dns.example"})", "Invalid DNS server address: dns.example"},
        {R"({"secondaryDnsIpAddress":5})", "Invalid DNS server address: 5"},
        {R"(["1.1.1.1"])", "Invalid DNS settings format."},
    };
    for (auto [json, message] : cases) {
        auto e = catch_dh_error([&] { handler->set_dns_servers(parse(json)); });
        EXPECT_EQ(e.code(), -22) << json;
        EXPECT_EQ(e.message(), message);
    }
    EXPECT_TRUE(fake->calls().empty());
}
