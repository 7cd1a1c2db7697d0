#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "dh_api/bound_method.hpp"
#include "dh_api/json_conversion.hpp"
#include "dh_db.hpp"
#include "dh_node.hpp"
#include "msg_log.hpp"
#include "write_batch.hpp"

namespace dh::api {

template <class T>
struct min_max_range_t {
    T min;
    T max;
};

template <class T>
struct min_max_grid_range_t {
    T min;
    T max;
    T grid;
};

// What a parameter advertises about the values it takes: nothing (the bool alternative), a
// range, a range on a grid, or a list of allowed values. Published in the description only.
template <class T>
using constraints_t =
    std::variant<bool, min_max_range_t<T>, min_max_grid_range_t<T>, std::vector<T>>;

template <class T>
void add_constraints(const constraints_t<T>& constraints, Value& info, Allocator& a) {
    std::visit(
        [&](const auto& c) {
            using C = std::decay_t<decltype(c)>;
            if constexpr (!std::is_same_v<C, bool>) {
                Value obj(rapidjson::kObjectType);
                if constexpr (std::is_same_v<C, std::vector<T>>) {
                    Value allowed(rapidjson::kArrayType);
                    for (const auto& v : c) allowed.PushBack(to_json_value(v, a), a);
                    obj.AddMember("allowed", allowed, a);
                } else {
                    obj.AddMember("min", to_json_value(c.min, a), a);
                    obj.AddMember("max", to_json_value(c.max, a), a);
                    if constexpr (std::is_same_v<C, min_max_grid_range_t<T>>)
                        obj.AddMember("grid", to_json_value(c.grid, a), a);
                }
                info.AddMember("constraints", obj, a);
            }
        },
        constraints);
}

// A configuration parameter bound to the handler method M, whose last parameter takes the
// client's value and whose leading parameters are fixed at creation (an interface name, a VLAN).
// The node keeps the last value written successfully; it calls M only for a value that differs
// from it (after a failed write, for every value: the failure may have left the device out of
// step, and writing the kept value again must be able to repair it), and tells subscribers and
// the history about every effective change. M runs under the
// node's mutex, so writes of one parameter are serialised. The advertised constraints are not
// enforced here: M validates what it receives.
template <auto M>
class config_param : public dh_db_event_node {
    using method_type = bound_method<M, method_arity_v<M> - 1>;

  public:
    using handler_type = typename method_type::handler_type;
    using value_type = client_value_t<M>;
    using getter_type = std::function<value_type()>;

    // Registers the parameter at `path`. The getter (may be empty) gives the initial value; it is
    // called once, here, and not kept, so it may refer to data that only live during start-up.
    // A getter that throws leaves the parameter unset.
    template <class... A>
    static std::shared_ptr<config_param> create(dh_db& db, std::string_view path,
                                                std::weak_ptr<handler_type> handler,
                                                getter_type getter, A&&... fixed) {
        auto node = std::make_shared<config_param>(db, dh_db::split_path(path), std::move(handler),
                                                   std::move(getter), std::forward<A>(fixed)...);
        db.add_node(node);
        return node;
    }

    template <class... A>
    config_param(dh_db& db, std::vector<std::string> path, std::weak_ptr<handler_type> handler,
                 getter_type getter, A&&... fixed)
        : dh_db_event_node(db, std::move(path)),
          method_(std::move(handler), std::forward<A>(fixed)...) {
        if (getter) {
            try {
                value_ = getter();
            } catch (...) {
                // The datastore may not hold the value yet; the parameter then starts unset.
            }
        }
        warn_read_ = !value_.has_value();
    }

    void get(std::string_view, Allocator& allocator, Value& out) override {
        std::lock_guard lock(mutex_);
        write_value(allocator, out);
    }

    // Inside a write batch (write_batch::current()) a failure of M leaves the parameter as it
    // was, since the batch changed nothing, and the value is adopted, with its event, only when
    // the batch commits.
    void set(std::string_view, const Value& value) override {
        std::lock_guard lock(mutex_);
        value_type v = from_json<value_type>(value);
        if (value_ && !failed_ && same_value(*value_, v)) return;
        if (write_batch::current()) {
            call(v);
            auto self = std::static_pointer_cast<config_param>(shared_from_this());
            write_batch::on_success([self, kept = std::make_shared<value_type>(std::move(v))] {
                std::lock_guard lock(self->mutex_);
                self->failed_ = false;
                self->adopt(std::move(*kept));
            });
            return;
        }
        failed_ = true;
        call(v);
        failed_ = false;
        adopt(std::move(v));
    }

    void reset() override {
        std::lock_guard lock(mutex_);
        value_.reset();
    }

    void subscribe(const std::shared_ptr<dh_session>& session, std::string_view path,
                   Allocator& allocator, Value& out, std::unique_lock<std::mutex>& lock) override {
        std::lock_guard guard(mutex_);
        dh_db_event_node::subscribe(session, path, allocator, out, lock);
        write_value(allocator, out);
        if (value_) {
            Document event = create_value_changed_event();
            event.AddMember("value", to_json_value(*value_, event.GetAllocator()),
                            event.GetAllocator());
            send_event_to_session_impl(session, true, std::move(event));
        }
    }

    std::string get_info() override { return "config value (read,write,subscribe)"; }

    Value get_info(Allocator& a) override {
        Value info = dh_db_event_node::get_info(a);
        std::lock_guard lock(mutex_);
        info.AddMember("type", "config param", a);
        info.AddMember("valueType", Value(type_name<value_type>().c_str(), a), a);
        info.AddMember("capabilities", capabilities(true, true, true, a), a);
        if (value_) info.AddMember("defaultValue", to_json_value(*value_, a), a);
        add_constraints(constraints_, info, a);
        return info;
    }

    bool is_async() override { return true; }

    // Each replaces the advertised constraints.
    void set_allowed_values(std::vector<value_type> values) {
        std::lock_guard lock(mutex_);
        constraints_ = std::move(values);
    }
    void set_range(value_type min, value_type max) {
        std::lock_guard lock(mutex_);
        constraints_ = min_max_range_t<value_type>{std::move(min), std::move(max)};
    }
    void set_grid_range(value_type min, value_type max, value_type grid) {
        std::lock_guard lock(mutex_);
        constraints_ =
            min_max_grid_range_t<value_type>{std::move(min), std::move(max), std::move(grid)};
    }

  private:
    // mutex_ held.
    void call(const value_type& v) {
        if constexpr (is_mutable_ref_v<client_param_t<M>>) {
            // M may change its argument; the stored value is the one the client wrote.
            value_type arg = copy_of(v);
            method_.call(arg);
        } else {
            method_.call(v);
        }
    }

    // mutex_ held. Keeps a value written successfully and tells about a change.
    void adopt(value_type v) {
        const bool changed = !value_ || !same_value(*value_, v);
        value_ = std::move(v);
        if (!changed) return;
        Document event = create_value_changed_event();
        event.AddMember("value", to_json_value(*value_, event.GetAllocator()),
                        event.GetAllocator());
        send_event_impl(std::move(event));
    }

    // mutex_ held. A read of a set value logs one warning if the parameter was created unset.
    void write_value(Allocator& allocator, Value& out) {
        if (!value_) {
            out.SetNull();
            return;
        }
        if (warn_read_) {
            MSG_LOG(4, "config") << "Configuration parameter read before being set, path = "
                                 << get_path(0) << msg_log::getCodeTrace(__FILE__, __LINE__);
            warn_read_ = false;
        }
        to_json(*value_, allocator, out);
    }

    // Serialises every operation of this parameter, including the call of M.
    std::mutex mutex_;
    constraints_t<value_type> constraints_{false};
    std::optional<value_type> value_;
    // The last call of M failed.
    bool failed_ = false;
    bool warn_read_ = false;
    const method_type method_;
};

}  // namespace dh::api
