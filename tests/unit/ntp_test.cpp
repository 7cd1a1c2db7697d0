#include <string>
#include <vector>

#include "handler_fixture.hpp"
#include "ntp_status.hpp"

namespace {

TEST(NtpStatus, SelectionStatesOfBothServers) {
    struct row {
        const char* selectdata;
        const char* expected;  // primary | secondary | overall
    };
    const row rows[] = {
        // A selected "*" wins whatever the order (the handler test has "+" first).
        {"*,10.0.0.1,x\n+,10.0.0.1,x\n", "synchronized (*) | - | 2"},
        {"+,10.0.0.2,1,2,3\n", "- | synchronized (+) | 2"},
        // A selected source that is neither server still makes the service synchronised.
        {"*,10.9.9.9,x\n", "- | - | 2"},
        {"W,10.0.0.1\nN,10.0.0.2\n", "not synchronized (W) | not connected (N) | 1"},
        // Waiting and rejected states never override a better one.
        {"*,10.0.0.1\nD,10.0.0.1\nx,10.0.0.1\n", "synchronized (*) | - | 2"},
        // A rejected state is replaced by a later waiting one, and then by a selected one.
        {"M,10.0.0.1\nU,10.0.0.1\n", "not synchronized (U) | - | 1"},
        {"M,10.0.0.1\nU,10.0.0.1\n+,10.0.0.1\n", "synchronized (+) | - | 2"},
        // Rejected sources leave the overall code alone; unknown states and empty lines count
        // for nothing.
        {"T,10.0.0.1\n", "not connected (T) | - | 0"},
        {"?,10.0.0.1,x\n\n,10.0.0.2\n", "- | - | 0"},
    };
    const auto text = [](const ntp_status::report& r) {
        return ntp_status::text(r.primary) + " | " + ntp_status::text(r.secondary) + " | " +
               std::to_string(r.overall);
    };
    for (const auto& r : rows)
        EXPECT_EQ(text(ntp_status::evaluate(r.selectdata, "10.0.0.1", "10.0.0.2")), r.expected)
            << r.selectdata;
    // Same name for both roles: the line counts for the primary only.
    EXPECT_EQ(text(ntp_status::evaluate("W,ntp.example\n", "ntp.example", "ntp.example")),
              "not synchronized (W) | - | 1");
}

TEST(NtpStatus, ServerAddressRule) {
    const std::string label(63, 'a');
    const std::string long_name = label + "." + label + "." + label + "." + label;  // 255
    EXPECT_TRUE(ntp_status::is_valid_server_address(long_name.substr(2)));          // 253
    for (const char* ok : {"10.0.0.1", "a", "ntp-1.example.com", "0.pool.ntp.org"})
        EXPECT_TRUE(ntp_status::is_valid_server_address(ok)) << ok;
    for (const std::string& bad :
         texts{"", "x'; touch /tmp/canary; '", "-ntp.org", "ntp-.org", "a..b", "ntp.org.", "a b",
               "ntp_1.org", std::string(64, 'a'), long_name})
        EXPECT_FALSE(ntp_status::is_valid_server_address(bad)) << bad;
}

class Ntp : public handler_test {
  protected:
    static constexpr const char* ntp = "/ietf-system:system/ntp";
    // The NTP settings of the last import, after the running configuration had `servers`.
    std::string set_server(const char* servers, bool primary, const std::string& address) {
        running_is(running_doc({{std::string(ntp) + "/server", servers}}));
        handler->ntp().set_ntp_server(primary, address);
        return json_at(last_import(), ntp);
    }
};

TEST_F(Ntp, StatusReadsChronySelectionOnlyWhileEnabled) {
    fake->on("chronyc", fake_executor::reply{0, "+,10.0.0.1,1\n*,10.0.0.1,1\nN,10.0.0.2,1\n"});
    running_is(running_doc({{"/ietf-system:system/ntp/enabled", "false"}}));
    EXPECT_EQ(to_json(handler->ntp().get_ntp_status()),
              R"({"primary":"-","secondary":"-","overall":0})");
    EXPECT_EQ(fake->count("chronyc"), 0u);

    running_is(running_doc());
    EXPECT_EQ(to_json(handler->ntp().get_ntp_status()),
              R"j({"primary":"synchronized (*)","secondary":"not connected (N)","overall":2})j");
    fake->on("chronyc", fake_executor::reply{256, ""});
    EXPECT_EQ(error_of([&] { handler->ntp().get_ntp_status(); }),
              "-1 Failed to call: " + ns + "/bin/chronyc -cN selectdata");
}

TEST_F(Ntp, ServerEntriesAreCreatedReplacedAndRemovedByRole) {
    const char* secondary_only = R"([{"name":"secondary","udp":{"address":"10.0.0.2","port":9}}])";
    EXPECT_EQ(set_server(secondary_only, true, "10.0.0.1"),
              R"({"enabled":true,"server":[{"name":"secondary","udp":{"address":"10.0.0.2",)"
              R"("port":9}},{"udp":{"address":"10.0.0.1"},"name":"primary",)"
              R"("association-type":"server","iburst":true,"prefer":true}]})");
    // The daemon restarts without being waited for.
    const auto calls = fake->calls();
    EXPECT_EQ(calls.back().cmd, "/etc/init.d/ntpd restart");
    EXPECT_TRUE(calls.back().opts.detach);

    EXPECT_EQ(set_server(secondary_only, false, "10.0.0.3"),
              R"({"enabled":true,"server":[{"name":"secondary","udp":{"address":"10.0.0.3",)"
              R"("port":9}}]})");
    EXPECT_EQ(
        set_server(R"([{"name":"primary","udp":{"address":"a"}},{"name":"secondary"}])", true, ""),
        R"({"enabled":true,"server":[{"name":"secondary"}]})");

    running_is(R"({"ietf-system:system":{}})");
    handler->ntp().set_ntp_server(false, "ntp.example");
    EXPECT_EQ(json_at(last_import(), ntp),
              R"({"enabled":false,"server":[{"udp":{"address":"ntp.example"},"name":"secondary",)"
              R"("association-type":"server","iburst":true}]})");
}

TEST_F(Ntp, MixedKindsAndUnsafeAddressesAreRefused) {
    running_is(running_doc({{"/ietf-system:system/ntp/server/0/udp/address", "\"ntp.example\""}}));
    EXPECT_EQ(
        error_of([&] { handler->ntp().set_ntp_server(false, "10.0.0.2"); }),
        "-22 Both NTP servers must be either IP address or DNS name: (10.0.0.2, ntp.example).");
    EXPECT_TRUE(imports().empty());
    // "n/a" stands for no server.
    EXPECT_EQ(set_server(R"([{"name":"primary","udp":{"address":"n/a"}}])", false, "10.0.0.2"),
              R"({"enabled":true,"server":[{"name":"primary","udp":{"address":"n/a"}},)"
              R"({"udp":{"address":"10.0.0.2"},"name":"secondary","association-type":"server",)"
              R"("iburst":true}]})");

    fake->clear();
    EXPECT_EQ(error_of([&] { handler->ntp().set_ntp_server(true, "x'; touch /tmp/canary; '"); }),
              "-22 Invalid NTP server address: x'; touch /tmp/canary; '");
    EXPECT_TRUE(fake->calls().empty());
}

TEST_F(Ntp, AdminStatusIsCaseSensitive) {
    running_is(R"({"ietf-system:system":{"ntp":{"enabled":false}}})");
    EXPECT_EQ(error_of([&] { handler->ntp().set_ntp_adminStatus("Up"); }),
              "-22 ntp admin status should be either 'up' or 'down' , not:Up");
    EXPECT_TRUE(fake->calls().empty());

    handler->ntp().set_ntp_adminStatus("up");
    EXPECT_EQ(imports().back(), R"({"ietf-system:system":{"ntp":{"enabled":true}}})");
    EXPECT_EQ(fake->commands().back(), "/etc/init.d/ntpd restart");

    // An export that did not parse is never written back over the datastore.
    running_is("not json");
    fake->clear();
    EXPECT_EQ(error_of([&] { handler->ntp().set_ntp_adminStatus("down"); }),
              "22 Invalid json in response");
    EXPECT_TRUE(imports().empty());
}

}  // namespace
