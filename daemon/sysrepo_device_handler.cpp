#include "sysrepo_device_handler.hpp"

#include <iostream>

#include "msg_log.hpp"

sysrepo_device_handler::sysrepo_device_handler(dh_db& db, std::shared_ptr<host::executor> exec,
                                               std::filesystem::path root)
    : db(db),
      door_(std::move(exec), std::move(root)),
      datastore_(door_),
      ospf_(std::make_shared<ospf_unit>(datastore_)),
      interfaces_(std::make_shared<interfaces_unit>(door_, datastore_, *ospf_)),
      ntp_(std::make_shared<ntp_unit>(door_, datastore_)),
      dns_(std::make_shared<dns_unit>(door_, datastore_)),
      acl_(std::make_shared<acl_unit>(door_)),
      lldp_(std::make_shared<lldp_unit>(door_)),
      system_(std::make_shared<system_unit>(door_, *ntp_)),
      images_(std::make_shared<images_unit>(door_)),
      maintenance_(std::make_shared<maintenance_unit>(
          door_, datastore_,
          [this](std::chrono::milliseconds delay, std::function<void()> job) {
              std::lock_guard lock(poll_mutex);
              delayed.emplace(std::chrono::steady_clock::now() + delay, std::move(job));
              poll_wakeup.notify_all();
          },
          [](std::chrono::milliseconds pause) { std::this_thread::sleep_for(pause); })),
      sfp_(std::make_shared<sfp_plus_data_reader>(db, door_)),
      config_status(dh::api::status_value<bool>::create(db, "data/configStatus", false, 1)) {
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

// Every second: the interface status values and the optical modules' presence; in between, the
// delayed jobs that fall due. start() has just pushed the values it read, so the first cycle
// comes a second later. A failed read is logged by the unit and tried again in the next cycle.
void sysrepo_device_handler::poll_func() {
    auto next_poll = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    std::unique_lock lock(poll_mutex);
    for (;;) {
        const auto wake = delayed.empty() ? next_poll : std::min(next_poll, delayed.begin()->first);
        if (poll_wakeup.wait_until(lock, wake,
                                   [&] {
                                       return stop_poll || (!delayed.empty() &&
                                                            delayed.begin()->first <=
                                                                std::chrono::steady_clock::now());
                                   }) &&
            stop_poll)
            return;
        const auto now = std::chrono::steady_clock::now();
        std::vector<std::function<void()>> due;
        while (!delayed.empty() && delayed.begin()->first <= now) {
            due.push_back(std::move(delayed.begin()->second));
            delayed.erase(delayed.begin());
        }
        lock.unlock();
        for (auto& job : due) job();
        if (now >= next_poll) {
            interfaces_->poll();
            sfp_->poll();
            next_poll = now + std::chrono::seconds(1);
        }
        lock.lock();
    }
}

void sysrepo_device_handler::start() {
    ospf_->ospf_init();
    const Document running = datastore_.export_running();
    datastore_.note_startup(running, datastore_.export_startup());
    const Document oper =
        datastore_.export_checked(datastore::operational, {"-x", "/ietf-interfaces:interfaces"});
    register_nodes(running, oper);
    poll_thread = std::thread(&sysrepo_device_handler::poll_func, this);
    config_status->set(true);
}
