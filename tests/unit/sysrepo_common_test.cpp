#include "sysrepo_common.hpp"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dh_error.hpp"
#include "fake_runner.hpp"
#include "log_capture.hpp"

namespace sc = sysrepo_common;

namespace {

// Runs f and returns the dh_error it throws; fails the test when it throws nothing.
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

std::string temp_path(const std::string& stem) {
    return testing::TempDir() + stem + "." + std::to_string(getpid());
}

}  // namespace

TEST(AddressHelpers, PrefixLengthToNetmask) {
    const std::pair<int, const char*> cases[] = {{0, "0.0.0.0"},
                                                 {-1, "0.0.0.0"},
                                                 {INT_MIN, "0.0.0.0"},
                                                 {1, "128.0.0.0"},
                                                 {8, "255.0.0.0"},
                                                 {9, "255.128.0.0"},
                                                 {17, "255.255.128.0"},
                                                 {24, "255.255.255.0"},
                                                 {25, "255.255.255.128"},
                                                 {31, "255.255.255.254"},
                                                 {32, "255.255.255.255"},
                                                 {33, "255.255.255.255"},
                                                 {INT_MAX, "255.255.255.255"}};
    for (auto [n, mask] : cases) EXPECT_EQ(sc::prefix_length_to_netmask(n), mask) << n;
}

TEST(AddressHelpers, NetmaskToPrefixLengthCountsBitsPerField) {
    const std::pair<const char*, int> cases[] = {{"255.255.255.0", 24},
                                                 {"255.255.255.0.", 24},
                                                 {"", 0},
                                                 {"255.0.255.0", 16},
                                                 {"255.255.255.0.255", 32},
                                                 {"256", 0},
                                                 {"255.255.255.255", 32},
                                                 {" 255.+128", 9},
                                                 {"255x.0", 8},
                                                 {"-1.0", 8}};
    for (auto [mask, n] : cases) EXPECT_EQ(sc::netmask_to_prefix_length(mask), n) << mask;
}

TEST(AddressHelpers, NetmaskToPrefixLengthThrowsOnNonNumbers) {
    for (const char* bad : {"255..0", "abc", ".255", "255.x"}) {
        try {
            sc::netmask_to_prefix_length(bad);
            ADD_FAILURE() << bad;
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), "stoi") << bad;
        }
    }
    EXPECT_THROW(sc::netmask_to_prefix_length("255.99999999999"), std::out_of_range);
}

TEST(AddressHelpers, IsStringIpaddress) {
    for (const char* good : {"192.0.2.1", "0.0.0.0", "255.255.255.255"})
        EXPECT_TRUE(sc::is_string_ipaddress(good)) << good;
    for (const char* bad : {"", "::1", "fe80::1", "router", " 1.2.3.4", "1.2.3.4 ", "1.2.3",
                            "256.1.1.1", "1.2.3.4/24"})
        EXPECT_FALSE(sc::is_string_ipaddress(bad)) << bad;
}

TEST(AddressHelpers, IsValidNetmaskChecksCharactersOnly) {
    for (const char* good : {"", "255.255.255.0", "999.1..2", "."})
        EXPECT_TRUE(sc::is_valid_netmask(good)) << good;
    for (const char* bad : {"255.255.255.0/24", " 255", "a", "-1", "255,255"})
        EXPECT_FALSE(sc::is_valid_netmask(bad)) << bad;
}

// Node registration and OSPF walk the tables in order, and the tunnel VLAN must match its name.
TEST(Tables, InterfaceSetsInOrder) {
    auto names = [](const auto& table) {
        return std::vector<std::string>(table.begin(), table.end());
    };
    auto range = [](int first, int last) {
        std::vector<std::string> out;
        for (int i = first; i <= last; ++i) out.push_back("e" + std::to_string(i));
        return out;
    };
    EXPECT_EQ(names(sc::RDM_INTERFACES), range(1, 12));
    EXPECT_EQ(names(sc::SFP_INTERFACES), range(13, 16));
    EXPECT_EQ(names(sc::QMX2_INTERFACES), range(17, 20));
    EXPECT_EQ(names(sc::EXT_INTERFACES), range(21, 26));
    EXPECT_EQ(names(sc::OSPF_UPLINK_INTERFACES), range(27, 28));
    EXPECT_EQ(names(sc::OSPF_INTERFACES), range(1, 28));
    EXPECT_EQ(names(sc::IETH_INTERFACES), range(1, 28));
    EXPECT_EQ(sc::IETH_INTERFACES.back(), sc::MGMT_INTERFACE);

    std::vector<std::string> tunnels;
    for (const auto& t : sc::TUN_INTERFACES) {
        tunnels.emplace_back(t.name);
        EXPECT_EQ(std::to_string(t.vlan), t.name.substr(t.name.find('.') + 1)) << t.name;
    }
    std::vector<std::string> expected;
    for (int port = 1; port <= 16; ++port)
        for (int vlan : {8, 21, 22, 23, 24})
            if (vlan == 8 || port >= 13)
                expected.push_back("e" + std::to_string(port) + "." + std::to_string(vlan));
    EXPECT_EQ(tunnels, expected);
}

TEST(ExecOutput, ReturnsStandardOutputUnchanged) {
    EXPECT_EQ(sc::exec("true", true), "");
    EXPECT_EQ(sc::exec("printf 'a\\nb'", true), "a\nb");
    EXPECT_EQ(sc::exec("echo hello", true), "hello\n");
    const std::string long_line(300, 'x');
    EXPECT_EQ(sc::exec("printf '%0300d' 0 | tr 0 x; echo; echo next", true),
              long_line + "\nnext\n");
    // The shell sees the whole text: redirections and background jobs work as written.
    EXPECT_EQ(sc::exec("echo out; echo err 1>&2", true), "out\n");
    EXPECT_EQ(sc::exec("ls /nonexistent-path 2>/dev/null || echo missing", true), "missing\n");
    EXPECT_EQ(sc::exec("true &", true), "");
}

TEST(ExecOutput, FailureIsMinusOneWithCommandAndLogsOnlyWhenAsked) {
    const std::string cmd = "echo partial; exit 1";
    {
        log_capture logs;
        auto e = catch_dh_error([&] { sc::exec(cmd, true); });
        EXPECT_EQ(e.code(), -1);
        EXPECT_EQ(e.message(), "Failed to call: " + cmd);
        auto recs = logs.find("Failed to call: " + cmd);
        ASSERT_EQ(recs.size(), 1u);
        EXPECT_EQ(recs[0].severity, 3);
        EXPECT_EQ(recs[0].channel, "exec");
        EXPECT_NE(recs[0].message.find("(sysrepo_common.cpp:"), std::string::npos);
    }
    {
        log_capture logs;
        auto e = catch_dh_error([&] { sc::exec("exit 7", false); });
        EXPECT_EQ(e.code(), -1);
        EXPECT_EQ(e.message(), "Failed to call: exit 7");
        EXPECT_TRUE(logs.find("Failed to call").empty());
    }
}

TEST(ExecInput, FeedsStandardInputAndReportsRawStatus) {
    const std::string file = temp_path("exec_input");
    const std::string text = "{\"a\": [1, 2]}\nsecond line without newline";
    sc::exec("cat > " + file, std::string_view(text));
    std::ifstream in(file);
    std::stringstream read;
    read << in.rdbuf();
    EXPECT_EQ(read.str(), text);
    std::remove(file.c_str());

    log_capture logs;
    const std::string cmd = "cat >/dev/null; exit 1";
    auto e = catch_dh_error([&] { sc::exec(cmd, std::string_view("x")); });
    EXPECT_EQ(e.code(), 256);
    EXPECT_EQ(e.message(), "Failed to call: " + cmd);
    auto recs = logs.find("Failed to call: " + cmd);
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].severity, 3);
    EXPECT_EQ(recs[0].channel, "exec");

    EXPECT_EQ(
        catch_dh_error([] { sc::exec("cat >/dev/null; exit 3", std::string_view("")); }).code(),
        768);
}

// A runner that cannot open its pipes, as when the process runs out of descriptors.
class broken_runner : public sc::command_runner {
  public:
    int run_capture(const std::string&, std::string& output) override {
        output = "lost";
        throw std::runtime_error("popen failed");
    }
    int run_feed(const std::string&, std::string_view) override {
        throw std::runtime_error("popen failed");
    }
    int run_system(const std::string&) override { throw std::logic_error("unexpected"); }
};

class runner_swap {
  public:
    explicit runner_swap(std::shared_ptr<sc::command_runner> r)
        : previous_(sc::set_command_runner(std::move(r))) {}
    ~runner_swap() { sc::set_command_runner(previous_); }

  private:
    std::shared_ptr<sc::command_runner> previous_;
};

TEST(CommandSeam, PipeNotOpened) {
    runner_swap swap(std::make_shared<broken_runner>());
    log_capture logs;
    auto e = catch_dh_error([] { sc::exec("some tool", true); });
    EXPECT_EQ(e.code(), -1);
    EXPECT_EQ(e.message(), "Failed to call: some tool");
    EXPECT_EQ(logs.find("Failed to call: some tool").size(), 1u);

    auto quiet = catch_dh_error([] { sc::exec("quiet tool", false); });
    EXPECT_EQ(quiet.code(), -1);
    EXPECT_TRUE(logs.find("quiet tool").empty());

    // The input overload spells its message differently on this path only, and always logs.
    auto fed = catch_dh_error([] { sc::exec("importer", std::string_view("{}")); });
    EXPECT_EQ(fed.code(), -1);
    EXPECT_EQ(fed.message(), "Faild to call: importer");
    auto recs = logs.find("Faild to call: importer");
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].severity, 3);
    EXPECT_EQ(recs[0].channel, "exec");
}

TEST(CommandSeam, ReplacedRunnerGetsEveryCall) {
    fake_runner::guard fake;
    fake->on("show", fake_runner::reply{0, "shown\n"});
    fake->on("bad", fake_runner::reply{512, "ignored"});
    EXPECT_EQ(sc::exec("tool show x", true), "shown\n");
    EXPECT_EQ(catch_dh_error([] { sc::exec("tool bad", true); }).code(), -1);
    EXPECT_EQ(catch_dh_error([] { sc::exec("tool bad", std::string_view("in")); }).code(), 512);
    EXPECT_EQ(sc::system("reboot &"), 0);
    EXPECT_EQ(fake->commands(),
              (std::vector<std::string>{"tool show x", "tool bad", "tool bad", "reboot &"}));
}

TEST(CommandSeam, NullRestoresRealRunner) {
    auto previous = sc::set_command_runner(std::make_shared<broken_runner>());
    sc::set_command_runner(nullptr);
    EXPECT_EQ(sc::exec("echo real", true), "real\n");
    EXPECT_EQ(sc::system("exit 2"), 512);
    sc::set_command_runner(previous);
}
