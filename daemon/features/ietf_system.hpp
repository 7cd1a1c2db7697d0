#pragma once

#include <arpa/inet.h>

#include <string>

#include "dh_error.hpp"
#include "dh_types.hpp"

// Helpers shared by the NTP and DNS settings, which both live in the "ietf-system:system"
// container of the running datastore.
namespace ietf_system {

inline constexpr const char* container_name = "ietf-system:system";

// The "ietf-system:system" object of an exported running document, created when missing. An
// export whose output did not parse leaves a document that is not an object; importing an edit
// of it would replace the whole datastore with the one container, so it is refused as the
// export of unparsable output is.
inline dh::Value& container(dh::Document& doc) {
    if (!doc.IsObject()) throw dh_error(22, "Invalid json in response");
    auto it = doc.FindMember(container_name);
    if (it == doc.MemberEnd()) {
        doc.AddMember(dh::Value(container_name, doc.GetAllocator()),
                      dh::Value(rapidjson::kObjectType), doc.GetAllocator());
        return doc[container_name];
    }
    if (!it->value.IsObject()) it->value.SetObject();
    return it->value;
}

// The "ietf-system:system" object of a document, or nullptr.
inline const dh::Value* find_container(const dh::Document& doc) {
    if (!doc.IsObject()) return nullptr;
    auto it = doc.FindMember(container_name);
    return it != doc.MemberEnd() && it->value.IsObject() ? &it->value : nullptr;
}

// True for an IPv4 or an IPv6 address in its text form.
inline bool is_ip_address(const std::string& text) {
    unsigned char buffer[sizeof(in6_addr)];
    if (text.find('\0') != std::string::npos) return false;
    return inet_pton(AF_INET, text.c_str(), buffer) == 1 ||
           inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

}  // namespace ietf_system
