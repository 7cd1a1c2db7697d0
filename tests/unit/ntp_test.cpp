#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "dh_error.hpp"
#include "fake_runner.hpp"
#include "log_capture.hpp"
#include "ntp_status.hpp"
#include "sysrepo_device_handler.hpp"

namespace {

const std::string ns = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net ";

std::string to_json(const dh::Value& v) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    v.Accept(writer);
    return buffer.GetString();
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

std::string status_of(const std::string& selectdata, const std::string& primary = "10.0.0.1",
                      const std::string& secondary = "10.0.0.2") {
    const auto r = ntp_status::evaluate(selectdata, primary, secondary);
    return ntp_status::text(r.primary) + " | " + ntp_status::text(r.secondary) + " | " +
           std::to_string(r.overall);
}

}  // namespace

TEST(NtpStatus, SelectedStarWinsWhateverTheOrder) {
    EXPECT_EQ(status_of("+,10.0.0.1,x\n*,10.0.0.1,x\n"), "synchronized (*) | - | 2");
    EXPECT_EQ(status_of("*,10.0.0.1,x\n+,10.0.0.1,x\n"), "synchronized (*) | - | 2");
    EXPECT_EQ(status_of("+,10.0.0.2,1,2,3\n"), "- | synchronized (+) | 2");
    // A selected source that is neither server still makes the service synchronised.
    EXPECT_EQ(status_of("*,10.9.9.9,x\n"), "- | - | 2");
}

TEST(NtpStatus, WaitingAndRejectedNeverOverrideABetterState) {
    EXPECT_EQ(status_of("W,10.0.0.1\nN,10.0.0.2\n"),
              "not synchronized (W) | not connected (N) | 1");
    EXPECT_EQ(status_of("*,10.0.0.1\nD,10.0.0.1\nx,10.0.0.1\n"), "synchronized (*) | - | 2");
    EXPECT_EQ(status_of("P,10.0.0.1\n~,10.0.0.1\n"), "not synchronized (P) | - | 1");
    // A rejected state is replaced by a later waiting one, and then by a selected one.
    EXPECT_EQ(status_of("M,10.0.0.1\nU,10.0.0.1\n"), "not synchronized (U) | - | 1");
    EXPECT_EQ(status_of("M,10.0.0.1\nU,10.0.0.1\n+,10.0.0.1\n"), "synchronized (+) | - | 2");
    // Rejected sources leave the overall code alone.
    EXPECT_EQ(status_of("T,10.0.0.1\n"), "not connected (T) | - | 0");
}

TEST(NtpStatus, UnknownStatesAndEmptyLinesAreIgnored) {
    EXPECT_EQ(status_of("?,10.0.0.1,x\n\n,10.0.0.2\n"), "- | - | 0");
    EXPECT_EQ(status_of(""), "- | - | 0");
    // Same name for both roles: the line counts for the primary only.
    const auto r = ntp_status::evaluate("W,ntp.example\n", "ntp.example", "ntp.example");
    EXPECT_EQ(r.primary.code, ntp_status::not_synchronised);
    EXPECT_EQ(r.secondary.code, ntp_status::unknown);
}

TEST(NtpStatus, ServerAddressRule) {
    const std::string label(63, 'a');
    const std::string long_name = label + "." + label + "." + label + "." + label;  // 255
    EXPECT_TRUE(ntp_status::is_valid_server_address(long_name.substr(2)));          // 253
    for (const char* ok : {"10.0.0.1", "pool.ntp.org", "a", "ntp-1.example.com", "0.pool.ntp.org"})
        EXPECT_TRUE(ntp_status::is_valid_server_address(ok)) << ok;
    for (const std::string& bad :
         std::vector<std::string>{"", "x'; touch /tmp/canary; '", "-ntp.org", "ntp-.org", "a..b",
                                  "ntp.org.", "a b", "ntp_1.org", std::string(64, 'a'), long_name})
        EXPECT_FALSE(ntp_status::is_valid_server_address(bad)) << bad;
}

class Ntp : public testing::Test {
  protected:
    fake_runner::guard fake;
    dh_db db;
    std::shared_ptr<sysrepo_device_handler> handler = std::make_shared<sysrepo_device_handler>(db);

    void running(const std::string& json) {
        fake->on("--export", fake_runner::reply{0, json});
        fake->clear();
    }
    // The document imported into running (which startup then receives too).
    std::string imported() {
        std::string running_input;
        for (const auto& c : fake->calls())
            if (c.kind == fake_runner::call::feed && c.cmd.find("-d running") != std::string::npos)
                running_input = c.input;
        return running_input;
    }
};

TEST_F(Ntp, StatusWithAdminDownRunsNothing) {
    running(R"({"ietf-system:system":{"ntp":{"enabled":false,
        "server":[{"name":"primary","udp":{"address":"10.0.0.1"}}]}}})");
    fake->on("chronyc", fake_runner::reply{0, "*,10.0.0.1,x\n"});
    EXPECT_EQ(to_json(handler->get_ntp_status()), R"({"primary":"-","secondary":"-","overall":0})");
    for (const auto& cmd : fake->commands()) EXPECT_EQ(cmd.find("chronyc"), std::string::npos);
}

TEST_F(Ntp, StatusReadsChronySelection) {
    running(R"({"ietf-system:system":{"ntp":{"enabled":true,"server":[
        {"name":"primary","udp":{"address":"10.0.0.1"}},
        {"name":"secondary","udp":{"address":"10.0.0.2"}}]}}})");
    fake->on("chronyc", fake_runner::reply{0, "+,10.0.0.1,1\n*,10.0.0.1,1\nN,10.0.0.2,1\n"});
    EXPECT_EQ(to_json(handler->get_ntp_status()),
              R"j({"primary":"synchronized (*)","secondary":"not connected (N)","overall":2})j");
    EXPECT_EQ(fake->commands().back(), ns + " /bin/chronyc -cN selectdata");

    fake->on("chronyc", fake_runner::reply{256, ""});
    EXPECT_EQ(catch_dh_error([&] { handler->get_ntp_status(); }).code(), -1);
}

TEST_F(Ntp, ServerEntriesAreCreatedReplacedAndRemovedByRole) {
    running(R"({"ietf-system:system":{"hostname":"qmx","ntp":{"enabled":true,"server":[
        {"name":"secondary","udp":{"address":"10.0.0.2","port":123},"iburst":false}]}}})");
    handler->set_ntp_server(true, "10.0.0.1");
    EXPECT_EQ(imported(),
              R"({"ietf-system:system":{"hostname":"qmx","ntp":{"enabled":true,"server":[)"
              R"({"name":"secondary","udp":{"address":"10.0.0.2","port":123},"iburst":false},)"
              R"({"udp":{"address":"10.0.0.1"},"name":"primary","association-type":"server",)"
              R"("iburst":true,"prefer":true}]}}})");
    const auto calls = fake->calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[2].cmd, ns + "sysrepocfg --import -f json -d startup -t 30");
    EXPECT_EQ(calls[3].kind, fake_runner::call::system);
    EXPECT_EQ(calls[3].cmd, "/etc/init.d/ntpd restart &");

    running(R"({"ietf-system:system":{"ntp":{"enabled":true,"server":[
        {"name":"secondary","udp":{"address":"10.0.0.2","port":123},"iburst":false}]}}})");
    handler->set_ntp_server(false, "10.0.0.3");
    EXPECT_EQ(imported(), R"({"ietf-system:system":{"ntp":{"enabled":true,"server":[)"
                          R"({"name":"secondary","udp":{"address":"10.0.0.3","port":123},)"
                          R"("iburst":false}]}}})");

    running(R"({"ietf-system:system":{"ntp":{"enabled":true,"server":[
        {"name":"primary","udp":{"address":"a"}},{"name":"secondary","udp":{"address":"b"}}]}}})");
    handler->set_ntp_server(true, "");
    EXPECT_EQ(imported(), R"({"ietf-system:system":{"ntp":{"enabled":true,"server":[)"
                          R"({"name":"secondary","udp":{"address":"b"}}]}}})");

    running(R"({"ietf-system:system":{}})");
    handler->set_ntp_server(false, "ntp.example");
    EXPECT_EQ(
        imported(),
        R"({"ietf-system:system":{"ntp":{"enabled":false,"server":[{"udp":{"address":)"
        R"("ntp.example"},"name":"secondary","association-type":"server","iburst":true}]}}})");
}

TEST_F(Ntp, MixedKindsAndUnsafeAddressesAreRefused) {
    running(
        R"({"ietf-system:system":{"ntp":{"server":[{"name":"primary","udp":{"address":"ntp.example"}}]}}})");
    auto e = catch_dh_error([&] { handler->set_ntp_server(false, "10.0.0.2"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(),
              "Both NTP servers must be either IP address or DNS name: (10.0.0.2, ntp.example).");
    EXPECT_TRUE(imported().empty());

    running(
        R"({"ietf-system:system":{"ntp":{"server":[{"name":"primary","udp":{"address":"n/a"}}]}}})");
    handler->set_ntp_server(false, "10.0.0.2");
    EXPECT_FALSE(imported().empty());

    fake->clear();
    e = catch_dh_error([&] { handler->set_ntp_server(true, "x'; touch /tmp/canary; '"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), "Invalid NTP server address: x'; touch /tmp/canary; '");
    EXPECT_TRUE(fake->calls().empty());
}

TEST_F(Ntp, AdminStatusIsCaseSensitiveAndLogged) {
    running(R"({"ietf-system:system":{"ntp":{"enabled":false}}})");
    log_capture logs;
    auto e = catch_dh_error([&] { handler->set_ntp_adminStatus("Up"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.message(), "ntp admin status should be either 'up' or 'down' , not:Up");
    ASSERT_EQ(logs.find(e.message()).size(), 1u);
    EXPECT_EQ(logs.find(e.message())[0].channel, "set_ntp_adminStatus");
    EXPECT_TRUE(fake->calls().empty());

    handler->set_ntp_adminStatus("up");
    EXPECT_EQ(imported(), R"({"ietf-system:system":{"ntp":{"enabled":true}}})");
    EXPECT_EQ(fake->commands().back(), "/etc/init.d/ntpd restart &");

    // An export that did not parse is never written back over the datastore.
    running("not json");
    EXPECT_EQ(catch_dh_error([&] { handler->set_ntp_adminStatus("down"); }).code(), 22);
    EXPECT_TRUE(imported().empty());
}
