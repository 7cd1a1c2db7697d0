#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "dh_error.hpp"
#include "fake_runner.hpp"
#include "log_capture.hpp"
#include "maintenance_script.hpp"
#include "sysrepo_device_handler.hpp"

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

const std::string ns = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net ";

// Factory resets run `rm -rf /home/*` and `reboot` on detached threads. This binary never gets
// the real command runner back, so a thread that outlives its test still reaches only a fake.
bool install_backstop_runner() {
    static auto* backstop = new fake_runner::guard();
    return backstop != nullptr;
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

// Records the commands of each thread in order.
struct per_thread_commands {
    std::mutex mutex;
    std::map<std::thread::id, std::vector<std::string>> by_thread;
    std::vector<std::thread::id> order;

    fake_runner::reply record(const fake_runner::call& c) {
        {
            std::lock_guard lock(mutex);
            const auto id = std::this_thread::get_id();
            if (!by_thread.count(id)) order.push_back(id);
            by_thread[id].push_back(c.cmd);
        }
        if (c.cmd.find("--export") != std::string::npos)
            return {0, R"({"ietf-interfaces:interfaces":{"interface":[]}})"};
        return {};
    }
};

struct maintenance_fixture : ::testing::Test {
    // Before the test's own fake, which hands back to the backstop when it goes.
    const bool backstop = install_backstop_runner();
    fake_runner::guard fake;
    dh_db db;
    std::shared_ptr<sysrepo_device_handler> handler = std::make_shared<sysrepo_device_handler>(db);
};

const std::vector<std::string> wipe = {"/etc/init.d/redis-server stop 2>/dev/null",
                                       "killall -9 redis-server 2>/dev/null",
                                       "/etc/init.d/confd-data-provider-init stop 2>/dev/null",
                                       "/etc/init.d/confd-init stop 2>/dev/null",
                                       "rm -rf /var/persistent/etc/* 2>/dev/null",
                                       "rm -rf /home/* 2>/dev/null",
                                       "rm -rf /var/log/* 2>/dev/null"};

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::string temp_dir() {
    auto dir = boost::filesystem::temp_directory_path() /
               boost::filesystem::unique_path("maintenance-test-%%%%-%%%%");
    return dir.string();
}

}  // namespace

TEST(MaintenanceScript, CommandTextsAndStoreKeys) {
    EXPECT_EQ(maintenance::script_command("/tmp/e", "/usr/bin/techlog.sh /tmp/techlog u e1",
                                          "/var/persistent/log/techlog.log"),
              "ERR_MSG_FILE='/tmp/e' /bin/bash.bash /usr/bin/techlog.sh /tmp/techlog u e1 &>> "
              "/var/persistent/log/techlog.log");
    EXPECT_EQ(maintenance::migrate_command("{t}"),
              "redis-cli -p 50001 migrate localhost 50003 \"\" 0 120 COPY REPLACE KEYS "
              "{t}:dh/sysrepo:config/e28/ipv4Settings {t}:dh/sysrepo:config/dnsSettings "
              "{t}:dh/network:config/dnsSettings");
    unsetenv("REDIS_CONF_HASH_TAG");
    EXPECT_EQ(maintenance::store_hash_tag(), "{conf}");
    setenv("REDIS_CONF_HASH_TAG", "{dh}", 1);
    EXPECT_EQ(maintenance::store_hash_tag(), "{dh}");
    unsetenv("REDIS_CONF_HASH_TAG");
}

TEST_F(maintenance_fixture, FactoryDefaultSequencesPerLevel) {
    per_thread_commands rec;
    fake->on("", [&](const fake_runner::call& c) { return rec.record(c); });
    setenv("REDIS_CONF_HASH_TAG", "{h}", 1);

    // (reboot flag, level) as the two nodes pass them. Level 4, whose answer takes longest, goes
    // first, so that all six threads are alive together and no thread id is reused.
    const std::vector<std::pair<bool, unsigned>> runs = {{true, 4}, {true, 0},  {false, 1},
                                                         {true, 2}, {false, 3}, {false, 7}};
    log_capture logs;
    for (auto [reboot, level] : runs) {
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_TRUE(handler->restore_factory_defaults(reboot, level));
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 1s + 900ms) << level;
    }
    unsetenv("REDIS_CONF_HASH_TAG");

    const auto deadline = std::chrono::steady_clock::now() + 15s;
    while (logs.find("Restore factory default is done.").size() < runs.size() &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    ASSERT_EQ(logs.find("Restore factory default is done.").size(), runs.size());

    std::lock_guard lock(rec.mutex);
    const auto main_id = std::this_thread::get_id();
    const std::string export_cmd = ns + " /bin/sysrepocfg --export -f json -d f ";
    const std::string import_cmd = ns + "sysrepocfg --import -f json -d startup -t 30";
    const std::vector<std::string> keep = {
        "redis-cli -p 50003 SHUTDOWN 2>/dev/null",
        "redis-server /etc/redis/50001.conf --port 50003 --cluster-enabled no --dir "
        "/var/persistent/etc/sw_storage/redis --appendfilename keep.aof &",
        "redis-cli -p 50001 migrate localhost 50003 \"\" 0 120 COPY REPLACE KEYS "
        "{h}:dh/sysrepo:config/e28/ipv4Settings {h}:dh/sysrepo:config/dnsSettings "
        "{h}:dh/network:config/dnsSettings",
        "redis-cli -p 50003 BGREWRITEAOF",
        "cp -f /var/persistent/etc/sw_storage/redis/keep.aof /tmp/keep.aof"};
    const std::vector<std::string> restore_startup = {export_cmd, import_cmd};
    // Levels 2 and more restore the factory datastore into startup; level 4 also keeps the keys.
    EXPECT_THAT(rec.by_thread[main_id], ElementsAreArray(restore_startup + keep + restore_startup +
                                                         restore_startup + restore_startup));

    std::vector<std::vector<std::string>> threads;
    for (auto id : rec.order)
        if (id != main_id) threads.push_back(rec.by_thread[id]);
    ASSERT_EQ(threads.size(), runs.size());
    const auto restore = std::vector<std::string>{
        "mkdir -p /var/persistent/etc/sw_storage/redis/ 2>/dev/null",
        "cp -f /tmp/keep.aof /var/persistent/etc/sw_storage/redis/50001.aof"};
    // Threads start in call order but may run interleaved: compare as a set of sequences.
    EXPECT_THAT(
        threads,
        ::testing::UnorderedElementsAre(
            ElementsAre(ns + "/sbin/factory -r -y"),
            ElementsAre(ns + "/sbin/factory -r -y", ns + "/sbin/reboot"),
            ElementsAreArray(wipe + std::vector<std::string>{"/bin/sync", ns + "/sbin/reboot"}),
            ElementsAreArray(wipe + std::vector<std::string>{"/bin/sync"}),
            ElementsAreArray(wipe + restore +
                             std::vector<std::string>{"/bin/sync", ns + "/sbin/reboot"}),
            ElementsAreArray(wipe + std::vector<std::string>{"/bin/sync"})));
    for (const auto& c : fake->calls()) {
        const bool through_import = c.cmd == import_cmd, through_export = c.cmd == export_cmd;
        EXPECT_EQ(c.kind, through_import   ? fake_runner::call::feed
                          : through_export ? fake_runner::call::capture
                                           : fake_runner::call::system)
            << c.cmd;
    }
}

TEST_F(maintenance_fixture, FailedFactoryExportStartsNoThread) {
    fake->on("--export", fake_runner::reply{1, ""});
    EXPECT_EQ(catch_dh_error([&] { handler->restore_factory_defaults(true, 4); }).message(),
              "Failed to call: " + ns + " /bin/sysrepocfg --export -f json -d f ");
    EXPECT_EQ(fake->commands().size(), 1u);
}

TEST_F(maintenance_fixture, RebootRunsLaterOnItsOwnThreadAndLogsFailure) {
    log_capture logs;
    std::mutex m;
    std::condition_variable cv;
    bool rebooted = false;
    fake->on("reboot", [&](const fake_runner::call&) {
        {
            std::lock_guard lock(m);
            rebooted = true;
        }
        cv.notify_all();
        return fake_runner::reply{1, ""};
    });
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(handler->run_reboot_command(false));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 400ms);
    {
        std::unique_lock lock(m);
        ASSERT_TRUE(cv.wait_for(lock, 5s, [&] { return rebooted; }));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 500ms);
    EXPECT_THAT(fake->calls().at(0).cmd, ns + "reboot");
    EXPECT_EQ(fake->calls().at(0).kind, fake_runner::call::capture);

    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (
        logs.find("Failed to reboot the device, error: Failed to call: " + ns + "reboot").empty() &&
        std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(logs.find("Failed to reboot the device, error: ").size(), 1u);
    EXPECT_EQ(logs.find("Rebooting the device in 500ms.").at(0).severity, 3);
}

TEST_F(maintenance_fixture, PlainRunnerLogsNonZeroResults) {
    log_capture logs;
    fake->on("false", fake_runner::reply{256, ""});
    sysrepo_device_handler::run_system_command("false");
    sysrepo_device_handler::run_system_command("true");
    EXPECT_THAT(fake->commands(), ElementsAre("false", "true"));
    const auto failed = logs.find("Unable to run command: ");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].message.substr(0, 28), "Unable to run command: false");
    EXPECT_EQ(failed[0].severity, 3);
}

TEST_F(maintenance_fixture, TechlogRefusesBadDocumentsBeforeRunning) {
    const auto refuse = [&](const char* json) {
        Document doc;
        doc.Parse(json);
        return catch_dh_error([&] { handler->techlog_generate(doc); });
    };
    for (const char* json : {R"({"url":"u"})", R"({"interface":"e1"})", R"([1])"}) {
        const auto e = refuse(json);
        EXPECT_EQ(e.code(), -22);
        EXPECT_EQ(e.message(), "Techlog parameters not present.") << json;
    }
    for (const char* json :
         {R"j({"url":5,"interface":"e1"})j", R"j({"url":"u","interface":["e1"]})j",
          R"j({"url":"u;touch /tmp/x","interface":"e1"})j", R"j({"url":"u","interface":"e1 x"})j",
          R"j({"url":"u$(id)","interface":"e1"})j", R"j({"url":"u","interface":"e1&"})j",
          R"j({"url":"u","interface":"e1\n"})j", R"j({"url":"'u'","interface":"e1"})j"}) {
        const auto e = refuse(json);
        EXPECT_EQ(e.code(), -22);
        EXPECT_EQ(e.message(), "Techlog parameters not valid.") << json;
    }
    EXPECT_TRUE(fake->calls().empty());
}

TEST_F(maintenance_fixture, ScriptOutcomesAndErrorFile) {
    const auto dir = temp_dir();
    const auto log_dir = dir + "/log";
    std::string error_file;
    int status = 0;
    fake->on("ERR_MSG_FILE", [&](const fake_runner::call& c) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(
            c.cmd, m,
            std::regex("ERR_MSG_FILE='(/tmp/[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4})' "
                       "/bin/bash.bash /usr/bin/techlog.sh /tmp/techlog u e1 &>> " +
                       log_dir + "/techlog.log")))
            << c.cmd;
        error_file = m[1];
        if (status == 2) std::ofstream(error_file) << "first line\nsecond line\n";
        return fake_runner::reply{status == 0 ? 0 : 256, ""};
    });
    log_capture logs;
    const auto run = [&] {
        maintenance::run_script("/usr/bin/techlog.sh /tmp/techlog u e1", log_dir, "/techlog.log",
                                "techlog");
    };

    run();
    EXPECT_TRUE(boost::filesystem::is_directory(log_dir));
    EXPECT_EQ(logs.find("MSG_PERSISTENT - Successfully executed script: ERR_MSG_FILE=").size(), 1u);

    status = 1;
    auto e = catch_dh_error(run);
    EXPECT_EQ(e.code(), -14);
    EXPECT_EQ(e.message(), "Failed to execute the upgrade script!");

    status = 2;
    e = catch_dh_error(run);
    EXPECT_EQ(e.code(), -14);
    EXPECT_EQ(e.message(), "Failed to execute the upgrade script: first line\nsecond line\n");
    EXPECT_FALSE(boost::filesystem::exists(error_file));
    const auto detail = logs.find("MSG_PERSISTENT - Return code: 256 msg: first line\nsecond");
    ASSERT_EQ(detail.size(), 1u);
    EXPECT_EQ(detail[0].channel, "techlog");
    EXPECT_EQ(detail[0].severity, 6);
    EXPECT_EQ(logs.find("MSG_PERSISTENT - Failed to execute script: ").size(), 2u);
    boost::filesystem::remove_all(dir);
}
