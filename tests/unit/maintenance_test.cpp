#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "handler_fixture.hpp"
#include "maintenance.hpp"
#include "maintenance_script.hpp"

// The maintenance unit on its own, on a manual scheduler: delayed work and the waits for the
// keeping store move the test's clock, so nothing here sleeps.

namespace {

class Maintenance : public testing::Test {
  protected:
    temp_root root;
    std::shared_ptr<fake_executor> fake = std::make_shared<fake_executor>();
    host::door door{fake, root.path()};
    datastore_service ds{door};
    dh::manual_scheduler sched;
    maintenance_unit unit{door, ds, sched};

    // The store answers as a healthy one does.
    void healthy_store() {
        fake->on("50003 PING", fake_executor::reply{0, "PONG\n"});
        fake->on("migrate", fake_executor::reply{0, "OK\n"});
        fake->on("INFO persistence", fake_executor::reply{0,
                                                          "aof_rewrite_in_progress:0\r\n"
                                                          "aof_rewrite_scheduled:0\r\n"});
        std::string kept;
        for (auto key : maintenance::KEPT_STORE_KEYS) kept += "{h}:" + std::string(key) + "\n";
        root.write("/var/persistent/etc/sw_storage/redis/keep.aof", kept);
        setenv("REDIS_CONF_HASH_TAG", "{h}", 1);
    }
    void canaries() {
        for (auto f : {"/home/u/a", "/var/log/b", "/var/persistent/etc/c"}) root.write(f, "x");
    }
    std::string canary_text() {
        return root.read("/home/u/a") + root.read("/var/log/b") +
               root.read("/var/persistent/etc/c");
    }
};

TEST_F(Maintenance, FactoryDefaultLevelsAnswerFirstAndWipeLater) {
    healthy_store();
    fake->on("--export", fake_executor::reply{0, R"({"f:f":1})"});
    const std::string import_startup = ns + "sysrepocfg --import -f json -d startup -t 30";
    const std::string wipe_steps[] = {"/etc/init.d/redis-server stop", "killall -9 redis-server",
                                      "/etc/init.d/confd-data-provider-init stop",
                                      "/etc/init.d/confd-init stop", "/bin/sync"};
    for (auto [reboot, level] : std::vector<std::pair<bool, unsigned>>{
             {true, 0}, {false, 1}, {true, 2}, {false, 4}, {true, 4}}) {
        SCOPED_TRACE(std::to_string(level) + (reboot ? " reboot" : ""));
        fake->clear();
        canaries();
        healthy_store();  // a wipe took the store's files
        EXPECT_TRUE(unit.restore_factory_defaults(reboot, level));
        // Answered: the factory configuration is in startup, nothing is wiped for a second.
        EXPECT_EQ(fake->inputs(import_startup), level > 1 ? texts{R"({"f:f":1})"} : texts{});
        fake->clear();
        sched.advance(999ms);
        EXPECT_TRUE(fake->calls().empty());
        EXPECT_EQ(canary_text(), "xxx");

        sched.advance(1ms);
        const texts ran = fake->commands();
        if (level <= 1) {
            texts expected{ns + "/sbin/factory -r -y"};
            if (level == 1) expected.push_back(ns + "/sbin/reboot");
            EXPECT_EQ(ran, expected);
            EXPECT_EQ(canary_text(), "xxx");
            continue;
        }
        texts expected(std::begin(wipe_steps), std::end(wipe_steps));
        if (reboot) expected.push_back(ns + "/sbin/reboot");
        EXPECT_EQ(ran, expected);
        EXPECT_EQ(canary_text(), "absentabsentabsent");
        // The kept keys become the store's file.
        EXPECT_EQ(root.read("/var/persistent/etc/sw_storage/redis/50001.aof") != "absent",
                  level == 4);
    }
}

TEST_F(Maintenance, Level4RefusesAndWipesNothingWhenTheKeysCannotBeKept) {
    dh::clock::duration waited{};
    const auto refused = [&](const std::string& text) {
        fake->clear();
        canaries();
        const auto began = sched.time().now();
        EXPECT_EQ(error_of([&] { unit.restore_factory_defaults(true, 4); }),
                  "-5 Failed to keep the configuration store keys: " + text);
        waited = sched.time().now() - began;
        const auto commands = fake->calls().size();
        sched.advance(1min);  // nothing was left to run later
        EXPECT_EQ(fake->calls().size(), commands);
        EXPECT_EQ(fake->count("--import"), 0u);
        EXPECT_EQ(canary_text(), "xxx");
    };
    // The keeping instance never answers: it is asked every 50 ms for 5 s, then given up.
    refused("the keeping store did not start.");
    EXPECT_EQ(fake->count("50003 PING"), 100u);
    EXPECT_EQ(waited, 99 * 50ms);

    healthy_store();
    fake->on("migrate", fake_executor::reply{0, "IOERR error or timeout writing to target\n"});
    refused("MIGRATE answered: IOERR error or timeout writing to target");

    healthy_store();
    fake->on("INFO persistence", fake_executor::reply{0, "aof_rewrite_in_progress:1\r\n"});
    refused("the rewrite did not end.");
    EXPECT_EQ(waited, 199 * 50ms);

    healthy_store();
    root.write("/var/persistent/etc/sw_storage/redis/keep.aof",
               "{h}:dh/sysrepo:config/dnsSettings");
    refused("dh/sysrepo:config/e28/ipv4Settings is missing from the kept file.");

    // Once everything answers, the keeping instance is started without being waited for.
    healthy_store();
    fake->on("--export", fake_executor::reply{0, "{}"});
    fake->clear();
    EXPECT_TRUE(unit.restore_factory_defaults(false, 4));
    const auto calls = fake->calls();
    EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const auto& c) {
        return c.cmd.starts_with("redis-server ") && c.opts.detach;
    }));
}

TEST_F(Maintenance, RebootRunsHalfASecondLater) {
    EXPECT_TRUE(unit.run_reboot_command(true));
    sched.advance(499ms);
    EXPECT_TRUE(fake->calls().empty());
    sched.advance(1ms);
    EXPECT_EQ(fake->commands(), texts{ns + "reboot"});

    // A unit that goes takes its delayed work with it.
    fake->clear();
    {
        maintenance_unit gone{door, ds, sched};
        gone.run_reboot_command(true);
        gone.restore_factory_defaults(true, 0);
    }
    sched.advance(1min);
    EXPECT_TRUE(fake->calls().empty());
}

TEST_F(Maintenance, TechlogRefusesBadDocumentsBeforeRunning) {
    const auto refusal = [&](const std::string& json) {
        return error_of([&] { unit.techlog_generate(parse(json)); });
    };
    for (const char* json : {R"({"url":"u"})", R"({"interface":"e1"})", R"([1])"})
        EXPECT_EQ(refusal(json), "-22 Techlog parameters not present.") << json;
    // Neither text may become an option, a wildcard or more than one word.
    for (const char* json :
         {R"j({"url":5,"interface":"e1"})j", R"j({"url":"u","interface":["e1"]})j",
          R"j({"url":"u;touch /tmp/x","interface":"e1"})j", R"j({"url":"u","interface":"e1 x"})j",
          R"j({"url":"/*","interface":"e1"})j", R"j({"url":"-x","interface":"e1"})j",
          R"j({"url":"u","interface":"e?"})j", R"j({"url":"u\u0000v","interface":"e1"})j"})
        EXPECT_EQ(refusal(json), "-22 Techlog parameters not valid.") << json;
    EXPECT_TRUE(fake->calls().empty());
}

// A script that writes its error file is run in the simulated device.
TEST_F(Maintenance, ScriptOutcomes) {
    bool fails = false;
    fake->on("techlog.sh", [&](const fake_executor::call& c) {
        EXPECT_EQ(c.argv, (host::argv_t{"/bin/bash.bash", "/usr/bin/techlog.sh", "/tmp/techlog",
                                        "sftp://h/x?y=1", "e1"}));
        EXPECT_EQ(c.opts.output_file, "/var/persistent/log/techlog.log");
        EXPECT_THAT(c.opts.env,
                    ::testing::ElementsAre(::testing::MatchesRegex(
                        "ERR_MSG_FILE=/tmp/[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}")));
        return fake_executor::reply{fails ? 256 : 0, ""};
    });
    const auto run = [&] {
        return unit.techlog_generate(parse(R"({"url":"sftp://h/x?y=1","interface":"e1"})"));
    };
    EXPECT_FALSE(run());
    EXPECT_TRUE(std::filesystem::is_directory(root.path() / "var/persistent/log"));
    fails = true;
    EXPECT_EQ(error_of(run), "-14 Failed to execute the upgrade script!");
}

}  // namespace
