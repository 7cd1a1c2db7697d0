#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "datastore.hpp"
#include "door.hpp"
#include "scheduler.hpp"

// Reboot, factory defaults and the technical log. The parts of a reboot or a reset that take the
// device down run later, on the scheduler, so that the command's answer reaches the client first.
class maintenance_unit {
  public:
    // Delayed work runs on `sched`'s pool, and the waits for the keeping store use its clock.
    // Delayed work not yet started when the unit goes is dropped.
    maintenance_unit(const host::door& door, datastore_service& ds, dh::scheduler& sched);
    ~maintenance_unit();
    maintenance_unit(const maintenance_unit&) = delete;
    maintenance_unit& operator=(const maintenance_unit&) = delete;

    bool run_reboot_command(const bool& unused);
    bool restore_factory_defaults(bool reboot, unsigned int level);
    bool techlog_generate(const Document& doc);

    // Runs a command whose failure is only logged ("Unable to run command: ...").
    void run_system_command(const host::argv_t& argv, const host::options& opts = {});

  private:
    // Copies the store's kept keys into keep.aof through a second store instance, checking
    // every step; dh_error -5 when one fails, with nothing wiped yet.
    void keep_store_keys();
    // The part of a reset that runs after the command answered.
    void factory_reset(bool reboot, unsigned int level);
    // Polls `ready` up to `attempts` times, pausing `interval` between looks.
    bool wait_until(const std::function<bool()>& ready, int attempts,
                    std::chrono::milliseconds interval);
    void later(std::chrono::milliseconds delay, std::function<void()> job);

    const host::door& door_;
    datastore_service& ds_;
    dh::scheduler& sched_;
    // One reset or technical log at a time.
    std::mutex mutex_;
    // Guards delayed_: the delayed work handed to the scheduler and not yet ended, by a number
    // of the unit's own; the destructor cancels it.
    std::mutex delayed_mutex_;
    std::uint64_t delayed_count_ = 0;
    std::map<std::uint64_t, dh::scheduler::task_id> delayed_;
};
