#include <fmt/format.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <cctype>
#include <cstdlib>
#include <fstream>

#include "cli_text.hpp"
#include "dh_error.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"

namespace cli_text {

bool is_allowed_command(std::string_view cmd) {
    for (char c : cmd) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) return false;
        if (std::string_view(";|&`$(){}[]<>'\"\\").find(c) != std::string_view::npos) return false;
    }
    return true;
}

bool has_date_time_form(std::string_view text) {
    constexpr std::string_view form = "dddd-dd-dd dd:dd:dd";
    if (text.size() < form.size()) return false;
    for (std::size_t i = 0; i < form.size(); ++i) {
        const bool ok = form[i] == 'd' ? std::isdigit(static_cast<unsigned char>(text[i])) != 0
                                       : text[i] == form[i];
        if (!ok) return false;
    }
    return true;
}

}  // namespace cli_text

namespace {

constexpr const char* automation_mode_file = "/var/persistent/etc/automation_mode.env";

[[noreturn]] void log_and_throw(const char* channel, int code, const std::string& message,
                                int line) {
    MSG_LOG(3, channel) << message << msg_log::getCodeTrace(__FILE__, line);
    throw dh_error(code, message);
}

}  // namespace

std::string sysrepo_device_handler::run_cli_command(const std::string& cmd) {
    // Hardening: besides the shell's operators, quotes, backslashes and control characters are
    // refused, since the command is placed between single quotes on a shell command line.
    if (!cli_text::is_allowed_command(cmd))
        log_and_throw("run_cli_command", -22, "Invalid cli command: \"" + cmd + "\".", __LINE__);
    std::string output =
        sysrepo_common::exec(sysrepo_common::NSENTER_CMD + "/usr/bin/klish -c '" + cmd + "'", true);
    if (const auto pos = output.find(sysrepo_common::CLI_HELP_TEXT); pos != std::string::npos)
        output.resize(pos);
    return output;
}

std::string sysrepo_device_handler::get_date_time() {
    std::string text = run_cli_command("show datetime iso");
    if (text.size() > 10) text[10] = ' ';
    if (text.size() > 19) text.resize(19);
    return text;
}

bool sysrepo_device_handler::set_date_time(const std::string& when) {
    // Hardening: the text must start with a date and a time, not merely be long enough.
    if (!cli_text::has_date_time_form(when))
        log_and_throw("set_date_time", -22, "Unexpected format of date/time: " + when, __LINE__);
    std::string iso = when + "Z";
    iso[10] = 'T';
    run_cli_command(fmt::format("set datetime {}", iso));
    restart_ntpd();
    return true;
}

void sysrepo_device_handler::set_automation_mode(const std::string& mode) {
    std::lock_guard lock(mutex);
    if (mode != sysrepo_common::MANAGED_ILA && mode != sysrepo_common::MANAGEDNETCONF_MODE &&
        mode != sysrepo_common::MANAGEDCLI_MODE)
        log_and_throw("set_automation_mode", -22, "Invalid automation mode: " + mode, __LINE__);
    const std::string controller_type =
        boost::algorithm::to_lower_copy(mode).find("ila") != std::string::npos ? "ILA" : mode;
    MSG_LOG(6, "set_automation_mode") << "Setting controller type: " << controller_type
                                      << msg_log::getCodeTrace(__FILE__, __LINE__);

    std::ofstream file(automation_mode_file, std::ios::out | std::ios::trunc);
    if (!file.is_open())
        log_and_throw("set_automation_mode", -5, "Failed to open environment file.", __LINE__);
    file << "export QMX_CONTROLLER_TYPE=\"" << controller_type << "\"\n";
    file.flush();
    if (!file)
        log_and_throw("set_automation_mode", -5, "Failed to write to environment file.", __LINE__);
}

std::string sysrepo_device_handler::get_automation_mode() {
    const char* value = std::getenv("QMX_CONTROLLER_TYPE");
    if (!value) return std::string(sysrepo_common::MANAGEDNETCONF_MODE);
    const std::string lower = boost::algorithm::to_lower_copy(std::string(value));
    if (lower.find("ila") != std::string::npos) return std::string(sysrepo_common::MANAGED_ILA);
    if (lower.find("managedcli") != std::string::npos)
        return std::string(sysrepo_common::MANAGEDCLI_MODE);
    return std::string(sysrepo_common::MANAGEDNETCONF_MODE);
}
