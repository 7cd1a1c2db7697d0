#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "acl_whitelist.hpp"
#include "dh_error.hpp"
#include "fake_runner.hpp"
#include "sysrepo_device_handler.hpp"

namespace {

const std::string ns = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net ";

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

std::string nft_batch(const std::string& statements) {
    return "echo '" + statements + "' | " + ns + " /usr/sbin/nft -f -";
}

}  // namespace

TEST(AclWhitelist, TextIsBuiltFromEveryElementForm) {
    EXPECT_EQ(acl_whitelist::build_text(parse(R"(["10.0.0.0/8",
        {"prefix":{"addr":"192.168.1.0","len":24}}, {"range":["1.2.3.4","1.2.3.9"]}])")),
              "10.0.0.0/8, 192.168.1.0/24, 1.2.3.4-1.2.3.9");
    // Unusable elements write nothing but keep their separators.
    EXPECT_EQ(acl_whitelist::build_text(parse(R"([1, "10.0.0.1"])")), ", 10.0.0.1");
    EXPECT_EQ(acl_whitelist::build_text(parse(
                  R"([{"prefix":{"addr":"10.0.0.0","len":-1}}, {"other":1}, "10.0.0.1", null])")),
              ", , 10.0.0.1, ");
    // A "prefix" that is no object falls through to "range".
    EXPECT_EQ(acl_whitelist::build_text(parse(R"([{"prefix":1,"range":["1.1.1.1","1.1.1.2"]}])")),
              "1.1.1.1-1.1.1.2");
    EXPECT_EQ(acl_whitelist::build_text(parse("[]")), "");
}

TEST(AclWhitelist, EntriesThatAreNoIpv4AddressPrefixOrRangeAreRefused) {
    for (const char* ok : {"10.0.0.1", "0.0.0.0/0", "10.0.0.0/32", "1.2.3.4-1.2.3.9"})
        EXPECT_TRUE(acl_whitelist::is_valid_entry(ok)) << ok;
    for (const char* bad :
         {"", "10.0.0.0/33", "10.0.0.0/", "10.0.0.0/8x", "10.0.0.0/-1", "1.2.3", "1.2.3.4-",
          "fd00::1", "10.0.0.1 ", "10.0.0.1, 10.0.0.2", "x' }; flush ruleset; '"})
        EXPECT_FALSE(acl_whitelist::is_valid_entry(bad)) << bad;

    const std::pair<const char*, const char*> cases[] = {
        {R"(["10.0.0.1", "x'; touch /tmp/canary; '"])",
         "Invalid whitelist entry: x'; touch /tmp/canary; '"},
        {R"([{"prefix":{"addr":"10.0.0.0","len":33}}])", "Invalid whitelist entry: 10.0.0.0/33"},
        {R"([{"range":["1.1.1.1","1.1.1.1'; reboot; '"]}])",
         "Invalid whitelist entry: 1.1.1.1-1.1.1.1'; reboot; '"},
    };
    for (auto [json, message] : cases) {
        auto e = catch_dh_error([&] { acl_whitelist::build_text(parse(json)); });
        EXPECT_EQ(e.code(), -22);
        EXPECT_EQ(e.message(), message);
    }
}

TEST(AclWhitelist, SplitDropsEmptyEntries) {
    EXPECT_EQ(acl_whitelist::split_text(", , 10.0.0.1, "), std::vector<std::string>{"10.0.0.1"});
    EXPECT_EQ(acl_whitelist::split_text("10.0.0.0/8, 1.2.3.4-1.2.3.9"),
              (std::vector<std::string>{"10.0.0.0/8", "1.2.3.4-1.2.3.9"}));
    EXPECT_TRUE(acl_whitelist::split_text("").empty());
}

class Acl : public testing::Test {
  protected:
    fake_runner::guard fake;
    dh_db db;
    std::shared_ptr<sysrepo_device_handler> handler = std::make_shared<sysrepo_device_handler>(db);
};

TEST_F(Acl, ListTakesEffectOnlyWhileSwitchedOn) {
    handler->acl_set_whitelist(addr_family::ipv4, parse(R"(["10.0.0.0/8", 1, "10.0.0.1"])"));
    EXPECT_TRUE(fake->calls().empty());
    EXPECT_EQ(to_json(handler->acl_get_whitelist(addr_family::ipv4)),
              R"(["10.0.0.0/8","10.0.0.1"])");

    handler->acl_set_adminStatus("up");
    handler->acl_set_adminStatus("down");
    handler->acl_set_adminStatus("up");
    handler->acl_set_whitelist(addr_family::ipv4, parse("[]"));
    handler->acl_set_adminStatus("up");
    const std::vector<std::string> expected = {
        nft_batch("flush set inet filter whitelist_ipv4;add element inet filter whitelist_ipv4 "
                  "{ 10.0.0.0/8, , 10.0.0.1 };"),
        nft_batch("flush set inet filter whitelist_ipv4;add element inet filter whitelist_ipv4 "
                  "{ 0.0.0.0/0 };"),
        nft_batch("flush set inet filter whitelist_ipv4;add element inet filter whitelist_ipv4 "
                  "{ 10.0.0.0/8, , 10.0.0.1 };"),
        nft_batch("flush set inet filter whitelist_ipv4;add element inet filter whitelist_ipv4 "
                  "{  };"),
        nft_batch("flush set inet filter whitelist_ipv4;"),
    };
    EXPECT_EQ(fake->commands(), expected);
}

TEST_F(Acl, RefusalsChangeNothing) {
    handler->acl_set_whitelist(addr_family::ipv4, parse(R"(["10.0.0.1"])"));
    handler->acl_set_adminStatus("up");
    fake->clear();

    const std::pair<const char*, const char*> cases[] = {
        {R"({"a":1})", "Invalid whitelist format."},
        {R"(["10.0.0.2", "10.0.0.3'; touch /tmp/canary; '"])",
         "Invalid whitelist entry: 10.0.0.3'; touch /tmp/canary; '"},
    };
    for (auto [json, message] : cases)
        EXPECT_EQ(catch_dh_error([&] {
                      handler->acl_set_whitelist(addr_family::ipv4, parse(json));
                  }).message(),
                  message);
    EXPECT_EQ(catch_dh_error([&] {
                  handler->acl_set_whitelist(addr_family::ipv6, parse("[]"));
              }).message(),
              "ipv6 not implemented.");
    auto e = catch_dh_error([&] { handler->acl_set_adminStatus("Up"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), "Invalid ACL admin status: Up");
    EXPECT_TRUE(fake->calls().empty());
    EXPECT_EQ(to_json(handler->acl_get_whitelist(addr_family::ipv4)), R"(["10.0.0.1"])");

    // A failing nft keeps the new list and reports its own text.
    fake->on("nft", fake_runner::reply{256, ""});
    e = catch_dh_error(
        [&] { handler->acl_set_whitelist(addr_family::ipv4, parse(R"(["10.0.0.9"])")); });
    EXPECT_EQ(e.message(), "Failed to set ACL white list.");
    EXPECT_EQ(to_json(handler->acl_get_whitelist(addr_family::ipv4)), R"(["10.0.0.9"])");
    EXPECT_EQ(catch_dh_error([&] { handler->acl_set_adminStatus("down"); }).message(),
              "Failed to set ACL admin status.");
}

TEST_F(Acl, LiveSetReaders) {
    fake->on("nft list set", fake_runner::reply{0,
                                                "table inet filter {\n set whitelist_ipv4 {\n"
                                                "  elements = { 0.0.0.0/0 }\n }\n}\n"});
    EXPECT_EQ(handler->acl_get_adminStatus(), "down");
    fake->on("nft list set", fake_runner::reply{0, "  elements = { 10.0.0.1 }\n"});
    EXPECT_EQ(handler->acl_get_adminStatus(), "up");
    EXPECT_EQ(fake->commands().back(), ns + " /usr/sbin/nft list set inet filter whitelist_ipv4");

    fake->on("nft -j", fake_runner::reply{0, R"({"nftables":[{"metainfo":{}},{"set":{"name":"w",)"
                                             R"("elem":["10.0.0.1",{"prefix":{"addr":"10.1.0.0",)"
                                             R"("len":16}}]}}]})"});
    EXPECT_EQ(to_json(handler->_acl_get_whitelist(addr_family::ipv6)),
              R"(["10.0.0.1",{"prefix":{"addr":"10.1.0.0","len":16}}])");
    EXPECT_EQ(fake->commands().back(),
              ns + " /usr/sbin/nft -j list set inet filter whitelist_ipv6");
    fake->on("nft -j", fake_runner::reply{0, R"({"nftables":[{},{"set":{"name":"w"}}]})"});
    EXPECT_EQ(to_json(handler->_acl_get_whitelist(addr_family::ipv4)), "[]");
    fake->on("nft -j", fake_runner::reply{0, R"({"nftables":[{"set":{}}]})"});
    EXPECT_EQ(catch_dh_error([&] { handler->_acl_get_whitelist(addr_family::ipv4); }).message(),
              "Failed to parse ACL whitelist.");
    fake->on("nft", fake_runner::reply{256, ""});
    EXPECT_EQ(catch_dh_error([&] { handler->acl_get_adminStatus(); }).message(),
              "Failed to get ACL admin status.");
}
