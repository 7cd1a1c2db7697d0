#include <string>

#include "acl_whitelist.hpp"
#include "handler_fixture.hpp"

namespace {

constexpr auto v4 = addr_family::ipv4;
const std::string flush = "flush set inet filter whitelist_ipv4;";

const std::string nft = ns + "/usr/sbin/nft -f -";

// nft's standard input: the statements as one line.
std::string refill(const std::string& elements) {
    return flush + "add element inet filter whitelist_ipv4 { " + elements + " };\n";
}

TEST(AclWhitelist, TextOfEveryElementFormAndRefusedEntries) {
    const std::pair<const char*, const char*> cases[] = {
        // Each usable form is written to nft in the simulated device. Unusable elements write
        // nothing but keep their separators.
        {R"([{"prefix":{"addr":"10.0.0.0","len":-1}}, {"other":1}, "10.0.0.1", null])",
         ", , 10.0.0.1, "},
        // A "prefix" that is no object falls through to "range".
        {R"([{"prefix":1,"range":["1.1.1.1","1.1.1.2"]}])", "1.1.1.1-1.1.1.2"},
        {R"([{"prefix":{"addr":"10.0.0.0","len":33}}])",
         "-22 Invalid whitelist entry: 10.0.0.0/33"},
        {R"([{"range":["1.1.1.1","1.1.1.1'; reboot; '"]}])",
         "-22 Invalid whitelist entry: 1.1.1.1-1.1.1.1'; reboot; '"},
    };
    for (auto [json, expected] : cases) {
        std::string text;
        const auto error = error_of([&] { text = acl_whitelist::build_text(parse(json)); });
        EXPECT_EQ(error == "no error" ? text : error, expected) << json;
    }
    for (const char* ok : {"10.0.0.1", "0.0.0.0/0", "10.0.0.0/32", "1.2.3.4-1.2.3.9"})
        EXPECT_TRUE(acl_whitelist::is_valid_entry(ok)) << ok;
    for (const char* bad : {"", "10.0.0.0/33", "10.0.0.0/8x", "1.2.3", "1.2.3.4-", "fd00::1",
                            "10.0.0.1 ", "x' }; flush ruleset; '"})
        EXPECT_FALSE(acl_whitelist::is_valid_entry(bad)) << bad;
}

class Acl : public handler_test {
  protected:
    std::string whitelist() { return to_json(handler->acl().acl_get_whitelist(v4)); }
    std::string set(const char* json, addr_family family = v4) {
        return error_of([&] { handler->acl().acl_set_whitelist(family, parse(json)); });
    }
};

TEST_F(Acl, ListTakesEffectOnlyWhileSwitchedOn) {
    set(R"(["10.0.0.0/8", 1, "10.0.0.1"])");
    EXPECT_TRUE(fake->calls().empty());
    EXPECT_EQ(whitelist(), R"(["10.0.0.0/8","10.0.0.1"])");
    handler->acl().acl_set_adminStatus("up");
    handler->acl().acl_set_adminStatus("down");
    handler->acl().acl_set_adminStatus("up");
    set("[]");
    handler->acl().acl_set_adminStatus("up");
    EXPECT_EQ(fake->inputs(nft),
              (texts{refill("10.0.0.0/8, , 10.0.0.1"), refill("0.0.0.0/0"),
                     refill("10.0.0.0/8, , 10.0.0.1"), refill(""), flush + "\n"}));
    EXPECT_EQ(whitelist(), "[]");
}

TEST_F(Acl, RefusalsAndNftFailuresChangeNothing) {
    set(R"(["10.0.0.1"])");
    handler->acl().acl_set_adminStatus("up");
    fake->clear();
    EXPECT_EQ(set(R"({"a":1})"), "-22 Invalid whitelist format.");
    EXPECT_EQ(set(R"(["10.0.0.2", "10.0.0.3'; touch /tmp/canary; '"])"),
              "-22 Invalid whitelist entry: 10.0.0.3'; touch /tmp/canary; '");
    EXPECT_EQ(set("[]", addr_family::ipv6), "-22 ipv6 not implemented.");
    EXPECT_EQ(error_of([&] { handler->acl().acl_set_adminStatus("Up"); }),
              "-22 Invalid ACL admin status: Up");
    EXPECT_TRUE(fake->calls().empty());
    EXPECT_EQ(whitelist(), R"(["10.0.0.1"])");

    fake->on("nft", fake_executor::reply{256, ""});
    EXPECT_EQ(set(R"(["10.0.0.9"])"), "-22 Failed to set ACL white list.");
    EXPECT_EQ(whitelist(), R"(["10.0.0.1"])");
    EXPECT_EQ(error_of([&] { handler->acl().acl_set_adminStatus("down"); }),
              "-22 Failed to set ACL admin status.");
    // Still switched on: once nft works again, a new list reaches the filter.
    fake->on("nft", fake_executor::reply{0, ""});
    fake->clear();
    set(R"(["10.0.0.9"])");
    EXPECT_EQ(fake->inputs(nft), texts{refill("10.0.0.9")});
}

}  // namespace
