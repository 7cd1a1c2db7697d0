#include "door.hpp"

#include "handler_fixture.hpp"
#include "metric_sample.hpp"

// The real executor, with real processes: capture, standard input, the failure rule, timeouts,
// output files, environment and detached children.

namespace {

class Door : public testing::Test {
  protected:
    temp_root root;
    host::door door{host::spawn_executor(), root.path()};
};

TEST_F(Door, RunsArgvWithoutAShellAndFeedsStandardInput) {
    // Words reach the program as they are: no splitting, no globbing, no substitution.
    EXPECT_EQ(door.call({"printf", "%s|", "a b", "*", "$(id)", "'"}), "a b|*|$(id)|'|");
    EXPECT_EQ(door.call({"cat"}, host::options{}.feeding("line 1\nline 2")), "line 1\nline 2");
    // A large input and output cross in both pipes without a deadlock.
    const std::string big(1 << 20, 'x');
    EXPECT_EQ(door.call({"cat"}, host::options{}.feeding(big)).size(), big.size());
    // A command that does not read its input still ends normally.
    EXPECT_EQ(door.run({"true"}, host::options{}.feeding(big)).status, 0);
    EXPECT_EQ(door.call({"printenv", "DH_TEST"}, host::options{}.with_env("DH_TEST=on 1")),
              "on 1\n");
}

// Every command is also counted by tool and outcome, and timed.
TEST_F(Door, EveryFailureFollowsOneRuleAndIsCounted) {
    const auto count = [](const char* tool, const char* outcome) {
        return metric_count("dh_host_commands_total", {{"tool", tool}, {"outcome", outcome}});
    };
    const auto counts = [&] {
        return std::vector<double>{count("true", "ok"), count("false", "failed"),
                                   count("no-such-tool-here", "not_started"),
                                   count("sleep", "timed_out")};
    };
    auto expected = counts();
    for (auto& n : expected) ++n;
    door.call({"/bin/true"});
    EXPECT_EQ(error_of([&] { door.call({"false"}); }), "-1 Failed to call: false");
    EXPECT_EQ(error_of([&] {
                  door.call({"no-such-tool-here", "x y"}, {}, false);
              }),
              "-1 Failed to call: no-such-tool-here 'x y'");

    const auto slept = std::chrono::steady_clock::now();
    EXPECT_EQ(error_of([&] {
                  door.call({"sleep", "5"}, host::options{}.limited_to(50ms));
              }),
              "-1 Failed to call: sleep 5");
    EXPECT_LT(std::chrono::steady_clock::now() - slept, 2s);
    EXPECT_EQ(counts(), expected);
    const auto sleep = metric_sample("dh_host_command_duration_seconds", {{"tool", "sleep"}});
    ASSERT_TRUE(sleep);
    EXPECT_GE(sleep->histogram.sample_sum, 0.05);

    // Datastore imports answer the raw wait status, as their callers always have.
    EXPECT_EQ(error_of([&] {
                  door.call_status_coded({"sh", "-c", "cat >/dev/null; exit 3"},
                                         host::options{}.feeding("{}"));
              }),
              "768 Failed to call: sh -c 'cat >/dev/null; exit 3'");
    EXPECT_EQ(error_of([&] { door.call_status_coded({"no-such-importer"}, {}); }),
              "-1 Faild to call: no-such-importer");
}

TEST_F(Door, OutputFilesDetachedChildrenAndTheFilesystemRoot) {
    EXPECT_EQ(door.file("/etc/resolv.conf"), root.path() / "etc/resolv.conf");
    const auto log = door.file("/out.log");
    door.call({"sh", "-c", "echo out; echo err >&2"}, host::options{}.appending_to(log.string()));
    door.call({"echo", "again"}, host::options{}.appending_to(log.string()));
    EXPECT_EQ(root.read("/out.log"), "out\nerr\nagain\n");

    // A detached child is not waited for.
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(door.run({"sleep", "0.2"}, host::options{}.detached()).status, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 150ms);
}

TEST(CommandText, QuotesWhatAShellWouldReadAndShowsThePrefixAndEnvironment) {
    EXPECT_EQ(host::command_text({"klish", "-c", "show ospf neighbor"}, host::in_host()),
              ns + "klish -c 'show ospf neighbor'");
    EXPECT_EQ(host::command_text({"a", "it's", ""}, host::options{}.with_env("E=/tmp/x y")),
              "E='/tmp/x y' a 'it'\\''s' ''");
}

}  // namespace
