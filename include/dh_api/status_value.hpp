#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include <boost/core/demangle.hpp>

#include "dh_api/json_conversion.hpp"
#include "dh_db.hpp"
#include "dh_node.hpp"

namespace dh::api {

// A read-only value that the program sets (the configuration status). Reads and subscribers see
// the published value. For a boolean, a rise from a published false to true is published at
// once; every other change is published only after it has been pending for more than
// `delay_cycles` ticks of the node's value group, and not at all if the value returns to the
// published one before then. Without subscribers there is nobody to delay an event for, so the
// published value follows the set value at once.
template <class T, class Eq = std::equal_to<T>>
class status_value : public dh_db_event_node {
  public:
    static std::shared_ptr<status_value> create(dh_db& db, std::string_view path, T initial,
                                                std::uint32_t delay_cycles) {
        auto node = std::make_shared<status_value>(db, dh_db::split_path(path), std::move(initial),
                                                   delay_cycles);
        db.add_node(node);
        return node;
    }

    status_value(dh_db& db, std::vector<std::string> path, T initial, std::uint32_t delay_cycles)
        : dh_db_event_node(db, std::move(path)),
          current_(copy_of(initial)),
          published_(std::move(initial)),
          delay_cycles_(delay_cycles) {}

    using dh_db_event_node::set;

    // Thread-safe; used by the program, not by clients.
    void set(T value) {
        std::lock_guard lock(mutex_);
        if (eq_(value, current_)) return;
        if (eq_(current_, published_)) cycles_ = 0;
        current_ = std::move(value);
        if (!has_subscribers()) {
            published_ = copy_of(current_);
            return;
        }
        if constexpr (std::is_same_v<T, bool>) {
            if (!published_ && current_) publish();
        }
    }

    void get(std::string_view, Allocator& allocator, Value& out) override {
        std::lock_guard lock(mutex_);
        to_json(published_, allocator, out);
    }

    void periodic_task(bool) override {
        std::lock_guard lock(mutex_);
        if (eq_(current_, published_)) return;
        if (!has_subscribers()) {
            published_ = copy_of(current_);
            return;
        }
        if (cycles_++ >= delay_cycles_) publish();
    }

    void subscribe(const std::shared_ptr<dh_session>& session, std::string_view path,
                   Allocator& allocator, Value& out, std::unique_lock<std::mutex>& lock) override {
        std::lock_guard guard(mutex_);
        dh_db_event_node::subscribe(session, path, allocator, out, lock);
        to_json(published_, allocator, out);
        Document event = create_value_changed_event();
        event.AddMember("value", to_json_value(published_, event.GetAllocator()),
                        event.GetAllocator());
        send_event_to_session_impl(session, true, std::move(event));
    }

    std::string get_info() override { return "status value (read,subscribe)"; }

    Value get_info(Allocator& a) override {
        Value info = dh_db_event_node::get_info(a);
        info.AddMember("type", "status value", a);
        info.AddMember("valueType", Value(type_name<T>().c_str(), a), a);
        info.AddMember("capabilities", capabilities(true, false, true, a), a);
        info.AddMember("lessFunction", Value(comparison_name().c_str(), a), a);
        info.AddMember("delayCycles", delay_cycles_, a);
        // Set by the program, never polled.
        info.AddMember("pollInterval", 0u, a);
        Value hysteresis(rapidjson::kObjectType);
        hysteresis.AddMember("filter", "delayed", a);
        hysteresis.AddMember("delayCycles", delay_cycles_, a);
        hysteresis.AddMember("immediateRisingEdge", std::is_same_v<T, bool>, a);
        info.AddMember("hysteresis", hysteresis, a);
        return info;
    }

    bool is_async() override { return false; }

  private:
    static std::string comparison_name() {
        if constexpr (std::is_same_v<Eq, std::equal_to<T>> || std::is_same_v<Eq, std::equal_to<>>)
            return "equal_to";
        else
            return boost::core::demangle(typeid(Eq).name());
    }

    // mutex_ held.
    void publish() {
        published_ = copy_of(current_);
        Document event = create_value_changed_event();
        event.AddMember("value", to_json_value(published_, event.GetAllocator()),
                        event.GetAllocator());
        send_event_impl(std::move(event));
    }

    // Guards the values and the cycle counter; taken by set, get, periodic_task and subscribe.
    std::mutex mutex_;
    T current_;
    T published_;
    // Ticks the current change has been pending.
    std::uint32_t cycles_ = 0;
    const std::uint32_t delay_cycles_;
    Eq eq_;
};

}  // namespace dh::api
