#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace dh {

// Where time comes from. The daemon uses the steady clock; tests use a manual_clock and move it
// by hand.
class clock {
  public:
    using duration = std::chrono::steady_clock::duration;
    using time_point = std::chrono::steady_clock::time_point;
    virtual ~clock() = default;
    virtual time_point now() const = 0;
};

// The steady clock of the machine.
clock& system_clock();

// A clock that stands still until advanced; thread-safe.
class manual_clock : public clock {
  public:
    time_point now() const override;
    void advance(duration d);

  private:
    mutable std::mutex mutex_;
    time_point now_{};
};

// Runs periodic and delayed work: one timer thread runs short tasks (value-group ticks) and hands
// tasks marked `on::pool`, and everything posted, to a fixed pool of workers (polls, host
// commands, delayed reboot and reset work).
//
// - A periodic task runs `phase` after every() and then once per period; a run that comes late
//   does not make up for the periods it missed, and a pool task whose previous run has not ended
//   skips that period.
// - cancel(id): the task does not start again once cancel returned, and cancel waits for a run
//   in progress on another thread (a task may cancel itself; that returns at once).
// - stop() drops what has not started, waits for what runs and joins every thread; the
//   destructor stops. It must not be called from one of the scheduler's own tasks. After stop,
//   new tasks are ignored.
// - An exception thrown by a task is logged (severity 3, channel "scheduler").
class scheduler {
  public:
    using task_id = std::uint64_t;
    using duration = clock::duration;
    enum class on { timer, pool };

    scheduler(clock& time, unsigned workers);
    virtual ~scheduler();
    scheduler(const scheduler&) = delete;
    scheduler& operator=(const scheduler&) = delete;

    task_id every(duration period, duration phase, std::function<void()> fn, on where = on::timer);
    task_id after(duration delay, std::function<void()> fn, on where = on::timer);
    // Runs fn on the pool as soon as a worker is free.
    task_id post(std::function<void()> fn) {
        return after(duration::zero(), std::move(fn), on::pool);
    }
    void cancel(task_id id);
    void stop();

    // Waits `d` on the scheduler's clock (returns early when the scheduler stops). A
    // manual_scheduler advances its clock instead.
    virtual void sleep_for(duration d);

    clock& time() const { return time_; }

  protected:
    struct manual_mode {};
    scheduler(clock& time, manual_mode);

    // Runs, on the calling thread, every task due at the clock's time (including what those runs
    // post) until none is left; for the manual scheduler. Returns when nothing more is due.
    void run_due();
    // The earliest time a timer task is due, if any.
    bool next_due(clock::time_point& when);

  private:
    struct task {
        std::function<void()> fn;
        duration period{};  // zero: runs once
        on where = on::timer;
        std::pair<clock::time_point, std::uint64_t> key{};  // place in timers_ (last due time)
        bool armed = false;                                 // in timers_
        bool queued = false;                                // in the pool's queue
        bool cancelled = false;
        std::thread::id runner{};  // set while running
    };
    using task_ptr = std::shared_ptr<task>;

    task_id add(duration delay, duration period, std::function<void()> fn, on where);
    void arm(task_id id, task& t, clock::time_point due);
    // Runs one task with the lock released; runs its bookkeeping afterwards. Returns with `lock`
    // held again.
    void run(std::unique_lock<std::mutex>& lock, task_id id, task_ptr t);
    // Takes the next task due at `now` off the timers (pool tasks go to the pool's queue).
    bool take_due(clock::time_point now, task_id& id, task_ptr& t);
    void timer_loop();
    void worker_loop();

    clock& time_;
    std::mutex mutex_;
    std::condition_variable timer_cv_;   // the timers changed, or stop
    std::condition_variable worker_cv_;  // the pool's queue grew, or stop
    std::condition_variable done_cv_;    // a run ended
    std::condition_variable stop_cv_;    // stop, for sleep_for
    bool stopping_ = false;
    task_id last_id_ = 0;
    std::uint64_t sequence_ = 0;
    std::map<task_id, task_ptr> tasks_;
    std::map<std::pair<clock::time_point, std::uint64_t>, task_id> timers_;
    std::deque<task_id> queue_;
    std::thread timer_thread_;
    std::vector<std::thread> workers_;
};

namespace detail {
struct manual_clock_holder {
    manual_clock manual_time;
};
}  // namespace detail

// A scheduler without threads, for tests: time moves only when the test says so, and every task
// runs on the calling thread.
class manual_scheduler : private detail::manual_clock_holder, public scheduler {
  public:
    manual_scheduler();

    // Moves the clock forward to each time something falls due within `d`, running it there,
    // and ends `d` later than it began.
    void advance(duration d);
    // Runs what is due now, posted jobs included.
    void run_pending() { run_due(); }
    void sleep_for(duration d) override { advance(d); }
};

}  // namespace dh
