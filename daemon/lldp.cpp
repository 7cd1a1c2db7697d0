#include <fmt/format.h>
#include <rapidjson/pointer.h>

#include "dh_error.hpp"
#include "lldp_neighbours.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"

namespace lldp_neighbours {

dh::Document interfaces(const std::string& output) {
    dh::Document parsed;
    parsed.Parse(output);
    if (parsed.HasParseError()) throw dh_error(-22, "Invalid json response: " + output);
    dh::Document result(rapidjson::kArrayType);
    auto* found = rapidjson::Pointer("/lldp/interface").Get(parsed);
    if (!found) return result;
    if (found->IsArray()) {
        result.CopyFrom(*found, result.GetAllocator());
    } else if (found->IsObject()) {
        result.PushBack(dh::Value(*found, result.GetAllocator()), result.GetAllocator());
    } else {
        // lldpd never prints anything else here; refuse it rather than guess.
        throw dh_error(-22, "Invalid json response: " + output);
    }
    return result;
}

std::map<std::string, dh::Document, std::less<>> by_port(const dh::Value& interfaces) {
    std::map<std::string, dh::Document, std::less<>> ports;
    for (const auto& element : interfaces.GetArray()) {
        if (!element.IsObject() || element.MemberCount() == 0) continue;
        const auto& first = *element.MemberBegin();
        auto [it, inserted] = ports.try_emplace(first.name.GetString());
        if (inserted) it->second.SetArray();
        it->second.PushBack(dh::Value(first.value, it->second.GetAllocator()),
                            it->second.GetAllocator());
    }
    return ports;
}

}  // namespace lldp_neighbours

namespace {

constexpr std::string_view any_neighbours_path = "data/any/lldp/neighbours";

// lldpd sends every 30 s by default, so neighbours cannot change faster than that; a port that is
// switched on is fetched at once instead of waiting for the next poll.
constexpr unsigned poll_cycles = 30;

Document empty_array() {
    return Document(rapidjson::kArrayType);
}

}  // namespace

void sysrepo_device_handler::lldp_init() {
    using polled_node = dh::api::hysteresis_filtered_value<
        dh::api::polled_volatile_value_impl<&sysrepo_device_handler::lldp_update_neighbours>>;

    const auto self = weak_from_this();
    for (std::string_view port : sysrepo_common::RDM_INTERFACES) {
        {
            std::lock_guard lock(mutex);
            lldp_enabled[port] = false;
        }
        auto enable = dh::api::config_param<&sysrepo_device_handler::lldp_set_enable>::create(
            db, fmt::format("config/{}/lldp/enable", port), self,
            [self, port] {
                auto handler = self.lock();
                if (!handler) throw dh_error(-2, "Object has been removed");
                return handler->lldp_get_enable(port);
            },
            port);
        group.add_value(enable, 0);
        auto node = pushed_document_node::create(db, fmt::format("data/{}/lldp/neighbours", port),
                                                 pushed_document_node::filter_type::make_equal());
        node->set_value(empty_array());
        std::lock_guard lock(mutex);
        lldp_neighbour_nodes[port] = std::move(node);
    }
    auto any = polled_node::create(db, any_neighbours_path, self,
                                   polled_node::filter_type::make_equal(), poll_cycles);
    group.add_value(any, 1);
}

void sysrepo_device_handler::lldp_set_enable(std::string_view port, bool enable) {
    {
        std::lock_guard lock(mutex);
        bool& enabled = lldp_enabled.at(port);
        if (enabled == enable) return;
        enabled = enable;
        if (!enable) {
            lldp_neighbour_nodes.at(port)->set_value(empty_array());
            return;
        }
    }
    // Fetch the neighbours now rather than at the next poll. The poll takes `mutex` itself.
    if (auto any = db.find_leaf_node(any_neighbours_path)) any->periodic_task(true);
}

bool sysrepo_device_handler::lldp_get_enable(std::string_view port) {
    std::lock_guard lock(mutex);
    return lldp_enabled.at(port);
}

Document sysrepo_device_handler::lldp_update_neighbours() {
    {
        std::lock_guard lock(mutex);
        bool any_enabled = false;
        for (const auto& [port, enabled] : lldp_enabled) any_enabled = any_enabled || enabled;
        if (!any_enabled) return empty_array();
    }
    const std::string output = sysrepo_common::exec(
        fmt::format("{} /sbin/lldpctl -f json", sysrepo_common::NSENTER_CMD), true);
    Document result = lldp_neighbours::interfaces(output);
    auto ports = lldp_neighbours::by_port(result);

    // Each port's value is set once, with its complete list, so that a subscriber never sees the
    // port emptied and refilled within one poll.
    std::lock_guard lock(mutex);
    for (const auto& [port, node] : lldp_neighbour_nodes) {
        auto it = ports.find(port);
        if (it != ports.end() && lldp_enabled.at(port))
            node->set_value(std::move(it->second));
        else
            node->set_value(empty_array());
    }
    return result;
}
