#pragma once

#include <array>
#include <string>
#include <string_view>

// The maintenance scripts (technical log, extra package) and the configuration-store keys kept
// across the deepest factory reset.
namespace maintenance {

inline constexpr std::string_view PERSISTENT_LOG_DIR = "/var/persistent/log";

// Store keys saved before a level-4 factory reset and restored after the wipe, in this order.
inline constexpr std::array<std::string_view, 3> KEPT_STORE_KEYS = {
    "dh/sysrepo:config/e28/ipv4Settings", "dh/sysrepo:config/dnsSettings",
    "dh/network:config/dnsSettings"};

// Hash tag in front of the store's configuration keys: REDIS_CONF_HASH_TAG, or "{conf}" when
// the variable is not set.
std::string store_hash_tag();

// redis-cli command that copies the kept keys from the store (port 50001) to the keeping
// instance (port 50003).
std::string migrate_command(std::string_view hash_tag);

// "ERR_MSG_FILE='<error_file>' /bin/bash.bash <script_and_args> &>> <log_file>".
std::string script_command(std::string_view error_file, std::string_view script_and_args,
                           std::string_view log_file);

// Runs a maintenance script through sysrepo_common::system: makes sure log_dir exists, points
// the script's ERR_MSG_FILE at a fresh file in /tmp, appends its output to log_dir + log_name,
// and removes the error file in every outcome. Logs on `channel`. A failing script raises
// dh_error -14: "Failed to execute the upgrade script: " + the error file's lines (each ended by
// a newline) when the script wrote one, else "Failed to execute the upgrade script!".
void run_script(std::string_view script_and_args, std::string_view log_dir,
                std::string_view log_name, const std::string& channel);

}  // namespace maintenance
