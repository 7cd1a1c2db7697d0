#include "sysrepo_common.hpp"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "handler_fixture.hpp"

namespace sc = sysrepo_common;

namespace {

TEST(AddressHelpers, NetmasksAndPrefixLengths) {
    // Out-of-range lengths clamp; the extremes must not shift by 32 or more.
    const std::pair<int, const char*> masks[] = {
        {INT_MIN, "0.0.0.0"},        {0, "0.0.0.0"},          {1, "128.0.0.0"},
        {17, "255.255.128.0"},       {31, "255.255.255.254"}, {32, "255.255.255.255"},
        {INT_MAX, "255.255.255.255"}};
    for (auto [n, mask] : masks) EXPECT_EQ(sc::prefix_length_to_netmask(n), mask) << n;

    // One-bits are counted per field; contiguity is not checked.
    const std::pair<const char*, int> lengths[] = {{"255.255.255.0.", 24},
                                                   {"", 0},
                                                   {"255.0.255.0", 16},
                                                   {"255.255.255.0.255", 32},
                                                   {"256", 0},
                                                   {" 255.+128", 9},
                                                   {"255x.0", 8},
                                                   {"-1.0", 8}};
    for (auto [mask, n] : lengths) EXPECT_EQ(sc::netmask_to_prefix_length(mask), n) << mask;
    for (const char* bad : {"255..0", "abc", ".255", "255.x"})
        EXPECT_THROW(sc::netmask_to_prefix_length(bad), std::invalid_argument) << bad;
    EXPECT_THROW(sc::netmask_to_prefix_length("255.99999999999"), std::out_of_range);
}

// Registration passes each tunnel sub-interface's VLAN beside its name: the two must agree.
TEST(Tables, TunnelVlanMatchesItsName) {
    for (const auto& t : sc::TUN_INTERFACES)
        EXPECT_EQ(std::to_string(t.vlan), t.name.substr(t.name.find('.') + 1)) << t.name;
    EXPECT_EQ(sc::IETH_INTERFACES.back(), sc::MGMT_INTERFACE);
}

TEST(Exec, OutputUnchangedFailuresAsMinusOneAndLoggedWhenAsked) {
    EXPECT_EQ(sc::exec("printf 'a\\nb'", true), "a\nb");
    // Longer than the read buffer.
    EXPECT_EQ(sc::exec("printf '%0300d' 0 | tr 0 x; echo; echo next", true),
              std::string(300, 'x') + "\nnext\n");
    // The shell sees the whole text: redirections and background jobs work as written.
    EXPECT_EQ(sc::exec("echo out; echo err 1>&2", true), "out\n");
    EXPECT_EQ(sc::exec("true &", true), "");

    log_capture logs;
    EXPECT_EQ(error_of([] { sc::exec("echo partial; exit 1", true); }),
              "-1 Failed to call: echo partial; exit 1");
    EXPECT_EQ(logs.where("Failed to call: echo partial; exit 1 (sysrepo_common.cpp:"),
              texts{"3 exec"});
    EXPECT_EQ(error_of([] { sc::exec("exit 7", false); }), "-1 Failed to call: exit 7");
    EXPECT_TRUE(logs.where("exit 7").empty());
}

TEST(Exec, FeedsStandardInputAndReportsRawStatus) {
    const std::string file = testing::TempDir() + "exec_input." + std::to_string(getpid());
    const std::string text = "{\"a\": [1, 2]}\nsecond line without newline";
    sc::exec("cat > " + file, std::string_view(text));
    EXPECT_EQ(sc::exec("cat " + file, true), text);
    std::remove(file.c_str());

    log_capture logs;
    EXPECT_EQ(error_of([] { sc::exec("cat >/dev/null; exit 1", std::string_view("x")); }),
              "256 Failed to call: cat >/dev/null; exit 1");
    EXPECT_EQ(logs.where("Failed to call: cat >/dev/null; exit 1"), texts{"3 exec"});
    EXPECT_EQ(error_of([] { sc::exec("cat >/dev/null; exit 3", std::string_view("")); }),
              "768 Failed to call: cat >/dev/null; exit 3");
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

TEST(CommandSeam, PipeNotOpenedAndRealRunnerBack) {
    auto previous = sc::set_command_runner(std::make_shared<broken_runner>());
    log_capture logs;
    EXPECT_EQ(error_of([] { sc::exec("some tool", true); }), "-1 Failed to call: some tool");
    EXPECT_EQ(logs.where("Failed to call: some tool"), texts{"3 exec"});
    EXPECT_EQ(error_of([] { sc::exec("quiet tool", false); }), "-1 Failed to call: quiet tool");
    EXPECT_TRUE(logs.where("quiet tool").empty());
    // The input overload spells its message differently on this path only, and always logs.
    EXPECT_EQ(error_of([] { sc::exec("importer", std::string_view("{}")); }),
              "-1 Faild to call: importer");
    EXPECT_EQ(logs.where("Faild to call: importer"), texts{"3 exec"});

    // nullptr brings the real runner back.
    sc::set_command_runner(nullptr);
    EXPECT_EQ(sc::exec("echo real", true), "real\n");
    EXPECT_EQ(sc::system("exit 2"), 512);
    sc::set_command_runner(previous);
}

}  // namespace
