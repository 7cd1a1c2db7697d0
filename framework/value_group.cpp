#include "value_group.hpp"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "dh_error.hpp"
#include "dh_node.hpp"
#include "msg_log.hpp"

namespace dh::api {

namespace {

// Set when a group is destroyed from one of its own threads (a job dropped the last reference
// to the group's owner): that thread is detached and must leave its loop without touching the
// destroyed group.
thread_local bool group_destroyed_by_this_thread = false;

std::string describe_exception(const std::exception_ptr& e) {
    try {
        std::rethrow_exception(e);
    } catch (const dh_error& err) {
        return std::to_string(err.code()) + " " + err.message();
    } catch (const std::exception& err) {
        return err.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace

value_group::value_group(unsigned period_ms, unsigned phase_ms, unsigned workers)
    : period_(std::max(period_ms, 1u)),
      phase_(phase_ms),
      worker_count_(std::max(workers, 1u)),
      alive_(std::make_shared<char>()) {
    ticker_thread_ = std::thread([this] { ticker(); });
    worker_threads_.reserve(worker_count_);
    for (unsigned i = 0; i < worker_count_; ++i) worker_threads_.emplace_back([this] { worker(); });
}

value_group::~value_group() {
    std::deque<std::function<void()>> dropped;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        dropped.swap(jobs_);
    }
    ticker_cv_.notify_all();
    worker_cv_.notify_all();
    dropped.clear();

    // A member that holds the liveness token is inside post(); wait until it has left.
    std::weak_ptr<void> token = alive_;
    alive_.reset();
    while (!token.expired()) std::this_thread::yield();

    const auto self = std::this_thread::get_id();
    auto finish = [&](std::thread& t) {
        if (!t.joinable()) return;
        if (t.get_id() == self) {
            group_destroyed_by_this_thread = true;
            t.detach();
        } else {
            t.join();
        }
    };
    finish(ticker_thread_);
    for (auto& t : worker_threads_) finish(t);
}

void value_group::add_value(const std::shared_ptr<dh_db_leaf_node>& node, unsigned cls) {
    if (!node) return;
    if (auto* member = dynamic_cast<value_group_member*>(node.get())) member->joined_group(*this);
    std::lock_guard lock(mutex_);
    members_.erase(
        std::remove_if(members_.begin(), members_.end(), [](const auto& w) { return w.expired(); }),
        members_.end());
    members_.push_back(node);
    if (cls != 0) {
        ticked_.push_back(ticked_member{node});
        ticker_cv_.notify_all();
    }
}

std::size_t value_group::size() const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(members_.begin(), members_.end(),
                                                  [](const auto& w) { return !w.expired(); }));
}

void value_group::post(std::function<void()> job) {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    jobs_.push_back(std::move(job));
    // Notified under the lock: the job may destroy the group as soon as the lock is released.
    worker_cv_.notify_one();
}

void value_group::ticker() {
    using clock = std::chrono::steady_clock;
    std::unique_lock lock(mutex_);
    ticker_cv_.wait(lock, [this] { return stopping_ || !ticked_.empty(); });
    auto next = clock::now() + phase_;
    while (!ticker_cv_.wait_until(lock, next, [this] { return stopping_; })) {
        std::vector<std::pair<std::shared_ptr<dh_db_leaf_node>, ticked_member*>> due;
        for (auto it = ticked_.begin(); it != ticked_.end();) {
            if (auto node = it->node.lock()) {
                due.emplace_back(std::move(node), &*it);
                ++it;
            } else {
                it = ticked_.erase(it);
            }
        }
        lock.unlock();
        for (auto& [node, member] : due) {
            std::exception_ptr failure;
            try {
                node->periodic_task(false);
            } catch (...) {
                failure = std::current_exception();
            }
            if (group_destroyed_by_this_thread) return;
            // Only this thread reads or writes `failing`.
            if (failure && !member->failing) {
                MSG_LOG(3, "value_group") << "Periodic task of " << node->get_path(0)
                                          << " failed: " << describe_exception(failure)
                                          << msg_log::getCodeTrace(__FILE__, __LINE__);
            }
            member->failing = static_cast<bool>(failure);
        }
        due.clear();
        if (group_destroyed_by_this_thread) return;
        lock.lock();
        // A late tick does not make up for the cycles it missed.
        const auto now = clock::now();
        next += period_;
        if (next <= now) next = now + period_;
    }
}

void value_group::worker() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mutex_);
            worker_cv_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (stopping_) return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        try {
            job();
        } catch (...) {
            // A job reports its own failures; the pool goes on.
        }
        job = nullptr;
        if (group_destroyed_by_this_thread) return;
    }
}

}  // namespace dh::api
