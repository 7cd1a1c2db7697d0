#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dh_api/json_conversion.hpp"
#include "dh_node.hpp"

namespace dh::api {

// The pushing half of a monitored value (used as hysteresis_filtered_value<
// pushed_volatile_value_impl<T>>): the program sets the value from any thread with set_value();
// each value set is offered to the filter. value() answers the last value set (not the
// published one), so that a program can build a value up in steps.
template <class T>
class pushed_volatile_value_impl : public dh_db_event_node {
  public:
    using value_type = T;
    static constexpr bool is_polled = false;
    static constexpr const char* kind_name = "pushed value";

    pushed_volatile_value_impl(dh_db& db, std::vector<std::string> path)
        : dh_db_event_node(db, std::move(path)) {}

    void set_value(T v) {
        std::lock_guard lock(value_mutex_);
        current_ = copy_of(v);
        accept_value(std::move(v));
    }

    // A copy of the last value set, made under the node's lock; dh_error -61 if none was set.
    T value() const {
        std::lock_guard lock(value_mutex_);
        if (!current_) throw dh_error(-61, "Value has not been set");
        return copy_of(*current_);
    }

    // Pushed values have nothing to do per tick; the filter layer ages its waiting value.
    void periodic_task(bool) override {}

    using dh_db_event_node::get_info;
    std::string get_info() override { return "pushed value (read,subscribe)"; }

    Value get_info(Allocator& a) override {
        Value info = dh_db_event_node::get_info(a);
        set_member(info, "valueType", Value(type_name<T>().c_str(), a), a);
        set_member(info, "capabilities", capabilities(true, false, false, a), a);
        return info;
    }

  protected:
    // Receives every value set, with value_mutex_ held.
    virtual void accept_value(T&& v) = 0;

    // Guards current_ and the filter state of the derived layer.
    mutable std::mutex value_mutex_;

  private:
    std::optional<T> current_;
};

}  // namespace dh::api
