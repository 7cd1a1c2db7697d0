#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "dh_api/json_conversion.hpp"
#include "dh_db.hpp"
#include "dh_node.hpp"

namespace dh::api {

// Decides which new values of a monitored node are published (read by clients, sent to
// subscribers, recorded in the history). Kinds:
//  - "equal": every value that differs from the published one is published at once.
//  - "default" (numbers): a change from the published value of at least the immediate limit is
//    published at once; one of at least the delayed limit is published once it has lasted
//    `delay_cycles` ticks; smaller changes are not published. For other types it is "equal".
//  - "custom": a value for which predicate(published, candidate) is true is published, at once
//    or, with `delay_cycles` > 0, once it has lasted that many ticks.
// A waiting value "lasts" while every newer value would still be published; the latest one is
// published when the wait ends. A newer value that would not be published ends the wait.
template <class T>
class hysteresis_filter {
  public:
    using predicate = std::function<bool(const T& published, const T& candidate)>;

    enum class verdict { publish, wait, drop };

    static hysteresis_filter make_equal() { return hysteresis_filter(kind::equal); }

    static hysteresis_filter make_default(double immediate_limit, double delayed_limit,
                                          std::uint32_t delay_cycles) {
        hysteresis_filter f(kind::limits);
        f.immediate_limit_ = immediate_limit;
        f.delayed_limit_ = delayed_limit;
        f.delay_cycles_ = delay_cycles;
        return f;
    }

    static hysteresis_filter make_custom(predicate publish_if, std::uint32_t delay_cycles = 0) {
        hysteresis_filter f(kind::custom);
        f.predicate_ = std::move(publish_if);
        f.delay_cycles_ = delay_cycles;
        return f;
    }

    verdict judge(const T& published, const T& candidate) const {
        if (kind_ == kind::custom) {
            if (!predicate_ || !predicate_(published, candidate)) return verdict::drop;
            return delay_cycles_ == 0 ? verdict::publish : verdict::wait;
        }
        if (same_value(published, candidate)) return verdict::drop;
        if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) {
            if (kind_ == kind::limits) {
                const double change =
                    std::fabs(static_cast<double>(candidate) - static_cast<double>(published));
                if (change >= immediate_limit_) return verdict::publish;
                if (change < delayed_limit_) return verdict::drop;
                return delay_cycles_ == 0 ? verdict::publish : verdict::wait;
            }
        }
        return verdict::publish;
    }

    std::uint32_t delay_cycles() const noexcept { return delay_cycles_; }

    // {"filter": "equal" | "default" | "custom", and the limits of the kind}.
    Value describe(Allocator& a) const {
        Value d(rapidjson::kObjectType);
        switch (kind_) {
            case kind::equal:
                d.AddMember("filter", "equal", a);
                break;
            case kind::limits:
                d.AddMember("filter", "default", a);
                d.AddMember("ImmediateLimit", immediate_limit_, a);
                d.AddMember("delayedLimit", delayed_limit_, a);
                d.AddMember("delayCycles", delay_cycles_, a);
                break;
            case kind::custom:
                d.AddMember("filter", "custom", a);
                d.AddMember("delayCycles", delay_cycles_, a);
                break;
        }
        return d;
    }

  private:
    enum class kind { equal, limits, custom };
    explicit hysteresis_filter(kind k) : kind_(k) {}

    kind kind_;
    double immediate_limit_ = 0;
    double delayed_limit_ = 0;
    std::uint32_t delay_cycles_ = 0;
    predicate predicate_;
};

// A monitored value: Impl (polled_volatile_value_impl or pushed_volatile_value_impl) produces
// candidate values, this layer filters them and publishes. Reads answer the published value
// (dh_error -61 "Value has not been set" before the first one) without calling the handler;
// the first candidate is always published. Waiting candidates are aged by periodic_task(false),
// i.e. by the ticks of a value group the node joined with class 1.
template <class Impl>
class hysteresis_filtered_value final : public Impl {
  public:
    using value_type = typename Impl::value_type;
    using filter_type = hysteresis_filter<value_type>;

    // A polled value: M is called with `fixed` every `poll_cycles` ticks of its value group.
    template <class I = Impl, class... A>
    requires I::is_polled static std::shared_ptr<hysteresis_filtered_value> create(
        dh_db& db, std::string_view path, std::weak_ptr<typename I::handler_type> handler,
        filter_type filter, unsigned poll_cycles, A&&... fixed) {
        auto node = std::make_shared<hysteresis_filtered_value>(
            std::move(filter), db, dh_db::split_path(path), std::move(handler), poll_cycles,
            std::forward<A>(fixed)...);
        db.add_node(node);
        return node;
    }

    // A pushed value: the program sets it with set_value().
    static std::shared_ptr<hysteresis_filtered_value> create(
        dh_db& db, std::string_view path,
        filter_type filter = filter_type::make_equal()) requires(!Impl::is_polled) {
        auto node = std::make_shared<hysteresis_filtered_value>(std::move(filter), db,
                                                                dh_db::split_path(path));
        db.add_node(node);
        return node;
    }

    template <class... A>
    hysteresis_filtered_value(filter_type filter, dh_db& db, std::vector<std::string> path,
                              A&&... impl_args)
        : Impl(db, std::move(path), std::forward<A>(impl_args)...), filter_(std::move(filter)) {}

    void get(std::string_view, Allocator& allocator, Value& out) override {
        std::lock_guard lock(this->value_mutex_);
        if (!published_) throw dh_error(-61, "Value has not been set");
        to_json(*published_, allocator, out);
    }

    // Answers null while nothing has been published; the subscriber gets the first value as an
    // event.
    void subscribe(const std::shared_ptr<dh_session>& session, std::string_view path,
                   Allocator& allocator, Value& out, std::unique_lock<std::mutex>& lock) override {
        std::lock_guard guard(this->value_mutex_);
        dh_db_event_node::subscribe(session, path, allocator, out, lock);
        if (!published_) {
            out.SetNull();
            return;
        }
        to_json(*published_, allocator, out);
        Document event = this->create_value_changed_event();
        event.AddMember("value", to_json_value(*published_, event.GetAllocator()),
                        event.GetAllocator());
        this->send_event_to_session_impl(session, true, std::move(event));
    }

    void periodic_task(bool immediate) override {
        if (!immediate) {
            std::lock_guard lock(this->value_mutex_);
            if (waiting_ && ++waited_cycles_ >= filter_.delay_cycles())
                publish(std::move(*waiting_));
        }
        Impl::periodic_task(immediate);
    }

    using Impl::get_info;
    Value get_info(Allocator& a) override {
        Value info = Impl::get_info(a);
        set_member(info, "type", Value(Impl::kind_name, a), a);
        set_member(info, "capabilities", capabilities(true, false, true, a), a);
        set_member(info, "hysteresis", filter_.describe(a), a);
        return info;
    }

    bool is_async() override { return false; }

  protected:
    // value_mutex_ held.
    void accept_value(value_type&& candidate) override {
        if (!published_) {
            publish(std::move(candidate));
            return;
        }
        switch (filter_.judge(*published_, candidate)) {
            case filter_type::verdict::publish:
                publish(std::move(candidate));
                break;
            case filter_type::verdict::wait:
                if (!waiting_) waited_cycles_ = 0;
                waiting_ = std::move(candidate);
                break;
            case filter_type::verdict::drop:
                waiting_.reset();
                break;
        }
    }

  private:
    // value_mutex_ held.
    void publish(value_type&& v) {
        published_ = std::move(v);
        waiting_.reset();
        Document event = this->create_value_changed_event();
        event.AddMember("value", to_json_value(*published_, event.GetAllocator()),
                        event.GetAllocator());
        this->send_event_impl(std::move(event));
    }

    const filter_type filter_;
    std::optional<value_type> published_;
    // A candidate the filter holds back until it has lasted the filter's delay.
    std::optional<value_type> waiting_;
    std::uint32_t waited_cycles_ = 0;
};

}  // namespace dh::api
