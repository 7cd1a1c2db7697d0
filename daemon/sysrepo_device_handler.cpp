#include "sysrepo_device_handler.hpp"

#include <iostream>

#include "msg_log.hpp"

using namespace std::chrono_literals;

namespace {

// A commit awaiting confirmation is kept here; /var/persistent survives a reboot, and a factory
// reset clears /var/persistent/etc.
constexpr std::string_view pending_commit_file =
    "/var/persistent/etc/device-handler/pending-commit.json";

}  // namespace

sysrepo_device_handler::sysrepo_device_handler(dh_db& db, std::shared_ptr<host::executor> exec,
                                               dh::scheduler& sched, std::filesystem::path root)
    : db(db),
      sched_(sched),
      door_(std::move(exec), std::move(root)),
      datastore_(door_, sched.time()),
      ospf_(std::make_shared<ospf_unit>(datastore_)),
      interfaces_(std::make_shared<interfaces_unit>(door_, datastore_, *ospf_)),
      ntp_(std::make_shared<ntp_unit>(door_, datastore_)),
      dns_(std::make_shared<dns_unit>(door_, datastore_)),
      acl_(std::make_shared<acl_unit>(door_)),
      lldp_(std::make_shared<lldp_unit>(door_)),
      system_(std::make_shared<system_unit>(door_, *ntp_)),
      images_(std::make_shared<images_unit>(door_)),
      maintenance_(std::make_shared<maintenance_unit>(door_, datastore_, sched)),
      sfp_(std::make_shared<sfp_plus_data_reader>(db, door_, sched)),
      commits_(std::make_shared<confirmed_commits>(db, datastore_, sched,
                                                   door_.file(pending_commit_file))),
      group(sched, 1000, 0),
      config_status(dh::api::status_value<bool>::create(db, "data/configStatus", false, 1)) {
    // Ticked by the value group, so that a fall of the status would reach subscribers after its
    // delay; the rise at the end of start() is published at once.
    group.add_value(config_status, 1);
    std::cout << "sysrepo-device-handler created\n" << std::flush;
}

sysrepo_device_handler::~sysrepo_device_handler() {
    if (poll_) sched_.cancel(*poll_);
}

void sysrepo_device_handler::start() {
    ospf_->ospf_init();
    const Document running = datastore_.export_running();
    datastore_.note_startup(running, datastore_.export_startup());
    const Document oper =
        datastore_.export_checked(datastore::operational, {"-x", "/ietf-interfaces:interfaces"});
    register_nodes(running, oper);
    commits_->recover();
    // Every second, on the pool: the interface status values and the optical modules' presence.
    // The values just read were pushed by register_nodes, so the first poll comes a second
    // later. A failed read is logged by the unit and tried again the next second.
    poll_ = sched_.every(
        1s, 1s,
        [this] {
            interfaces_->poll();
            sfp_->poll();
        },
        dh::scheduler::on::pool);
    config_status->set(true);
}
