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

// A command bound to the handler method M: a run converts the client's value to M's last
// parameter, calls M with the fixed leading arguments and answers M's result. It keeps no value
// and takes no lock: concurrent runs may overlap, and M serialises itself where it must.
template <auto M>
class command : public dh_db_leaf_node {
    using method_type = bound_method<M, method_arity_v<M> - 1>;

  public:
    using handler_type = typename method_type::handler_type;
    using value_type = client_value_t<M>;
    using result_type = std::remove_cvref_t<typename method_type::result_type>;

    template <class... A>
    static std::shared_ptr<command> create(dh_db& db, std::string_view path,
                                           std::weak_ptr<handler_type> handler, A&&... fixed) {
        auto node = std::make_shared<command>(db, dh_db::split_path(path), std::move(handler),
                                              std::forward<A>(fixed)...);
        db.add_node(node);
        return node;
    }

    template <class... A>
    command(dh_db& db, std::vector<std::string> path, std::weak_ptr<handler_type> handler,
            A&&... fixed)
        : dh_db_leaf_node(db, std::move(path)),
          method_(std::move(handler), std::forward<A>(fixed)...) {}

    void run(std::string_view, const Value& in, Allocator& allocator, Value& out) override {
        value_type v = from_json<value_type>(in);
        if constexpr (std::is_void_v<result_type>) {
            invoke(v);
            out.SetNull();
        } else {
            to_json(invoke(v), allocator, out);
        }
    }

    std::string get_info() override { return "command value returning response (write)"; }

    Value get_info(Allocator& a) override {
        Value info = dh_db_leaf_node::get_info(a);
        info.AddMember("type", "command", a);
        info.AddMember("valueType", Value(type_name<value_type>().c_str(), a), a);
        info.AddMember("returnType", Value(type_name<result_type>().c_str(), a), a);
        info.AddMember("capabilities", capabilities(false, true, false, a), a);
        return info;
    }

    bool is_async() override { return true; }
    bool write_returns_response() override { return true; }

  private:
    decltype(auto) invoke(value_type& v) const {
        if constexpr (std::is_reference_v<client_param_t<M>>)
            return method_.call(v);
        else
            return method_.call(std::move(v));
    }

    const method_type method_;
};

}  // namespace dh::api
