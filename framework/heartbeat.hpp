#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

#include "scheduler.hpp"

namespace dh::server::detail {

// The heartbeat of one connection: once a period has passed without a notification going out,
// `send` is called (and sends one, which counts as a notification). Timed on the scheduler's
// clock, so tests drive it with a manual_scheduler. Thread-safe.
class heartbeat {
  public:
    heartbeat(dh::scheduler& sched, std::function<void()> send);
    ~heartbeat();
    heartbeat(const heartbeat&) = delete;
    heartbeat& operator=(const heartbeat&) = delete;

    // Starts counting a new period from now; zero turns the heartbeat off.
    void set_period(dh::clock::duration period);
    // A notification went out now.
    void note_sent();
    // No heartbeat runs after this returns; waits for one in progress on another thread.
    void stop();

  private:
    // mutex_ held.
    void arm(dh::clock::duration delay);
    void fire(std::uint64_t generation);

    dh::scheduler& sched_;
    const std::function<void()> send_;
    std::atomic<dh::clock::time_point::rep> last_sent_{0};
    std::atomic<bool> on_{false};
    // Guards what follows; never held while calling send_ or cancelling a task.
    std::mutex mutex_;
    dh::clock::duration period_{};
    dh::scheduler::task_id task_ = 0;
    // Counts set_period() calls, so that a task of an earlier period does nothing.
    std::uint64_t generation_ = 0;
    bool stopped_ = false;
};

}  // namespace dh::server::detail
