#include <fmt/format.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "dh_error.hpp"
#include "maintenance_script.hpp"
#include "msg_log.hpp"
#include "shell_word.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"

using namespace std::chrono_literals;
namespace fs = boost::filesystem;

namespace maintenance {

std::string store_hash_tag() {
    const char* tag = std::getenv("REDIS_CONF_HASH_TAG");
    return tag ? tag : "{conf}";
}

std::string migrate_command(std::string_view hash_tag) {
    std::string cmd = "redis-cli -p 50001 migrate localhost 50003 \"\" 0 120 COPY REPLACE KEYS";
    for (auto key : KEPT_STORE_KEYS) cmd += fmt::format(" {}:{}", hash_tag, key);
    return cmd;
}

std::string script_command(std::string_view error_file, std::string_view script_and_args,
                           std::string_view log_file) {
    return fmt::format("ERR_MSG_FILE='{}' /bin/bash.bash {} &>> {}", error_file, script_and_args,
                       log_file);
}

void run_script(std::string_view script_and_args, std::string_view log_dir,
                std::string_view log_name, const std::string& channel) {
    try {
        if (!fs::exists(std::string(log_dir))) fs::create_directories(std::string(log_dir));
    } catch (const std::exception& e) {
        MSG_LOG(3, channel) << "Failed to create the directory with error message: " << e.what()
                            << msg_log::getCodeTrace(__FILE__, __LINE__);
    }

    const auto error_file = fs::unique_path("/tmp/%%%%-%%%%-%%%%-%%%%");
    // The script may leave its error file behind; it goes however this call ends.
    struct remover {
        const fs::path& path;
        ~remover() {
            boost::system::error_code ignored;
            fs::remove(path, ignored);
        }
    } remove_error_file{error_file};

    const auto command = script_command(error_file.string(), script_and_args,
                                        std::string(log_dir) + std::string(log_name));
    const int result = sysrepo_common::system(command);
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

    std::ifstream in(error_file.string());
    std::string text;
    for (std::string line; std::getline(in, line);) text += line + "\n";
    MSG_LOG(6, channel) << "MSG_PERSISTENT - "
                        << fmt::format("Return code: {} msg: {}", result, text)
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
    throw dh_error(-14, "Failed to execute the upgrade script: " + text);
}

}  // namespace maintenance

void sysrepo_device_handler::run_system_command(const char* command) {
    std::this_thread::sleep_for(100ms);
    if (sysrepo_common::system(command) != 0)
        MSG_LOG(3, "run_system_command")
            << "Unable to run command: " << command << msg_log::getCodeTrace(__FILE__, __LINE__);
}

bool sysrepo_device_handler::run_reboot_command(const bool&) {
    std::thread([] {
        MSG_LOG(3, "run_reboot_command")
            << "Rebooting the device in 500ms." << msg_log::getCodeTrace(__FILE__, __LINE__);
        std::this_thread::sleep_for(500ms);
        try {
            sysrepo_common::exec(sysrepo_common::NSENTER_CMD + "reboot", true);
        } catch (const std::exception& e) {
            MSG_LOG(3, "run_reboot_command") << "Failed to reboot the device, error: " << e.what()
                                             << msg_log::getCodeTrace(__FILE__, __LINE__);
        }
    }).detach();
    return true;
}

namespace {

// The part of a factory reset that runs after the command has answered. Touches no handler
// member: the handler may be gone by then.
void factory_reset_thread(bool reboot, unsigned level) {
    std::this_thread::sleep_for(1s);
    const auto run = [](const std::string& cmd) {
        sysrepo_device_handler::run_system_command(cmd.c_str());
    };
    if (level <= 1) {
        MSG_LOG(6, "factory_defaults")
            << "Hard factory reset!" << msg_log::getCodeTrace(__FILE__, __LINE__);
        run(sysrepo_common::NSENTER_CMD + "/sbin/factory -r -y");
        MSG_LOG(6, "factory_defaults") << "Scheduled factory reset pell on next boot."
                                       << msg_log::getCodeTrace(__FILE__, __LINE__);
        if (level == 1) {
            MSG_LOG(6, "factory_defaults") << "Reboot" << msg_log::getCodeTrace(__FILE__, __LINE__);
            run(sysrepo_common::NSENTER_CMD + "/sbin/reboot");
        }
    } else {
        for (const char* cmd :
             {"/etc/init.d/redis-server stop 2>/dev/null", "killall -9 redis-server 2>/dev/null",
              "/etc/init.d/confd-data-provider-init stop 2>/dev/null",
              "/etc/init.d/confd-init stop 2>/dev/null", "rm -rf /var/persistent/etc/* 2>/dev/null",
              "rm -rf /home/* 2>/dev/null", "rm -rf /var/log/* 2>/dev/null"})
            run(cmd);
        if (level == 4) {
            run("mkdir -p /var/persistent/etc/sw_storage/redis/ 2>/dev/null");
            run("cp -f /tmp/keep.aof /var/persistent/etc/sw_storage/redis/50001.aof");
        }
        run("/bin/sync");
        if (reboot) run(sysrepo_common::NSENTER_CMD + "/sbin/reboot");
    }
    MSG_LOG(6, "factory_defaults")
        << "Restore factory default is done." << msg_log::getCodeTrace(__FILE__, __LINE__);
}

}  // namespace

bool sysrepo_device_handler::restore_factory_defaults(bool reboot, unsigned int level) {
    std::lock_guard lock(mutex);
    MSG_LOG(6, "factory_defaults")
        << "Restore factory default is staring..." << msg_log::getCodeTrace(__FILE__, __LINE__);
    if (level > 1) {
        auto doc = export_or_else_throw(datastore::factory_default, "");
        import_data(doc, true);
    }
    if (level == 4) {
        run_system_command("redis-cli -p 50003 SHUTDOWN 2>/dev/null");
        run_system_command(
            "redis-server /etc/redis/50001.conf --port 50003 --cluster-enabled no --dir "
            "/var/persistent/etc/sw_storage/redis --appendfilename keep.aof &");
        run_system_command(maintenance::migrate_command(maintenance::store_hash_tag()).c_str());
        run_system_command("redis-cli -p 50003 BGREWRITEAOF");
        std::this_thread::sleep_for(1s);
        run_system_command("cp -f /var/persistent/etc/sw_storage/redis/keep.aof /tmp/keep.aof");
    }
    std::thread(factory_reset_thread, reboot, level).detach();
    return true;
}

bool sysrepo_device_handler::techlog_generate(const Document& doc) {
    if (!doc.IsObject() || !doc.HasMember("url") || !doc.HasMember("interface")) {
        const std::string message = "Techlog parameters not present.";
        MSG_LOG(3, "techlog_generate") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-22, message);
    }
    // Both texts go unquoted into a shell command line.
    const auto& url_value = doc["url"];
    const auto& interface_value = doc["interface"];
    if (!url_value.IsString() || !interface_value.IsString() ||
        !shell_word::is_safe({url_value.GetString(), url_value.GetStringLength()}) ||
        !shell_word::is_safe({interface_value.GetString(), interface_value.GetStringLength()})) {
        const std::string message = "Techlog parameters not valid.";
        MSG_LOG(3, "techlog_generate") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-22, message);
    }

    std::lock_guard lock(mutex);
    const std::string url = url_value.GetString();
    const std::string interface = interface_value.GetString();
    MSG_LOG(6, "techlog_generate") << "running techlog script and upload to : " << url
                                   << msg_log::getCodeTrace(__FILE__, __LINE__);
    maintenance::run_script("/usr/bin/techlog.sh /tmp/techlog " + url + " " + interface,
                            maintenance::PERSISTENT_LOG_DIR, "/techlog.log", "techlog");
    return false;
}

void sysrepo_device_handler::handle_extra_package(const std::string& url) {
    if (!shell_word::is_safe(url)) {
        const auto message = fmt::format("Failed to install image from url: {}, invalid url.", url);
        set_install_status(message);
        MSG_LOG(3, "handle_extra_package") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-22, message);
    }
    MSG_LOG(6, "handle_extra_package")
        << "Handling extra package from url: " << url << msg_log::getCodeTrace(__FILE__, __LINE__);
    set_install_status("Executing upgrade script");
    maintenance::run_script("/usr/bin/handle_extra_package.sh --url " + url,
                            maintenance::PERSISTENT_LOG_DIR, "/upgrade.log", "swupgrade");
}
