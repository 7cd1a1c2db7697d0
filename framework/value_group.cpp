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

value_group::value_group(dh::scheduler& sched, unsigned period_ms, unsigned phase_ms)
    : sched_(sched), period_(std::max(period_ms, 1u)), phase_(phase_ms) {
    // The token's deleter runs when its last holder lets go, which the destructor waits for.
    alive_ = std::shared_ptr<void>(this, [this](void*) {
        std::lock_guard lock(mutex_);
        released_ = true;
        released_cv_.notify_all();
    });
}

value_group::~value_group() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    // A member that holds the liveness token is inside post(); wait until it has left, after
    // which nothing is posted any more.
    alive_.reset();
    std::optional<dh::scheduler::task_id> ticker;
    {
        std::unique_lock lock(mutex_);
        released_cv_.wait(lock, [this] { return released_; });
        ticker = ticker_;
    }
    if (ticker) sched_.cancel(*ticker);
    std::map<std::uint64_t, dh::scheduler::task_id> jobs;
    {
        std::lock_guard lock(posted_->mutex);
        jobs = posted_->tasks;
    }
    for (const auto& [number, task] : jobs) sched_.cancel(task);
}

void value_group::add_value(const std::shared_ptr<dh_db_leaf_node>& node, unsigned cls) {
    if (!node) return;
    if (auto* member = dynamic_cast<value_group_member*>(node.get())) member->joined_group(*this);
    std::lock_guard lock(mutex_);
    members_.erase(
        std::remove_if(members_.begin(), members_.end(), [](const auto& w) { return w.expired(); }),
        members_.end());
    members_.push_back(node);
    if (cls == 0) return;
    ticked_.push_back(ticked_member{node});
    if (!ticker_ && !stopping_) ticker_ = sched_.every(period_, phase_, [this] { tick(); });
}

std::size_t value_group::size() const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(members_.begin(), members_.end(),
                                                  [](const auto& w) { return !w.expired(); }));
}

void value_group::post(std::function<void()> job) {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    std::lock_guard jobs_lock(posted_->mutex);
    const auto number = ++posted_->last;
    // The job may release the group's owner: afterwards it touches only the shared list.
    posted_->tasks[number] = sched_.post([jobs = posted_, number, job = std::move(job)] {
        try {
            job();
        } catch (...) {
            // A job reports its own failures.
        }
        std::lock_guard lock(jobs->mutex);
        jobs->tasks.erase(number);
    });
}

void value_group::tick() {
    std::vector<std::pair<std::shared_ptr<dh_db_leaf_node>, ticked_member*>> due;
    {
        std::lock_guard lock(mutex_);
        for (auto it = ticked_.begin(); it != ticked_.end();) {
            if (auto node = it->node.lock()) {
                due.emplace_back(std::move(node), &*it);
                ++it;
            } else {
                it = ticked_.erase(it);
            }
        }
    }
    for (auto& [node, member] : due) {
        std::exception_ptr failure;
        try {
            node->periodic_task(false);
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure && !member->failing) {
            MSG_LOG(3, "value_group") << "Periodic task of " << node->get_path(0)
                                      << " failed: " << describe_exception(failure)
                                      << msg_log::getCodeTrace(__FILE__, __LINE__);
        }
        member->failing = static_cast<bool>(failure);
    }
}

}  // namespace dh::api
