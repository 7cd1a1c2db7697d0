#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "scheduler.hpp"

class dh_db_leaf_node;

namespace dh::api {

class value_group;

// Implemented by node kinds that need to know the group they belong to (polled values count
// their poll interval in the group's cycles and run their method on its worker).
class value_group_member {
  public:
    virtual ~value_group_member() = default;
    virtual void joined_group(value_group& group) = 0;
};

// A set of nodes that share one period, ticked by the scheduler.
//
// value_group(scheduler, period_ms, phase_ms):
//  - period_ms: the cycle length. Every cycle the scheduler's timer thread calls
//    periodic_task(false) of each member added with class 1.
//  - phase_ms: delay of the first cycle after the first class-1 member joins, so that groups of
//    the same period can be kept from ticking together (0: tick at once).
// Members run their slow work, such as polled reads, through post() on the scheduler's pool.
//
// add_value(node, class):
//  - class 0: the node belongs to the group (it is listed and kept in mind) but is not ticked;
//    parameters, commands and volatile values have no periodic work.
//  - class 1: monitored; ticked every cycle. Status values use the ticks for their delayed edge,
//    polled values for their poll interval, hysteresis filters for their delay cycles.
//
// The group holds its members weakly. Once the destructor returned, no member's periodic_task
// runs and no job the group posted runs or is still waiting.
class value_group {
  public:
    value_group(dh::scheduler& sched, unsigned period_ms, unsigned phase_ms);
    ~value_group();
    value_group(const value_group&) = delete;
    value_group& operator=(const value_group&) = delete;

    void add_value(const std::shared_ptr<dh_db_leaf_node>& node, unsigned cls);

    std::chrono::milliseconds period() const noexcept { return period_; }
    std::size_t size() const;

    // Runs job on the scheduler's pool. Jobs still waiting when the group is destroyed are
    // dropped; a job that throws is logged by the scheduler.
    void post(std::function<void()> job);

    // Liveness token for members that post work: expired once the group is being destroyed.
    std::weak_ptr<void> alive() const { return alive_; }

  private:
    void tick();

    dh::scheduler& sched_;
    const std::chrono::milliseconds period_;
    const std::chrono::milliseconds phase_;

    // Guards everything below.
    mutable std::mutex mutex_;
    // Signalled when the last holder of the liveness token let go of it.
    std::condition_variable released_cv_;
    bool released_ = false;
    std::shared_ptr<void> alive_;
    bool stopping_ = false;
    std::optional<dh::scheduler::task_id> ticker_;
    std::vector<std::weak_ptr<dh_db_leaf_node>> members_;
    // A list, so that a tick can note a member's failure streak while unlocked; only ticks erase
    // from it, and ticks never overlap.
    struct ticked_member {
        std::weak_ptr<dh_db_leaf_node> node;
        bool failing = false;
    };
    std::list<ticked_member> ticked_;
    // Posted jobs not yet ended, by the group's own number; shared with the jobs, which remove
    // themselves when they end (even when a job destroyed the group).
    struct posted_jobs {
        std::mutex mutex;
        std::uint64_t last = 0;
        std::map<std::uint64_t, dh::scheduler::task_id> tasks;
    };
    std::shared_ptr<posted_jobs> posted_ = std::make_shared<posted_jobs>();
};

}  // namespace dh::api
