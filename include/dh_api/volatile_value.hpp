#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "dh_api/bound_method.hpp"
#include "dh_api/json_conversion.hpp"
#include "dh_db.hpp"
#include "dh_node.hpp"

namespace dh::api {

// A value computed by the handler method M, called with the fixed arguments given at creation
// (all of M's parameters). Base is dh_db_leaf_node for a plain read-through value and
// dh_db_event_node for the polled kind.
template <class Base, auto M>
class async_volatile_value : public Base {
    using method_type = bound_method<M, method_arity_v<M>>;

  public:
    using handler_type = typename method_type::handler_type;
    using value_type = std::remove_cvref_t<typename method_type::result_type>;

    template <class... A>
    async_volatile_value(dh_db& db, std::vector<std::string> path,
                         std::weak_ptr<handler_type> handler, A&&... fixed)
        : Base(db, std::move(path)), method_(std::move(handler), std::forward<A>(fixed)...) {}

    using Base::get_info;
    Value get_info(Allocator& a) override {
        Value info = Base::get_info(a);
        set_member(info, "valueType", Value(type_name<value_type>().c_str(), a), a);
        set_member(info, "capabilities", capabilities(true, false, false, a), a);
        return info;
    }

    bool is_async() override { return true; }

  protected:
    // Calls M; dh_error -2 "Object has been removed" once the handler is gone.
    value_type call_method() const { return method_.call(); }

  private:
    const method_type method_;
};

// Read-through value: every read calls M again; nothing is cached.
template <auto M>
class volatile_value : public async_volatile_value<dh_db_leaf_node, M> {
    using base = async_volatile_value<dh_db_leaf_node, M>;

  public:
    using base::base;
    using typename base::handler_type;

    template <class... A>
    static std::shared_ptr<volatile_value> create(dh_db& db, std::string_view path,
                                                  std::weak_ptr<handler_type> handler,
                                                  A&&... fixed) {
        auto node = std::make_shared<volatile_value>(db, dh_db::split_path(path),
                                                     std::move(handler), std::forward<A>(fixed)...);
        db.add_node(node);
        return node;
    }

    void get(std::string_view, Allocator& allocator, Value& out) override {
        to_json(this->call_method(), allocator, out);
    }

    using base::get_info;
    std::string get_info() override { return "volatile value (read)"; }
};

}  // namespace dh::api
