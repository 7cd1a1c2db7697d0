#include <fmt/format.h>
#include <rapidjson/pointer.h>

#include "dh_error.hpp"
#include "lldp.hpp"
#include "lldp_neighbours.hpp"
#include "msg_log.hpp"

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

Document empty_array() {
    return Document(rapidjson::kArrayType);
}

}  // namespace

lldp_unit::lldp_unit(const host::door& door) : door_(door) {}

void lldp_unit::attach(std::string_view port, std::shared_ptr<pushed_document_node> neighbours) {
    neighbours->set_value(empty_array());
    std::lock_guard lock(mutex_);
    lldp_enabled[port] = false;
    lldp_neighbour_nodes[port] = std::move(neighbours);
}

void lldp_unit::attach_poll(std::weak_ptr<dh_db_leaf_node> any) {
    std::lock_guard lock(mutex_);
    poll_node_ = std::move(any);
}

void lldp_unit::lldp_set_enable(std::string_view port, bool enable) {
    std::shared_ptr<dh_db_leaf_node> poll;
    {
        std::lock_guard lock(mutex_);
        bool& enabled = lldp_enabled.at(port);
        if (enabled == enable) return;
        enabled = enable;
        if (!enable) {
            lldp_neighbour_nodes.at(port)->set_value(empty_array());
            return;
        }
        poll = poll_node_.lock();
    }
    // Fetch the neighbours now rather than at the next poll, which is every 30 s: lldpd sends
    // that seldom by default, so neighbours cannot change faster.
    if (poll) poll->periodic_task(true);
}

bool lldp_unit::lldp_get_enable(std::string_view port) {
    std::lock_guard lock(mutex_);
    return lldp_enabled.at(port);
}

Document lldp_unit::lldp_update_neighbours() {
    {
        std::lock_guard lock(mutex_);
        bool any_enabled = false;
        for (const auto& [port, enabled] : lldp_enabled) any_enabled = any_enabled || enabled;
        if (!any_enabled) return empty_array();
    }
    const std::string output = door_.call({"/sbin/lldpctl", "-f", "json"}, host::query());
    Document result = lldp_neighbours::interfaces(output);
    auto ports = lldp_neighbours::by_port(result);

    // Each port's value is set once, with its complete list, so that a subscriber never sees the
    // port emptied and refilled within one poll.
    std::lock_guard lock(mutex_);
    for (const auto& [port, node] : lldp_neighbour_nodes) {
        auto it = ports.find(port);
        if (it != ports.end() && lldp_enabled.at(port))
            node->set_value(std::move(it->second));
        else
            node->set_value(empty_array());
    }
    return result;
}
