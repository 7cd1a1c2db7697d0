#include "sysrepo_device_handler.hpp"

#include <iostream>

#include <boost/algorithm/string/trim.hpp>

#include "dh_error.hpp"
#include "msg_log.hpp"
#include "sfp_plus_data_reader.hpp"
#include "sysrepo_common.hpp"
#include "version_texts.hpp"

sysrepo_device_handler::sysrepo_device_handler(dh_db& db)
    : db(db),
      config_status(dh::api::status_value<bool>::create(db, "data/configStatus", false, 1)),
      sfp_reader(std::make_shared<sfp_plus_data_reader>(db)) {
    // Ticked by the value group, so that a fall of the status would reach subscribers after its
    // delay; the rise at the end of start() is published at once.
    group.add_value(config_status, 1);
    std::cout << "sysrepo-device-handler created\n" << std::flush;
}

sysrepo_device_handler::~sysrepo_device_handler() {
    {
        std::lock_guard lock(poll_mutex);
        stop_poll = true;
    }
    poll_wakeup.notify_all();
    if (poll_thread.joinable()) poll_thread.join();
}

// Keeps the interface status values current, reading the operational state once a second.
// start() has just pushed the values it read, so the first cycle comes a second later. Never ends
// on an error: a failed read is logged and tried again in the next cycle.
void sysrepo_device_handler::poll_func() {
    for (;;) {
        {
            std::unique_lock lock(poll_mutex);
            if (poll_wakeup.wait_for(lock, std::chrono::seconds(1),
                                     [this] { return stop_poll.load(); }))
                return;
        }
        try {
            update_ietf_ifaces_map(get_ietf_ifaces_oper());
        } catch (...) {
            MSG_LOG(6, "sysrepo") << "sysrepo, unknown exception"
                                  << msg_log::getCodeTrace(__FILE__, __LINE__);
        }
    }
}

std::string fw_version_from(std::string text) {
    constexpr std::string_view model = "QMX-RB-16E ";
    if (auto pos = text.find(model); pos != std::string::npos) text.erase(0, pos + model.size());
    if (auto pos = text.find(" -- "); pos != std::string::npos) text.erase(pos);
    return text;
}

std::string container_version_from(std::string text) {
    boost::algorithm::trim_right(text);
    boost::algorithm::trim_left(text);
    return text;
}

namespace {

// exec has logged the failure already.
std::string output_or_empty(const std::string& cmd) {
    try {
        return sysrepo_common::exec(cmd, true);
    } catch (const dh_error&) {
        return {};
    }
}

}  // namespace

std::string read_fw_version() {
    return fw_version_from(output_or_empty(sysrepo_common::NSENTER_CMD + "cat /etc/version"));
}

std::string read_container_version() {
    return container_version_from(output_or_empty("cat /etc/image/image_name.txt"));
}
