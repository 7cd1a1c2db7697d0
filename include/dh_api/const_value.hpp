#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dh_api/json_conversion.hpp"
#include "dh_db.hpp"
#include "dh_node.hpp"

namespace dh::api {

// A value fixed when the node is created (a MAC address, a firmware version).
template <class T>
class const_value : public dh_db_leaf_node {
  public:
    static std::shared_ptr<const_value> create(dh_db& db, std::string_view path, T value) {
        auto node = std::make_shared<const_value>(db, dh_db::split_path(path), std::move(value));
        db.add_node(node);
        return node;
    }

    const_value(dh_db& db, std::vector<std::string> path, T value)
        : dh_db_leaf_node(db, std::move(path)), value_(std::move(value)) {}

    void get(std::string_view, Allocator& allocator, Value& out) override {
        to_json(value_, allocator, out);
    }

    std::string get_info() override { return "const value (read)"; }

    Value get_info(Allocator& a) override {
        Value info = dh_db_leaf_node::get_info(a);
        info.AddMember("type", "const value", a);
        info.AddMember("valueType", Value(type_name<T>().c_str(), a), a);
        info.AddMember("capabilities", capabilities(true, false, false, a), a);
        return info;
    }

    bool is_async() override { return false; }

  private:
    const T value_;
};

}  // namespace dh::api
