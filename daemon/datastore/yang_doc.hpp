#pragma once

#include <optional>
#include <string_view>
#include <type_traits>

#include "dh_error.hpp"
#include "dh_types.hpp"

// Lookups in exported datastore documents shared by the interface, gateway and OSPF code. Every
// lookup tolerates missing or mistyped levels and answers "not found" for them.
namespace yang_doc {

inline constexpr std::string_view ospf_type = "infix-routing:ospfv2";
inline constexpr std::string_view static_type = "infix-routing:static";

// Value or const Value, following the constness of V (which may be a Document).
template <class V>
using value_t = std::conditional_t<std::is_const_v<V>, const dh::Value, dh::Value>;

// The member `name` of an object, or nullptr.
template <class V>
value_t<V>* member(V& value, std::string_view name) {
    if (!value.IsObject()) return nullptr;
    auto it = value.FindMember(dh::Value(
        rapidjson::StringRef(name.data(), static_cast<rapidjson::SizeType>(name.size()))));
    return it != value.MemberEnd() ? &it->value : nullptr;
}

// The value at the end of a chain of object members, or nullptr.
template <class V, class... Names>
value_t<V>* path(V& value, std::string_view first, Names... rest) {
    value_t<V>* v = member(value, first);
    if constexpr (sizeof...(rest) == 0)
        return v;
    else
        return v ? path(*v, rest...) : nullptr;
}

inline bool string_is(const dh::Value* v, std::string_view text) {
    return v && v->IsString() && std::string_view(v->GetString(), v->GetStringLength()) == text;
}

inline std::string_view string_of(const dh::Value* v) {
    return v && v->IsString() ? std::string_view(v->GetString(), v->GetStringLength())
                              : std::string_view();
}

inline std::optional<bool> bool_of(const dh::Value* v) {
    if (v && v->IsBool()) return v->GetBool();
    return std::nullopt;
}

// The first element of a list (array) whose member `key` is the text `value`, or nullptr.
template <class V>
V* find_in_list(V* list, std::string_view key, std::string_view value) {
    if (!list || !list->IsArray()) return nullptr;
    for (auto& entry : list->GetArray())
        if (string_is(member(entry, key), value)) return &entry;
    return nullptr;
}

// The "ietf-interfaces:interfaces" / "interface" entry named `name`, or nullptr.
template <class V>
value_t<V>* interface_entry(V& doc, std::string_view name) {
    return find_in_list(path(doc, "ietf-interfaces:interfaces", "interface"), "name", name);
}

// An export whose output did not parse leaves a document that is not an object; importing an
// edit of it would replace the whole datastore, so such a document is refused as the export of
// unparsable output is.
inline void require_object(const dh::Document& doc) {
    if (!doc.IsObject()) throw dh_error(22, "Invalid json in response");
}

// The object member `name` of `parent`, created (or replaced when not an object) as needed.
inline dh::Value& object_member(dh::Value& parent, std::string_view name, dh::Allocator& a) {
    if (dh::Value* v = member(parent, name)) {
        if (!v->IsObject()) v->SetObject();
        return *v;
    }
    parent.AddMember(dh::Value(name.data(), static_cast<rapidjson::SizeType>(name.size()), a),
                     dh::Value(rapidjson::kObjectType), a);
    return (parent.MemberEnd() - 1)->value;
}

// Sets member `name` of the object `parent` to `value`, adding it at the end when absent.
inline void set_member(dh::Value& parent, std::string_view name, dh::Value value,
                       dh::Allocator& a) {
    if (dh::Value* v = member(parent, name)) {
        *v = std::move(value);
        return;
    }
    parent.AddMember(dh::Value(name.data(), static_cast<rapidjson::SizeType>(name.size()), a),
                     std::move(value), a);
}

inline void remove_member(dh::Value& parent, std::string_view name) {
    if (!parent.IsObject()) return;
    auto it = parent.FindMember(dh::Value(
        rapidjson::StringRef(name.data(), static_cast<rapidjson::SizeType>(name.size()))));
    if (it != parent.MemberEnd()) parent.EraseMember(it);
}

// Calls f on every area of an OSPF entry. The generator writes the uplink areas into a second
// member named "area"; an exported document has them merged into one list, a generated one not.
template <class V, class F>
void for_each_area(V& ospf_entry, F&& f) {
    auto* areas = path(ospf_entry, "ietf-ospf:ospf", "areas");
    if (!areas || !areas->IsObject()) return;
    for (auto& m : areas->GetObject())
        if (string_is(&m.name, "area") && m.value.IsArray())
            for (auto& area : m.value.GetArray()) f(area);
}

// The "interfaces" / "interface" entry named `name` in the OSPF area `area_id` of the first OSPF
// entry of a protocol list, or nullptr.
template <class V>
value_t<V>* ospf_area_interface(V& protocols, std::string_view area_id, std::string_view name) {
    value_t<V>* ospf = find_in_list(static_cast<value_t<V>*>(&protocols), "type", ospf_type);
    value_t<V>* found = nullptr;
    if (ospf)
        for_each_area(*ospf, [&](auto& area) {
            if (!found && string_is(member(area, "area-id"), area_id))
                found = find_in_list(path(area, "interfaces", "interface"), "name", name);
        });
    return found;
}

// The interface object `name` in any area of any OSPF entry of a protocol list, or nullptr.
template <class V>
value_t<V>* ospf_any_interface(V& protocols, std::string_view name) {
    value_t<V>* found = nullptr;
    if (!protocols.IsArray()) return found;
    for (auto& entry : protocols.GetArray()) {
        if (!string_is(member(entry, "type"), ospf_type)) continue;
        for_each_area(entry, [&](auto& area) {
            if (!found) found = find_in_list(path(area, "interfaces", "interface"), "name", name);
        });
        if (found) break;
    }
    return found;
}

}  // namespace yang_doc
