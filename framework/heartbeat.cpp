#include "heartbeat.hpp"

namespace dh::server::detail {

heartbeat::heartbeat(dh::scheduler& sched, std::function<void()> send)
    : sched_(sched), send_(std::move(send)) {}

heartbeat::~heartbeat() {
    stop();
}

void heartbeat::set_period(dh::clock::duration period) {
    dh::scheduler::task_id previous = 0;
    {
        std::lock_guard lock(mutex_);
        if (stopped_) return;
        ++generation_;
        previous = std::exchange(task_, 0);
        period_ = period;
        on_.store(period.count() > 0);
        note_sent();
        if (period.count() > 0) arm(period);
    }
    if (previous) sched_.cancel(previous);
}

void heartbeat::note_sent() {
    if (!on_.load(std::memory_order_relaxed)) return;
    last_sent_.store(sched_.time().now().time_since_epoch().count(), std::memory_order_relaxed);
}

void heartbeat::stop() {
    dh::scheduler::task_id task = 0;
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        on_.store(false);
        task = std::exchange(task_, 0);
    }
    if (task) sched_.cancel(task);
}

void heartbeat::arm(dh::clock::duration delay) {
    const std::uint64_t generation = generation_;
    task_ = sched_.after(delay, [this, generation] { fire(generation); });
}

// The task stays task_ until it has sent, so that stop() and set_period() wait for a send in
// progress before the heartbeat may go away.
void heartbeat::fire(std::uint64_t generation) {
    {
        std::lock_guard lock(mutex_);
        if (stopped_ || generation != generation_) return;
        const dh::clock::time_point last{dh::clock::duration(last_sent_.load())};
        const auto due = last + period_;
        const auto now = sched_.time().now();
        if (now < due) {
            arm(due - now);
            return;
        }
    }
    send_();
    std::lock_guard lock(mutex_);
    if (stopped_ || generation != generation_) return;
    arm(period_);
}

}  // namespace dh::server::detail
