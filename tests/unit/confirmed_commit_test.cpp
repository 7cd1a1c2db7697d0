#include <filesystem>
#include <mutex>
#include <shared_mutex>
#include <string>

#include <gmock/gmock.h>

#include "handler_fixture.hpp"

// Confirmed commits: rolled back through the parameters' setters at the timeout or at the next
// start, kept by a confirm with the right token; every other write waits meanwhile.

namespace {

const std::string state_file = "/var/persistent/etc/device-handler/pending-commit.json";
const std::string old_dns =
    R"({"primaryDnsIpAddress":"10.0.0.53","secondaryDnsIpAddress":"fd00::53"})";

class ConfirmedCommit : public handler_test {
  protected:
    void SetUp() override { start_handler(); }
    // The handler goes before the node tree of a restart that it registered into.
    void TearDown() override { handler.reset(); }

    // Applies the updates as the server does for a write with confirm_timeout.
    std::string commit(const updates& list, std::chrono::seconds timeout = 30s) {
        std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
        for (const auto& u : list) nodes.push_back(db.find_leaf_node(u.first));
        std::unique_lock gate(dh::write_batch::gate());
        return handler->commits()->commit_confirmed(nodes, timeout, [&] {
            const std::string outcome = write_together(list);
            if (outcome != "ok") throw dh_error(-22, outcome);
        });
    }
    std::string status() { return read_node(db, "data/commitStatus"); }
    std::string write_allowed() {
        return error_of([&] { handler->commits()->check_write_allowed(); });
    }

    dh_db db_after_restart;
    const updates change = {{"config/ntp/primaryServer", R"("192.0.2.1")"},
                            {"config/dnsSettings", R"({"primaryDnsIpAddress":"192.0.2.53"})"}};
};

// A refused change leaves nothing pending: the rollback below is the only one.
TEST_F(ConfirmedCommit, WithoutConfirmItIsRolledBackAtTheTimeout) {
    EXPECT_EQ(error_of([&] {
                  commit({{"config/ntp/primaryServer", R"("no host!")"}});
              }),
              "-22 0 -22 Invalid NTP server address: no host!");
    EXPECT_EQ(root.read(state_file), "absent");
    EXPECT_EQ(status(), R"({"state":"idle"})");
    EXPECT_EQ(write_allowed(), "no error");

    const std::string token = commit(change);
    EXPECT_THAT(token, ::testing::MatchesRegex("[0-9a-f]{32}"));
    EXPECT_EQ(status(), R"({"state":"pending","token":")" + token +
                            R"(","paths":["config/ntp/primaryServer","config/dnsSettings"],)"
                            R"("timeout":30})");
    EXPECT_EQ(write_allowed(),
              "-16 A confirmed commit awaits confirmation: confirm it or wait for its rollback");

    // The device now holds the change.
    keep_last_import();
    fake->clear();
    sched.advance(29s);
    EXPECT_EQ(fake->count("--import"), 0u);
    sched.advance(1s);

    // The captured documents go back, the values through their setters (and their effects).
    EXPECT_EQ(imports("running"), texts{to_json(running_doc())});
    EXPECT_EQ(imports("startup"), texts{to_json(running_doc())});
    EXPECT_EQ(read_node(db, "config/ntp/primaryServer"), R"("10.0.0.1")");
    EXPECT_EQ(read_node(db, "config/dnsSettings"), old_dns);
    EXPECT_EQ(fake->count("/etc/init.d/ntpd restart"), 1u);
    // The restored values were published as changes.
    const auto history = to_json(db.history(3));
    EXPECT_NE(history.find(R"("path":"config/ntp/primaryServer","value":"10.0.0.1")"),
              std::string::npos)
        << history;

    EXPECT_EQ(root.read(state_file), "absent");
    EXPECT_EQ(write_allowed(), "no error");
}

TEST_F(ConfirmedCommit, TheRightTokenKeepsTheCommit) {
    const std::string token = commit(change);
    EXPECT_EQ(error_of([&] { handler->commits()->confirm("0123"); }), "-22 Unknown commit token");
    EXPECT_EQ(error_of([&] { handler->commits()->confirm(token); }), "no error");
    EXPECT_EQ(root.read(state_file), "absent");
    EXPECT_EQ(write_allowed(), "no error");

    fake->clear();
    sched.advance(60s);
    EXPECT_EQ(fake->count("--import"), 0u);
    EXPECT_EQ(read_node(db, "config/ntp/primaryServer"), R"("192.0.2.1")");
    EXPECT_EQ(error_of([&] { handler->commits()->confirm(token); }),
              "-2 No commit awaits confirmation");
}

TEST_F(ConfirmedCommit, APendingCommitIsRolledBackAtTheNextStart) {
    const std::string token = commit(change);

    // The daemon stops and starts again on the changed configuration.
    handler.reset();
    fake->clear();
    handler = std::make_unique<sysrepo_device_handler>(db_after_restart, fake, sched, root.path());
    handler->start();

    EXPECT_EQ(imports("running"), texts{to_json(running_doc())});
    EXPECT_EQ(imports("startup"), texts{to_json(running_doc())});
    EXPECT_EQ(read_node(db_after_restart, "config/ntp/primaryServer"), R"("10.0.0.1")");
    EXPECT_EQ(read_node(db_after_restart, "config/dnsSettings"), old_dns);
    EXPECT_EQ(read_node(db_after_restart, "data/commitStatus"),
              R"({"state":"rolledBack","token":")" + token +
                  R"(","paths":["config/ntp/primaryServer","config/dnsSettings"],)"
                  R"("reason":"restart"})");
    EXPECT_EQ(root.read(state_file), "absent");
}

}  // namespace
