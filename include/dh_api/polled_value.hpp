#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dh_api/json_conversion.hpp"
#include "dh_api/volatile_value.hpp"
#include "dh_node.hpp"
#include "msg_log.hpp"
#include "value_group.hpp"

namespace dh::api {

// The polling half of a monitored value (used as hysteresis_filtered_value<
// polled_volatile_value_impl<&M>>): M is called with the fixed arguments on the first tick of the
// node's value group, then every `poll_cycles` ticks, and at once on periodic_task(true). Calls
// run on the scheduler's pool (value_group::post), one at a time per node; a request that arrives
// while a call is running makes it run once more afterwards. A call that throws leaves the last
// value in place; the first failure of a streak is logged, a success ends the streak. Outside a
// value group only periodic_task(true) polls, on the caller's thread.
template <auto M>
class polled_volatile_value_impl : public async_volatile_value<dh_db_event_node, M>,
                                   public value_group_member {
    using base = async_volatile_value<dh_db_event_node, M>;

  public:
    using typename base::handler_type;
    using typename base::value_type;
    static constexpr bool is_polled = true;
    static constexpr const char* kind_name = "polled value";

    template <class... A>
    polled_volatile_value_impl(dh_db& db, std::vector<std::string> path,
                               std::weak_ptr<handler_type> handler, unsigned poll_cycles,
                               A&&... fixed)
        : base(db, std::move(path), std::move(handler), std::forward<A>(fixed)...),
          poll_cycles_(std::max(poll_cycles, 1u)) {}

    void joined_group(value_group& group) override {
        std::lock_guard lock(value_mutex_);
        group_ = &group;
        group_alive_ = group.alive();
        period_ = group.period();
    }

    void periodic_task(bool immediate) override {
        value_group* group = nullptr;
        std::shared_ptr<void> group_alive;
        {
            std::lock_guard lock(value_mutex_);
            if (!immediate && ticks_until_poll_ > 0) {
                --ticks_until_poll_;
                return;
            }
            ticks_until_poll_ = poll_cycles_ - 1;
            if (polling_) {
                poll_again_ = true;
                return;
            }
            group = group_;
            if (group) {
                group_alive = group_alive_.lock();
                // The group is being destroyed: nothing polls any more.
                if (!group_alive) return;
            }
            polling_ = true;
        }
        if (!group) {
            poll();
            return;
        }
        // The token keeps the group from completing its destruction while we post to it.
        group->post([weak = this->weak_from_this()] {
            if (auto node = weak.lock())
                static_cast<polled_volatile_value_impl*>(node.get())->poll();
        });
    }

    using base::get_info;
    std::string get_info() override { return "polled value (read,subscribe)"; }

    Value get_info(Allocator& a) override {
        Value info = base::get_info(a);
        std::lock_guard lock(value_mutex_);
        const auto interval = static_cast<std::uint64_t>(period_.count()) * poll_cycles_;
        set_member(info, "pollInterval", Value(interval), a);
        return info;
    }

  protected:
    // Receives every successfully polled value, with value_mutex_ held.
    virtual void accept_value(value_type&& v) = 0;

    // Guards the polling state here and the filter state of the derived layer.
    mutable std::mutex value_mutex_;

  private:
    void poll() {
        for (;;) {
            {
                std::lock_guard lock(value_mutex_);
                poll_again_ = false;
            }
            std::optional<value_type> v;
            std::string error;
            try {
                v.emplace(this->call_method());
            } catch (const dh_error& e) {
                error = std::to_string(e.code()) + " " + e.message();
            } catch (const std::exception& e) {
                error = e.what();
            } catch (...) {
                error = "unknown exception";
            }
            std::lock_guard lock(value_mutex_);
            if (v) {
                failing_ = false;
                accept_value(std::move(*v));
            } else if (!failing_) {
                failing_ = true;
                MSG_LOG(3, "poll") << "Polling " << this->get_path(0) << " failed: " << error
                                   << msg_log::getCodeTrace(__FILE__, __LINE__);
            }
            if (!poll_again_) {
                polling_ = false;
                return;
            }
        }
    }

    const unsigned poll_cycles_;
    value_group* group_ = nullptr;
    std::weak_ptr<void> group_alive_;
    std::chrono::milliseconds period_{0};
    unsigned ticks_until_poll_ = 0;
    bool polling_ = false;
    bool poll_again_ = false;
    bool failing_ = false;
};

}  // namespace dh::api
