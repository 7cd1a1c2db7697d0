#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

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

// A set of nodes that share one period.
//
// value_group(period_ms, phase_ms, workers):
//  - period_ms: the cycle length. Every cycle the group's ticker thread calls
//    periodic_task(false) of each member added with class 1.
//  - phase_ms: delay of the first cycle after the first class-1 member joins, so that groups of
//    the same period can be kept from ticking together (0: tick at once).
//  - workers: threads of the group's worker pool, on which members run their slow work such as
//    polled reads (0: one thread).
//
// add_value(node, class):
//  - class 0: the node belongs to the group (it is listed and kept in mind) but is not ticked;
//    parameters, commands and volatile values have no periodic work.
//  - class 1: monitored; ticked every cycle. Status values use the ticks for their delayed edge,
//    polled values for their poll interval, hysteresis filters for their delay cycles.
//
// The group holds its members weakly; the ticker and the workers stop, and are joined, when the
// group is destroyed. A member's periodic_task never runs after the destructor returned.
class value_group {
  public:
    value_group(unsigned period_ms, unsigned phase_ms, unsigned workers);
    ~value_group();
    value_group(const value_group&) = delete;
    value_group& operator=(const value_group&) = delete;

    void add_value(const std::shared_ptr<dh_db_leaf_node>& node, unsigned cls);

    std::chrono::milliseconds period() const noexcept { return period_; }
    std::size_t size() const;

    // Runs job on the group's worker pool. Jobs still queued when the group is destroyed are
    // dropped; a job that throws is ignored.
    void post(std::function<void()> job);

    // Liveness token for members that post work: expired once the group is being destroyed.
    std::weak_ptr<void> alive() const { return alive_; }

  private:
    void ticker();
    void worker();

    const std::chrono::milliseconds period_;
    const std::chrono::milliseconds phase_;
    const unsigned worker_count_;
    std::shared_ptr<void> alive_;

    // Guards everything below; the ticker and the workers wait on their condition variables.
    mutable std::mutex mutex_;
    std::condition_variable ticker_cv_;
    std::condition_variable worker_cv_;
    bool stopping_ = false;
    std::vector<std::weak_ptr<dh_db_leaf_node>> members_;
    // A list, so that the ticker can note a member's failure streak while unlocked; only the
    // ticker erases from it.
    struct ticked_member {
        std::weak_ptr<dh_db_leaf_node> node;
        bool failing = false;
    };
    std::list<ticked_member> ticked_;
    std::deque<std::function<void()>> jobs_;
    std::thread ticker_thread_;
    std::vector<std::thread> worker_threads_;
};

}  // namespace dh::api
