#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "acl.hpp"
#include "confirmed_commits.hpp"
#include "datastore.hpp"
#include "dh_api/dh_api.hpp"
#include "dh_db.hpp"
#include "dns.hpp"
#include "door.hpp"
#include "images.hpp"
#include "interfaces.hpp"
#include "lldp.hpp"
#include "maintenance.hpp"
#include "ntp.hpp"
#include "ospf.hpp"
#include "scheduler.hpp"
#include "sfp.hpp"
#include "system.hpp"

// The owner of the daemon's feature units: it builds them around one door to the host and one
// datastore service, registers the node map (node_map.cpp) and runs the periodic work. Each unit
// owns its state and its lock; nodes hold weak references to the units.
class sysrepo_device_handler {
  public:
    // `root` is where the device's filesystem lies for the daemon ("/" on a device; tests point
    // it at a temporary directory). All periodic and delayed work runs on `sched`, which must
    // outlive the handler.
    sysrepo_device_handler(dh_db& db, std::shared_ptr<host::executor> exec, dh::scheduler& sched,
                           std::filesystem::path root = "/");
    ~sysrepo_device_handler();
    sysrepo_device_handler(const sysrepo_device_handler&) = delete;
    sysrepo_device_handler& operator=(const sysrepo_device_handler&) = delete;

    // Reads the configuration once, registers every node, rolls back a commit that was still
    // awaiting confirmation when the daemon last stopped, and starts the periodic work.
    void start();

    const host::door& door() const { return door_; }
    datastore_service& datastore() { return datastore_; }
    ospf_unit& ospf() { return *ospf_; }
    interfaces_unit& interfaces() { return *interfaces_; }
    ntp_unit& ntp() { return *ntp_; }
    dns_unit& dns() { return *dns_; }
    acl_unit& acl() { return *acl_; }
    lldp_unit& lldp() { return *lldp_; }
    system_unit& system() { return *system_; }
    images_unit& images() { return *images_; }
    maintenance_unit& maintenance() { return *maintenance_; }
    sfp_plus_data_reader& sfp() { return *sfp_; }
    // The confirmed commits, for the server (which holds them weakly).
    std::shared_ptr<confirmed_commits> commits() { return commits_; }

  private:
    // Registers the node map; `running` and `oper` are the documents start() exported once, from
    // which every initial value is read.
    void register_nodes(const Document& running, const Document& oper);

    dh_db& db;
    dh::scheduler& sched_;
    host::door door_;
    datastore_service datastore_;
    std::shared_ptr<ospf_unit> ospf_;
    std::shared_ptr<interfaces_unit> interfaces_;
    std::shared_ptr<ntp_unit> ntp_;
    std::shared_ptr<dns_unit> dns_;
    std::shared_ptr<acl_unit> acl_;
    std::shared_ptr<lldp_unit> lldp_;
    std::shared_ptr<system_unit> system_;
    std::shared_ptr<images_unit> images_;
    std::shared_ptr<maintenance_unit> maintenance_;
    std::shared_ptr<sfp_plus_data_reader> sfp_;
    std::shared_ptr<confirmed_commits> commits_;

    dh::api::value_group group;
    std::shared_ptr<dh::api::status_value<bool>> config_status;
    std::optional<dh::scheduler::task_id> poll_;
};
