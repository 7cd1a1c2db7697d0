#include <fmt/format.h>
#include <rapidjson/document.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <sstream>

#include "client_text.hpp"
#include "dh_error.hpp"
#include "images.hpp"
#include "maintenance_script.hpp"
#include "msg_log.hpp"
#include "raise.hpp"
#include "rauc_status.hpp"

std::map<std::string, std::string> parse_rauc_status(const std::string& text) {
    std::map<std::string, std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        // KEY='value': the value lies between the quote after "=" and the closing quote.
        out[line.substr(0, eq)] =
            line.size() >= eq + 3 ? line.substr(eq + 2, line.size() - eq - 3) : std::string();
    }
    return out;
}

namespace rauc {

std::string value_of(const status_map& status, const std::string& key) {
    const auto it = status.find(key);
    return it == status.end() ? std::string() : it->second;
}

std::vector<std::string> words(const std::string& value) {
    std::istringstream in(value);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(std::move(w));
    return out;
}

std::string target_bootname(const status_map& status) {
    return value_of(status, "RAUC_SYSTEM_BOOTED_BOOTNAME") == "primary" ? "secondary" : "primary";
}

slot_counts counts_of(const status_map& status, const std::string& target) {
    for (const auto& id : words(value_of(status, "RAUC_SLOTS"))) {
        if (value_of(status, "RAUC_SLOT_BOOTNAME_" + id) != target) continue;
        return {std::stoi(value_of(status, "RAUC_SLOT_STATUS_INSTALLED_COUNT_" + id)),
                std::stoi(value_of(status, "RAUC_SLOT_STATUS_ACTIVATED_COUNT_" + id))};
    }
    return {};
}

bool activation_confirmed(const status_map& status, const std::string& target, slot_counts before) {
    for (const auto& id : words(value_of(status, "RAUC_SLOTS"))) {
        if (value_of(status, "RAUC_SLOT_BOOTNAME_" + id) != target ||
            value_of(status, "RAUC_SLOT_STATUS_STATUS_" + id) != "ok")
            continue;
        if (std::stoi(value_of(status, "RAUC_SLOT_STATUS_INSTALLED_COUNT_" + id)) ==
                before.installed + 1 &&
            std::stoi(value_of(status, "RAUC_SLOT_STATUS_ACTIVATED_COUNT_" + id)) ==
                before.activated + 1)
            return true;
    }
    return false;
}

bool install_output_ok(std::string_view output) {
    return output.find("100% Installing done.") != std::string_view::npos &&
           output.find("succeeded") != std::string_view::npos;
}

std::string other_slot(const status_map& status) {
    const auto primary = value_of(status, "RAUC_BOOT_PRIMARY");
    const auto slots = words(value_of(status, "RAUC_SYSTEM_SLOTS"));
    if (slots.size() < 2) throw dh_error(-22, "Failed to find slots list.");
    if (primary == slots[0]) return slots[1];
    if (primary == slots[1]) return slots[0];
    throw dh_error(-22, "primary slot is not found in the slots list.");
}

std::optional<std::string> slot_with_version(const status_map& status, const std::string& version) {
    const auto ids = words(value_of(status, "RAUC_SLOTS"));
    const auto names = words(value_of(status, "RAUC_SYSTEM_SLOTS"));
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (value_of(status, "RAUC_SLOT_STATUS_BUNDLE_DESCRIPTION_" + ids[i]).find(version) ==
                std::string::npos &&
            value_of(status, "RAUC_SLOT_STATUS_BUNDLE_VERSION_" + ids[i]).find(version) ==
                std::string::npos)
            continue;
        // A slot without a system name at its position cannot be switched to.
        if (i < names.size() && !names[i].empty()) return names[i];
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace rauc

images_unit::images_unit(const host::door& door) : door_(door) {}

rauc::status_map images_unit::query_rauc_status() {
    return parse_rauc_status(
        door_.call({"rauc", "status", "--detailed", "--output-format=shell"}, host::query()));
}

void images_unit::set_install_status(std::string text) {
    std::lock_guard lock(install_status_mutex);
    install_status = std::move(text);
}

std::string images_unit::get_install_status() {
    std::lock_guard lock(install_status_mutex);
    return install_status;
}

bool images_unit::boot_image(const std::string& arg) {
    std::lock_guard lock(image_mutex);
    std::string url = arg;
    rapidjson::Document doc;
    // A bare URL is not JSON and is installed as it stands.
    if (!doc.Parse(arg.c_str(), arg.size()).HasParseError()) {
        if (!doc.IsObject() || !doc.HasMember("pkg") || !doc["pkg"].IsString()) {
            dh::raise(-22, "Invalid document, missing 'pkg' field.", "boot_image");
        }
        url = doc["pkg"].GetString();
        if (doc.HasMember("extra") && doc["extra"].IsString())
            handle_extra_package(doc["extra"].GetString());
    }
    return run_rauc_install_command(url);
}

bool images_unit::run_rauc_install_command(const std::string& url) {
    MSG_LOG(6, "run_rauc_install_command")
        << "Installing pell image from url: " << url << msg_log::getCodeTrace(__FILE__, __LINE__);
    set_install_status(fmt::format("Preparing to install image from url: {}", url));
    if (!client_text::is_url(url)) {
        const auto message = fmt::format("Failed to install image from url: {}, invalid url.", url);
        set_install_status(message);
        dh::raise(-22, message, "run_rauc_install_command");
    }

    auto status = query_rauc_status();
    const auto target = rauc::target_bootname(status);
    const auto before = rauc::counts_of(status, target);

    set_install_status(fmt::format("Installing slot target : {}", target));
    std::string output;
    try {
        output = door_.call({"rauc", "install", url}, host::in_host());
    } catch (const std::exception& e) {
        const auto text = fmt::format("Failed Installing to slot target : {}", target);
        set_install_status(text);
        MSG_LOG(3, "run_rauc_install_command")
            << text << " , rauc result: " << e.what() << msg_log::getCodeTrace(__FILE__, __LINE__);
        MSG_LOG(3, "run_rauc_install_command")
            << text << ", error: " << e.what() << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-5, text + ", error: " + e.what());
    }
    set_install_status(fmt::format("Successfully installed image from url: {}", url));

    // The output check only warns: the activation check below decides.
    if (!rauc::install_output_ok(output)) {
        const auto text = fmt::format(
            "Failed verifing the installation output message to slot target : {}", target);
        set_install_status(text);
        MSG_LOG(4, "run_rauc_install_command") << text << msg_log::getCodeTrace(__FILE__, __LINE__);
    }

    status = query_rauc_status();
    if (rauc::activation_confirmed(status, target, before)) {
        set_install_status(fmt::format(
            "Succsessfully verified the activation of the installation to slot target : {}",
            target));
        return true;
    }
    const auto text = fmt::format(
        "Failed verified the activation of the installation to slot target : {}", target);
    set_install_status(text);
    MSG_LOG(3, "run_rauc_install_command") << text << msg_log::getCodeTrace(__FILE__, __LINE__);
    throw dh_error(-5, text);
}

bool images_unit::switch_image(const std::string& arg) {
    std::lock_guard lock(image_mutex);
    const auto status = query_rauc_status();

    if (boost::algorithm::to_lower_copy(arg) == "other") {
        std::string target;
        try {
            target = rauc::other_slot(status);
        } catch (const dh_error& e) {
            MSG_LOG(3, "switch_image") << e.message() << msg_log::getCodeTrace(__FILE__, __LINE__);
            throw;
        }
        try {
            door_.call({"rauc", "status", "mark-active", target}, host::in_host());
        } catch (const std::exception& e) {
            const auto message =
                "Failed to switch image to slot: " + target + ", error: " + e.what();
            MSG_LOG(3, "switch_image") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
            throw dh_error(-5, message);
        }
        MSG_LOG(6, "switch_image")
            << "Switched image to slot: " << target << msg_log::getCodeTrace(__FILE__, __LINE__);
        return true;
    }

    const auto slot = rauc::slot_with_version(status, arg);
    if (!slot) {
        dh::raise(-22, "Failed to find the image with version: " + arg, "switch_image");
    }
    try {
        door_.call({"rauc", "status", "mark-active", *slot}, host::in_host());
    } catch (const std::exception& e) {
        const auto message = "Failed to switch image with version: " + arg + ", error: " + e.what();
        MSG_LOG(3, "switch_image") << message << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-5, message);
    }
    return true;
}

void images_unit::handle_extra_package(const std::string& url) {
    if (!client_text::is_url(url)) {
        const auto message = fmt::format("Failed to install image from url: {}, invalid url.", url);
        set_install_status(message);
        dh::raise(-22, message, "handle_extra_package");
    }
    MSG_LOG(6, "handle_extra_package")
        << "Handling extra package from url: " << url << msg_log::getCodeTrace(__FILE__, __LINE__);
    set_install_status("Executing upgrade script");
    maintenance::run_script(door_, {"/usr/bin/handle_extra_package.sh", "--url", url},
                            "/upgrade.log", "swupgrade");
}
