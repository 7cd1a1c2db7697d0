#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>

#include "datastore.hpp"
#include "door.hpp"

// Reboot, factory defaults and the technical log. The parts of a reboot or a reset that take the
// device down run later, on the scheduler, so that the command's answer reaches the client first.
class maintenance_unit {
  public:
    // Runs a job once after a delay (the scheduler's `after`).
    using later_fn = std::function<void(std::chrono::milliseconds, std::function<void()>)>;
    // Waits between two looks at a store that is starting or rewriting its file.
    using pause_fn = std::function<void(std::chrono::milliseconds)>;

    maintenance_unit(const host::door& door, datastore_service& ds, later_fn later, pause_fn pause);

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

    const host::door& door_;
    datastore_service& ds_;
    later_fn later_;
    pause_fn pause_;
    // One reset or technical log at a time.
    std::mutex mutex_;
};
