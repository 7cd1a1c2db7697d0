#include "gateway.hpp"

#include <string>

#include "dh_error.hpp"
#include "interfaces.hpp"
#include "msg_log.hpp"
#include "raise.hpp"
#include "sysrepo_common.hpp"
#include "yang_doc.hpp"

using dh::Value;

namespace {

// The route list of a static-routing entry, or nullptr.
template <class V>
auto* route_list(V& entry) {
    auto* routes =
        yang_doc::path(entry, "static-routes", "ietf-ipv4-unicast-routing:ipv4", "route");
    return routes && routes->IsArray() ? routes : nullptr;
}

}  // namespace

void check_gateway_address(const std::string& address) {
    if (address.empty() || sysrepo_common::is_string_ipaddress(address)) return;
    dh::raise(-22, "Invalid gateway address: " + address, "update_gateway");
}

std::string interfaces_unit::get_gateway() {
    const Document doc = ds_.export_running();
    const Value* entry = yang_doc::find_in_list(&ospf_unit::get_control_plane_protocol(doc), "type",
                                                yang_doc::static_type);
    const Value* routes = entry ? route_list(*entry) : nullptr;
    const Value* next_hop = routes && !routes->Empty()
                                ? yang_doc::path((*routes)[0], "next-hop", "next-hop-address")
                                : nullptr;
    return next_hop && next_hop->IsString() ? next_hop->GetString() : "0.0.0.0";
}

// The gateway is the first route of the static-routing entry; other routes are left alone.
void interfaces_unit::update_gateway(Document& doc, const std::string& address) {
    auto& a = doc.GetAllocator();
    Value& protocols = ospf_unit::get_control_plane_protocol(doc);
    auto entry = protocols.Begin();
    while (entry != protocols.End() &&
           !yang_doc::string_is(yang_doc::member(*entry, "type"), yang_doc::static_type))
        ++entry;

    if (address.empty()) {
        if (entry != protocols.End()) protocols.Erase(entry);
        return;
    }
    check_gateway_address(address);

    if (entry != protocols.End()) {
        // A static entry without routes is kept without a gateway.
        Value* routes = route_list(*entry);
        if (!routes || routes->Empty()) return;
        Value& first = (*routes)[0];
        if (!first.IsObject()) first.SetObject();
        Value& next_hop = yang_doc::object_member(first, "next-hop", a);
        yang_doc::set_member(next_hop, "next-hop-address", Value(address, a), a);
        return;
    }

    Value next_hop(rapidjson::kObjectType);
    next_hop.AddMember("next-hop-address", Value(address, a), a);
    Value route(rapidjson::kObjectType);
    route.AddMember("destination-prefix", "0.0.0.0/0", a);
    route.AddMember("next-hop", next_hop, a);
    Value route_array(rapidjson::kArrayType);
    route_array.PushBack(route, a);
    Value ipv4(rapidjson::kObjectType);
    ipv4.AddMember("route", route_array, a);
    Value static_routes(rapidjson::kObjectType);
    static_routes.AddMember("ietf-ipv4-unicast-routing:ipv4", ipv4, a);
    Value created(rapidjson::kObjectType);
    created.AddMember("type", Value(yang_doc::static_type.data(), a), a);
    created.AddMember("name", "default", a);
    created.AddMember("static-routes", static_routes, a);
    protocols.PushBack(created, a);
}
