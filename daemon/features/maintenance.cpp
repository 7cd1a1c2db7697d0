#include "maintenance.hpp"

#include <fmt/format.h>

#include <boost/algorithm/string/trim.hpp>
#include <boost/filesystem/operations.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "client_text.hpp"
#include "maintenance_script.hpp"
#include "msg_log.hpp"
#include "raise.hpp"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace maintenance {

std::string store_hash_tag() {
    const char* tag = std::getenv("REDIS_CONF_HASH_TAG");
    return tag ? tag : "{conf}";
}

host::argv_t migrate_argv(std::string_view hash_tag) {
    host::argv_t argv{"redis-cli", "-p", "50001", "migrate", "localhost", "50003",
                      "",          "0",  "120",   "COPY",    "REPLACE",   "KEYS"};
    for (auto key : KEPT_STORE_KEYS) argv.push_back(fmt::format("{}:{}", hash_tag, key));
    return argv;
}

void run_script(const host::door& door, const host::argv_t& script_and_args,
                std::string_view log_name, const std::string& channel) {
    std::error_code error;
    fs::create_directories(door.file(PERSISTENT_LOG_DIR), error);
    if (error)
        MSG_LOG(3, channel) << "Failed to create the directory with error message: "
                            << error.message() << msg_log::getCodeTrace(__FILE__, __LINE__);

    const std::string error_name =
        boost::filesystem::unique_path("/tmp/%%%%-%%%%-%%%%-%%%%").string();
    const fs::path error_file = door.file(error_name);
    // The script may leave its error file behind; it goes however this call ends.
    struct remover {
        const fs::path& path;
        ~remover() {
            std::error_code ignored;
            fs::remove(path, ignored);
        }
    } remove_error_file{error_file};

    host::argv_t argv{"/bin/bash.bash"};
    argv.insert(argv.end(), script_and_args.begin(), script_and_args.end());
    const host::options opts =
        host::options{}
            .appending_to(std::string(PERSISTENT_LOG_DIR) + std::string(log_name))
            .with_env("ERR_MSG_FILE=" + error_name);
    const std::string command = host::command_text(argv, opts);
    const int result = door.run(argv, opts).status;
    if (result == 0) {
        MSG_LOG(6, channel) << "MSG_PERSISTENT - "
                            << "Successfully executed script: " << command
                            << msg_log::getCodeTrace(__FILE__, __LINE__);
        return;
    }
    MSG_LOG(6, channel) << "MSG_PERSISTENT - "
                        << "Failed to execute script: " << command
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
    if (!fs::exists(error_file)) throw dh_error(-14, "Failed to execute the upgrade script!");

    std::ifstream in(error_file);
    std::string text;
    for (std::string line; std::getline(in, line);) text += line + "\n";
    MSG_LOG(6, channel) << "MSG_PERSISTENT - "
                        << fmt::format("Return code: {} msg: {}", result, text)
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
    throw dh_error(-14, "Failed to execute the upgrade script: " + text);
}

}  // namespace maintenance

namespace {

const host::options quiet = host::options{}.quiet();

constexpr std::string_view kept_dir = "/var/persistent/etc/sw_storage/redis";
constexpr std::string_view keep_copy = "/tmp/keep.aof";

// Removes what a directory holds, keeping the directory.
void empty_directory(const fs::path& dir) {
    std::error_code error;
    for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
        std::error_code ignored;
        fs::remove_all(it->path(), ignored);
    }
}

std::string trimmed(std::string text) {
    boost::algorithm::trim(text);
    return text;
}

}  // namespace

maintenance_unit::maintenance_unit(const host::door& door, datastore_service& ds,
                                   dh::scheduler& sched)
    : door_(door), ds_(ds), sched_(sched) {}

maintenance_unit::~maintenance_unit() {
    std::map<std::uint64_t, dh::scheduler::task_id> delayed;
    {
        std::lock_guard lock(delayed_mutex_);
        delayed = delayed_;
    }
    // Waits for a job that runs; it still finds the unit whole.
    for (const auto& [number, id] : delayed) sched_.cancel(id);
}

void maintenance_unit::later(std::chrono::milliseconds delay, std::function<void()> job) {
    std::lock_guard lock(delayed_mutex_);
    const auto number = ++delayed_count_;
    delayed_[number] = sched_.after(
        delay,
        [this, number, job = std::move(job)] {
            job();
            std::lock_guard lock(delayed_mutex_);
            delayed_.erase(number);
        },
        dh::scheduler::on::pool);
}

void maintenance_unit::run_system_command(const host::argv_t& argv, const host::options& opts) {
    const auto r = door_.run(argv, opts);
    if (r.status != 0 || r.timed_out)
        MSG_LOG(3, "run_system_command")
            << "Unable to run command: " << host::command_text(argv, opts)
            << msg_log::getCodeTrace(__FILE__, __LINE__);
}

bool maintenance_unit::run_reboot_command(const bool&) {
    MSG_LOG(3, "run_reboot_command")
        << "Rebooting the device in 500ms." << msg_log::getCodeTrace(__FILE__, __LINE__);
    later(500ms, [&door = door_] {
        try {
            door.call({"reboot"}, host::in_host());
        } catch (const std::exception& e) {
            MSG_LOG(3, "run_reboot_command") << "Failed to reboot the device, error: " << e.what()
                                             << msg_log::getCodeTrace(__FILE__, __LINE__);
        }
    });
    return true;
}

bool maintenance_unit::wait_until(const std::function<bool()>& ready, int attempts,
                                  std::chrono::milliseconds interval) {
    for (int i = 0; i < attempts; ++i) {
        if (i) sched_.sleep_for(interval);
        if (ready()) return true;
    }
    return false;
}

void maintenance_unit::keep_store_keys() {
    constexpr const char* channel = "factory_defaults";
    run_system_command({"redis-cli", "-p", "50003", "SHUTDOWN"}, quiet);
    run_system_command(
        {"redis-server", "/etc/redis/50001.conf", "--port", "50003", "--cluster-enabled", "no",
         "--dir", std::string(kept_dir), "--appendfilename", "keep.aof"},
        host::options{}.detached());
    auto ask = [&](host::argv_t command) {
        host::argv_t argv{"redis-cli", "-p", "50003"};
        argv.insert(argv.end(), command.begin(), command.end());
        return door_.run(argv, quiet).output;
    };
    if (!wait_until([&] { return trimmed(ask({"PING"})) == "PONG"; }, 100, 50ms))
        dh::raise(-5,
                  "Failed to keep the configuration store keys: the keeping store did not start.",
                  channel);

    const auto migrate = door_.run(maintenance::migrate_argv(maintenance::store_hash_tag()), quiet);
    const std::string answer = trimmed(migrate.output);
    if (migrate.status != 0 || (answer != "OK" && answer != "NOKEY"))
        dh::raise(-5, "Failed to keep the configuration store keys: MIGRATE answered: " + answer,
                  channel);

    ask({"BGREWRITEAOF"});
    const bool rewritten = wait_until(
        [&] {
            const std::string info = ask({"INFO", "persistence"});
            return info.find("aof_rewrite_in_progress:0") != std::string::npos &&
                   info.find("aof_rewrite_scheduled:0") != std::string::npos;
        },
        200, 50ms);
    if (!rewritten)
        dh::raise(-5, "Failed to keep the configuration store keys: the rewrite did not end.",
                  channel);

    std::error_code error;
    fs::create_directories(door_.file(keep_copy).parent_path(), error);
    fs::copy_file(door_.file(std::string(kept_dir) + "/keep.aof"), door_.file(keep_copy),
                  fs::copy_options::overwrite_existing, error);
    if (error)
        dh::raise(-5, "Failed to keep the configuration store keys: " + error.message(), channel);
    if (answer == "OK") {
        std::ifstream in(door_.file(keep_copy));
        std::stringstream kept;
        kept << in.rdbuf();
        for (auto key : maintenance::KEPT_STORE_KEYS)
            if (kept.str().find(key) == std::string::npos)
                dh::raise(-5,
                          fmt::format("Failed to keep the configuration store keys: {} is missing "
                                      "from the kept file.",
                                      key),
                          channel);
    }
}

bool maintenance_unit::restore_factory_defaults(bool reboot, unsigned int level) {
    std::lock_guard lock(mutex_);
    MSG_LOG(6, "factory_defaults")
        << "Restore factory default is staring..." << msg_log::getCodeTrace(__FILE__, __LINE__);
    // Everything that can fail runs before the configuration is touched.
    if (level == 4) keep_store_keys();
    if (level > 1) ds_.replace_startup(ds_.export_checked(datastore::factory_default, {}));
    later(1s, [this, reboot, level] { factory_reset(reboot, level); });
    return true;
}

void maintenance_unit::factory_reset(bool reboot, unsigned int level) {
    if (level <= 1) {
        MSG_LOG(6, "factory_defaults")
            << "Hard factory reset!" << msg_log::getCodeTrace(__FILE__, __LINE__);
        run_system_command({"/sbin/factory", "-r", "-y"}, host::in_host());
        MSG_LOG(6, "factory_defaults") << "Scheduled factory reset pell on next boot."
                                       << msg_log::getCodeTrace(__FILE__, __LINE__);
        if (level == 1) {
            MSG_LOG(6, "factory_defaults") << "Reboot" << msg_log::getCodeTrace(__FILE__, __LINE__);
            run_system_command({"/sbin/reboot"}, host::in_host());
        }
    } else {
        run_system_command({"/etc/init.d/redis-server", "stop"}, quiet);
        run_system_command({"killall", "-9", "redis-server"}, quiet);
        run_system_command({"/etc/init.d/confd-data-provider-init", "stop"}, quiet);
        run_system_command({"/etc/init.d/confd-init", "stop"}, quiet);
        for (auto dir : {"/var/persistent/etc", "/home", "/var/log"})
            empty_directory(door_.file(dir));
        if (level == 4) {
            std::error_code error;
            fs::create_directories(door_.file(kept_dir), error);
            fs::copy_file(door_.file(keep_copy), door_.file(std::string(kept_dir) + "/50001.aof"),
                          fs::copy_options::overwrite_existing, error);
            if (error)
                MSG_LOG(3, "factory_defaults")
                    << "Failed to restore the kept keys: " << error.message()
                    << msg_log::getCodeTrace(__FILE__, __LINE__);
        }
        run_system_command({"/bin/sync"});
        if (reboot) run_system_command({"/sbin/reboot"}, host::in_host());
    }
    MSG_LOG(6, "factory_defaults")
        << "Restore factory default is done." << msg_log::getCodeTrace(__FILE__, __LINE__);
}

bool maintenance_unit::techlog_generate(const Document& doc) {
    constexpr const char* channel = "techlog_generate";
    if (!doc.IsObject() || !doc.HasMember("url") || !doc.HasMember("interface"))
        dh::raise(-22, "Techlog parameters not present.", channel);
    const auto& url_value = doc["url"];
    const auto& interface_value = doc["interface"];
    if (!url_value.IsString() || !interface_value.IsString() ||
        !client_text::is_url({url_value.GetString(), url_value.GetStringLength()}) ||
        !client_text::is_name({interface_value.GetString(), interface_value.GetStringLength()}))
        dh::raise(-22, "Techlog parameters not valid.", channel);

    const std::string url = url_value.GetString();
    const std::string interface = interface_value.GetString();
    std::lock_guard lock(mutex_);
    MSG_LOG(6, channel) << "running techlog script and upload to : " << url
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
    maintenance::run_script(door_, {"/usr/bin/techlog.sh", "/tmp/techlog", url, interface},
                            "/techlog.log", "techlog");
    return false;
}
