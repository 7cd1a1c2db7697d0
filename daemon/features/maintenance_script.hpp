#pragma once

#include <array>
#include <string>
#include <string_view>

#include "door.hpp"

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

// The redis-cli command that copies the kept keys from the store (port 50001) to the keeping
// instance (port 50003).
host::argv_t migrate_argv(std::string_view hash_tag);

// Runs a maintenance script with /bin/bash.bash: makes sure the persistent log directory exists,
// points the script's ERR_MSG_FILE at a fresh file in /tmp, appends its output to the log file
// `log_name` there, and removes the error file in every outcome. Logs on `channel`. A failing
// script raises dh_error -14: "Failed to execute the upgrade script: " + the error file's lines
// (each ended by a newline) when the script wrote one, else "Failed to execute the upgrade
// script!".
void run_script(const host::door& door, const host::argv_t& script_and_args,
                std::string_view log_name, const std::string& channel);

}  // namespace maintenance
