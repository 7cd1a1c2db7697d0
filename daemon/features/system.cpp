#include <fmt/format.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "cli_text.hpp"
#include "dh_error.hpp"
#include "msg_log.hpp"
#include "raise.hpp"
#include "sysrepo_common.hpp"
#include "system.hpp"
#include "version_texts.hpp"

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

}  // namespace

system_unit::system_unit(const host::door& door, ntp_unit& ntp) : door_(door), ntp_(ntp) {}

std::string system_unit::run_cli_command(const std::string& cmd) {
    // The shell's operators, quotes, backslashes and control characters are refused with a clear
    // error: klish itself would read some of them as its own syntax.
    if (!cli_text::is_allowed_command(cmd))
        dh::raise(-22, "Invalid cli command: \"" + cmd + "\".", "run_cli_command");
    std::string output = door_.call({"/usr/bin/klish", "-c", cmd}, host::query());
    if (const auto pos = output.find(sysrepo_common::CLI_HELP_TEXT); pos != std::string::npos)
        output.resize(pos);
    return output;
}

std::string system_unit::get_date_time() {
    std::string text = run_cli_command("show datetime iso");
    if (text.size() > 10) text[10] = ' ';
    if (text.size() > 19) text.resize(19);
    return text;
}

bool system_unit::set_date_time(const std::string& when) {
    // Hardening: the text must start with a date and a time, not merely be long enough.
    if (!cli_text::has_date_time_form(when))
        dh::raise(-22, "Unexpected format of date/time: " + when, "set_date_time");
    std::string iso = when + "Z";
    iso[10] = 'T';
    run_cli_command(fmt::format("set datetime {}", iso));
    ntp_.restart_ntpd();
    return true;
}

void system_unit::set_automation_mode(const std::string& mode) {
    if (mode != sysrepo_common::MANAGED_ILA && mode != sysrepo_common::MANAGEDNETCONF_MODE &&
        mode != sysrepo_common::MANAGEDCLI_MODE)
        dh::raise(-22, "Invalid automation mode: " + mode, "set_automation_mode");
    const std::string controller_type =
        boost::algorithm::to_lower_copy(mode).find("ila") != std::string::npos ? "ILA" : mode;
    MSG_LOG(6, "set_automation_mode") << "Setting controller type: " << controller_type
                                      << msg_log::getCodeTrace(__FILE__, __LINE__);

    std::lock_guard lock(mutex_);
    std::ofstream file(door_.file(automation_mode_file), std::ios::out | std::ios::trunc);
    if (!file.is_open()) dh::raise(-5, "Failed to open environment file.", "set_automation_mode");
    file << "export QMX_CONTROLLER_TYPE=\"" << controller_type << "\"\n";
    file.flush();
    if (!file) dh::raise(-5, "Failed to write to environment file.", "set_automation_mode");
}

std::string system_unit::get_automation_mode() {
    const char* value = std::getenv("QMX_CONTROLLER_TYPE");
    if (!value) return std::string(sysrepo_common::MANAGEDNETCONF_MODE);
    const std::string lower = boost::algorithm::to_lower_copy(std::string(value));
    if (lower.find("ila") != std::string::npos) return std::string(sysrepo_common::MANAGED_ILA);
    if (lower.find("managedcli") != std::string::npos)
        return std::string(sysrepo_common::MANAGEDCLI_MODE);
    return std::string(sysrepo_common::MANAGEDNETCONF_MODE);
}

std::string fw_version_from(std::string text) {
    constexpr std::string_view model = "QMX-RB-16E ";
    if (auto pos = text.find(model); pos != std::string::npos) text.erase(0, pos + model.size());
    if (auto pos = text.find(" -- "); pos != std::string::npos) text.erase(pos);
    return text;
}

std::string container_version_from(std::string text) {
    boost::algorithm::trim(text);
    return text;
}

std::string read_fw_version(const host::door& door) {
    try {
        return fw_version_from(door.call({"cat", "/etc/version"}, host::query()));
    } catch (const dh_error&) {
        return {};
    }
}

std::string read_container_version(const host::door& door) {
    std::ifstream in(door.file("/etc/image/image_name.txt"));
    std::stringstream text;
    text << in.rdbuf();
    return container_version_from(text.str());
}
