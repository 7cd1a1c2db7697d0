#include "scheduler.hpp"

#include <algorithm>
#include <exception>
#include <string>

#include "dh_error.hpp"
#include "msg_log.hpp"

namespace dh {

namespace {

class steady : public clock {
  public:
    time_point now() const override { return std::chrono::steady_clock::now(); }
};

std::string describe_current_exception() {
    try {
        throw;
    } catch (const dh_error& e) {
        return std::to_string(e.code()) + " " + e.message();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace

clock& system_clock() {
    static steady instance;
    return instance;
}

clock::time_point manual_clock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

void manual_clock::advance(duration d) {
    std::lock_guard lock(mutex_);
    now_ += d;
}

scheduler::scheduler(clock& time, unsigned workers) : time_(time) {
    timer_thread_ = std::thread([this] { timer_loop(); });
    workers = std::max(workers, 1u);
    workers_.reserve(workers);
    for (unsigned i = 0; i < workers; ++i) workers_.emplace_back([this] { worker_loop(); });
}

scheduler::scheduler(clock& time, manual_mode) : time_(time) {}

scheduler::~scheduler() {
    stop();
}

scheduler::task_id scheduler::every(duration period, duration phase, std::function<void()> fn,
                                    on where) {
    return add(phase, std::max<duration>(period, std::chrono::milliseconds(1)), std::move(fn),
               where);
}

scheduler::task_id scheduler::after(duration delay, std::function<void()> fn, on where) {
    return add(delay, duration::zero(), std::move(fn), where);
}

scheduler::task_id scheduler::add(duration delay, duration period, std::function<void()> fn,
                                  on where) {
    auto t = std::make_shared<task>();
    t->fn = std::move(fn);
    t->period = period;
    t->where = where;
    std::lock_guard lock(mutex_);
    if (stopping_) return 0;
    const task_id id = ++last_id_;
    tasks_.emplace(id, t);
    if (where == on::pool && period == duration::zero() && delay <= duration::zero()) {
        t->queued = true;
        queue_.push_back(id);
        worker_cv_.notify_one();
    } else {
        arm(id, *t, time_.now() + delay);
    }
    return id;
}

void scheduler::arm(task_id id, task& t, clock::time_point due) {
    t.key = {due, ++sequence_};
    t.armed = true;
    timers_.emplace(t.key, id);
    timer_cv_.notify_one();
}

void scheduler::cancel(task_id id) {
    std::unique_lock lock(mutex_);
    const auto it = tasks_.find(id);
    if (it == tasks_.end()) return;
    task_ptr t = it->second;
    t->cancelled = true;
    if (t->armed) {
        timers_.erase(t->key);
        t->armed = false;
    }
    if (t->queued) {
        queue_.erase(std::find(queue_.begin(), queue_.end(), id));
        t->queued = false;
    }
    // A task cancelling itself: the end of its run drops it.
    if (t->runner == std::this_thread::get_id()) return;
    done_cv_.wait(lock, [&] { return t->runner == std::thread::id{}; });
    const auto again = tasks_.find(id);
    if (again != tasks_.end() && again->second == t) tasks_.erase(again);
    // The task's function, and what it holds, goes with the lock released.
    lock.unlock();
    t.reset();
}

void scheduler::stop() {
    std::map<task_id, task_ptr> dropped;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        dropped.swap(tasks_);
        timers_.clear();
        queue_.clear();
        for (auto& [id, t] : dropped) t->armed = t->queued = false;
    }
    timer_cv_.notify_all();
    worker_cv_.notify_all();
    stop_cv_.notify_all();
    dropped.clear();
    if (timer_thread_.joinable()) timer_thread_.join();
    for (auto& w : workers_)
        if (w.joinable()) w.join();
}

void scheduler::sleep_for(duration d) {
    std::unique_lock lock(mutex_);
    stop_cv_.wait_for(lock, d, [this] { return stopping_; });
}

bool scheduler::take_due(clock::time_point now, task_id& id, task_ptr& t) {
    const auto first = timers_.begin();
    id = first->second;
    timers_.erase(first);
    t = tasks_.at(id);
    t->armed = false;
    if (t->where == on::timer) return true;
    // A pool task: queued unless its previous run is still waiting or running.
    if (!t->queued && t->runner == std::thread::id{}) {
        t->queued = true;
        queue_.push_back(id);
        worker_cv_.notify_one();
    }
    if (t->period != duration::zero()) {
        auto next = t->key.first + t->period;
        arm(id, *t, next <= now ? now + t->period : next);
    }
    return false;
}

void scheduler::run(std::unique_lock<std::mutex>& lock, task_id id, task_ptr t) {
    t->runner = std::this_thread::get_id();
    lock.unlock();
    try {
        t->fn();
    } catch (...) {
        MSG_LOG(3, "scheduler") << "Scheduled task failed: " << describe_current_exception()
                                << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
    lock.lock();
    t->runner = {};
    done_cv_.notify_all();
    const auto it = tasks_.find(id);
    const bool listed = it != tasks_.end() && it->second == t;
    if (listed && !t->cancelled && t->period != duration::zero()) {
        // A timer task is due again one period after its last due time; a late run does not
        // make up for the periods it missed. Pool tasks were armed again when queued.
        if (t->where == on::timer) {
            const auto now = time_.now();
            const auto next = t->key.first + t->period;
            arm(id, *t, next <= now ? now + t->period : next);
        }
        return;
    }
    if (listed) tasks_.erase(it);
    lock.unlock();
    t.reset();
    lock.lock();
}

void scheduler::timer_loop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (timers_.empty()) {
            timer_cv_.wait(lock);
            continue;
        }
        const auto now = time_.now();
        const auto due = timers_.begin()->first.first;
        if (due > now) {
            timer_cv_.wait_for(lock, due - now);
            continue;
        }
        task_id id;
        task_ptr t;
        if (take_due(now, id, t)) run(lock, id, std::move(t));
    }
}

void scheduler::worker_loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        worker_cv_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (stopping_) return;
        const task_id id = queue_.front();
        queue_.pop_front();
        task_ptr t = tasks_.at(id);
        t->queued = false;
        run(lock, id, std::move(t));
    }
}

void scheduler::run_due() {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (!queue_.empty()) {
            const task_id id = queue_.front();
            queue_.pop_front();
            task_ptr t = tasks_.at(id);
            t->queued = false;
            run(lock, id, std::move(t));
            continue;
        }
        const auto now = time_.now();
        if (timers_.empty() || timers_.begin()->first.first > now) return;
        task_id id;
        task_ptr t;
        if (take_due(now, id, t)) run(lock, id, std::move(t));
    }
}

bool scheduler::next_due(clock::time_point& when) {
    std::lock_guard lock(mutex_);
    if (timers_.empty()) return false;
    when = timers_.begin()->first.first;
    return true;
}

manual_scheduler::manual_scheduler() : scheduler(manual_time, manual_mode{}) {}

void manual_scheduler::advance(duration d) {
    auto& c = manual_time;
    const auto target = c.now() + d;
    for (;;) {
        run_due();
        dh::clock::time_point when;
        if (!next_due(when) || when > target) break;
        if (when > c.now()) c.advance(when - c.now());
    }
    if (target > c.now()) c.advance(target - c.now());
    run_due();
}

}  // namespace dh
