#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <boost/filesystem.hpp>

#include "handler_fixture.hpp"
#include "maintenance_script.hpp"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

// Factory resets and reboots finish on detached threads. This binary never gets the real command
// runner back, so a thread that outlives its test still reaches only a fake. The guard is never
// destroyed (a thread may still use it at exit); the global keeps it reachable.
fake_runner::guard* maintenance_backstop = nullptr;

namespace {

struct backstop_runner {
    backstop_runner() {
        if (!maintenance_backstop) maintenance_backstop = new fake_runner::guard();
    }
};

// The backstop base is built first; the test's own fake hands back to it.
class Maintenance : backstop_runner, public handler_test {};

texts operator+(texts a, const texts& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(MaintenanceScript, StoreHashTagDefault) {
    unsetenv("REDIS_CONF_HASH_TAG");
    EXPECT_EQ(maintenance::store_hash_tag(), "{conf}");
}

TEST_F(Maintenance, FactoryDefaultSequencesPerLevel) {
    std::mutex mutex;
    std::vector<std::pair<std::thread::id, std::string>> seen;
    fake->on("", [&](const fake_runner::call& c) {
        std::lock_guard lock(mutex);
        seen.emplace_back(std::this_thread::get_id(), c.cmd);
        const bool exporting = c.cmd.find("--export") != std::string::npos;
        return fake_runner::reply{c.cmd == "/bin/sync" ? 256 : 0, exporting ? "{}" : ""};
    });
    setenv("REDIS_CONF_HASH_TAG", "{h}", 1);
    // (reboot flag, level) as the two nodes pass them. Level 4, whose answer takes longest, goes
    // first, so that all six threads are alive together and no thread id is reused.
    const std::vector<std::pair<bool, unsigned>> runs = {{true, 4}, {true, 0},  {false, 1},
                                                         {true, 2}, {false, 3}, {false, 7}};
    log_capture logs;
    const int threads_before = thread_count();
    for (auto [reboot, level] : runs) {
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_TRUE(handler->restore_factory_defaults(reboot, level));
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 1900ms) << level;
    }
    unsetenv("REDIS_CONF_HASH_TAG");
    ASSERT_TRUE(eventually(
        [&] { return logs.where("Restore factory default is done.").size() == runs.size(); }, 15s));
    ASSERT_TRUE(eventually([&] { return thread_count() == threads_before; }));
    // A failing command is logged and the sequence goes on.
    EXPECT_EQ(logs.where("Unable to run command: /bin/sync"), texts(4, "3 run_system_command"));

    std::lock_guard lock(mutex);
    std::map<std::thread::id, texts> by_thread;
    std::vector<texts> threads;
    for (const auto& [id, cmd] : seen) by_thread[id].push_back(cmd);
    for (const auto& [id, cmds] : by_thread)
        if (id != std::this_thread::get_id()) threads.push_back(cmds);
    const std::string export_cmd = ns + " /bin/sysrepocfg --export -f json -d f ";
    const std::string import_cmd = ns + "sysrepocfg --import -f json -d startup -t 30";
    const texts restore_startup = {export_cmd, import_cmd};
    const texts keep = {
        "redis-cli -p 50003 SHUTDOWN 2>/dev/null",
        "redis-server /etc/redis/50001.conf --port 50003 --cluster-enabled no --dir "
        "/var/persistent/etc/sw_storage/redis --appendfilename keep.aof &",
        "redis-cli -p 50001 migrate localhost 50003 \"\" 0 120 COPY REPLACE KEYS "
        "{h}:dh/sysrepo:config/e28/ipv4Settings {h}:dh/sysrepo:config/dnsSettings "
        "{h}:dh/network:config/dnsSettings",
        "redis-cli -p 50003 BGREWRITEAOF",
        "cp -f /var/persistent/etc/sw_storage/redis/keep.aof /tmp/keep.aof"};
    // Levels 2 and more restore the factory datastore into startup; level 4 also keeps the keys.
    EXPECT_THAT(by_thread[std::this_thread::get_id()],
                ElementsAreArray(restore_startup + keep + restore_startup + restore_startup +
                                 restore_startup));

    const texts wipe = {"/etc/init.d/redis-server stop 2>/dev/null",
                        "killall -9 redis-server 2>/dev/null",
                        "/etc/init.d/confd-data-provider-init stop 2>/dev/null",
                        "/etc/init.d/confd-init stop 2>/dev/null",
                        "rm -rf /var/persistent/etc/* 2>/dev/null",
                        "rm -rf /home/* 2>/dev/null",
                        "rm -rf /var/log/* 2>/dev/null"};
    const texts restore_keys = {
        "mkdir -p /var/persistent/etc/sw_storage/redis/ 2>/dev/null",
        "cp -f /tmp/keep.aof /var/persistent/etc/sw_storage/redis/50001.aof"};
    const texts sync = {"/bin/sync"}, reboot = {ns + "/sbin/reboot"};
    // Threads may run interleaved: compare as a set of sequences.
    EXPECT_THAT(threads, ::testing::UnorderedElementsAre(
                             ElementsAre(ns + "/sbin/factory -r -y"),
                             ElementsAre(ns + "/sbin/factory -r -y", ns + "/sbin/reboot"),
                             ElementsAreArray(wipe + sync + reboot), ElementsAreArray(wipe + sync),
                             ElementsAreArray(wipe + restore_keys + sync + reboot),
                             ElementsAreArray(wipe + sync)));
    for (const auto& c : fake->calls())
        EXPECT_EQ(c.kind, c.cmd == import_cmd   ? fake_runner::call::feed
                          : c.cmd == export_cmd ? fake_runner::call::capture
                                                : fake_runner::call::system)
            << c.cmd;
}

TEST_F(Maintenance, FailedFactoryExportStartsNoThread) {
    fake->on("--export", fake_runner::reply{1, ""});
    EXPECT_EQ(error_of([&] { handler->restore_factory_defaults(true, 4); }),
              "-1 Failed to call: " + ns + " /bin/sysrepocfg --export -f json -d f ");
    EXPECT_EQ(fake->commands().size(), 1u);
}

TEST_F(Maintenance, RebootRunsLaterOnItsOwnThreadAndLogsFailure) {
    log_capture logs;
    fake->on("reboot", fake_runner::reply{1, ""});
    const int threads = thread_count();
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(handler->run_reboot_command(false));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 400ms);
    ASSERT_TRUE(eventually([&] {
        return logs.where("Failed to reboot the device, error: Failed to call: " + ns + "reboot")
                   .size() == 1;
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 500ms);
    ASSERT_TRUE(eventually([&] { return thread_count() == threads; }));
    ASSERT_EQ(fake->calls().size(), 1u);
    EXPECT_EQ(fake->calls()[0].kind, fake_runner::call::capture);
    EXPECT_EQ(logs.where("Rebooting the device in 500ms."), texts{"3 run_reboot_command"});
}

TEST_F(Maintenance, TechlogRefusesBadDocumentsBeforeRunning) {
    const auto refusal = [&](const char* json) {
        return error_of([&] { handler->techlog_generate(parse(json)); });
    };
    for (const char* json : {R"({"url":"u"})", R"({"interface":"e1"})", R"([1])"})
        EXPECT_EQ(refusal(json), "-22 Techlog parameters not present.") << json;
    // Both texts go unquoted into a shell command line (the URL rule is shared with images).
    for (const char* json :
         {R"j({"url":5,"interface":"e1"})j", R"j({"url":"u","interface":["e1"]})j",
          R"j({"url":"u;touch /tmp/x","interface":"e1"})j", R"j({"url":"u","interface":"e1 x"})j"})
        EXPECT_EQ(refusal(json), "-22 Techlog parameters not valid.") << json;
    EXPECT_TRUE(fake->calls().empty());
}

TEST_F(Maintenance, ScriptOutcomesAndErrorFile) {
    namespace fs = boost::filesystem;
    const auto dir = fs::temp_directory_path() / fs::unique_path("maintenance-test-%%%%-%%%%");
    const auto log_dir = (dir / "log").string();
    std::string error_file;
    int outcome = 0;  // 0 success, 1 failure, 2 failure with an error file
    fake->on("ERR_MSG_FILE", [&](const fake_runner::call& c) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(
            c.cmd, m,
            std::regex("ERR_MSG_FILE='(/tmp/[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4})' "
                       "/bin/bash.bash /usr/bin/techlog.sh /tmp/techlog u e1 &>> " +
                       log_dir + "/techlog.log")))
            << c.cmd;
        error_file = m[1];
        if (outcome == 2) std::ofstream(error_file) << "first line\nsecond line\n";
        return fake_runner::reply{outcome == 0 ? 0 : 256, ""};
    });
    log_capture logs;
    const auto run = [&] {
        maintenance::run_script("/usr/bin/techlog.sh /tmp/techlog u e1", log_dir, "/techlog.log",
                                "techlog");
    };
    run();
    EXPECT_TRUE(fs::is_directory(log_dir));
    EXPECT_EQ(logs.where("MSG_PERSISTENT - Successfully executed script: ERR_MSG_FILE=").size(),
              1u);
    outcome = 1;
    EXPECT_EQ(error_of(run), "-14 Failed to execute the upgrade script!");
    outcome = 2;
    EXPECT_EQ(error_of(run), "-14 Failed to execute the upgrade script: first line\nsecond line\n");
    EXPECT_FALSE(fs::exists(error_file));
    EXPECT_EQ(logs.where("MSG_PERSISTENT - Return code: 256 msg: first line\nsecond"),
              texts{"6 techlog"});
    EXPECT_EQ(logs.where("MSG_PERSISTENT - Failed to execute script: ").size(), 2u);
    fs::remove_all(dir);
}

}  // namespace
