#include <arpa/inet.h>
#include <fmt/format.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <charconv>
#include <optional>

#include "acl.hpp"
#include "acl_whitelist.hpp"
#include "dh_error.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"

namespace acl_whitelist {

namespace {

bool is_ipv4(std::string_view text) {
    return sysrepo_common::is_string_ipaddress(std::string(text));
}

// The text of one array element, or nothing for an element of no usable form.
std::optional<std::string> element_text(const dh::Value& element) {
    if (element.IsString()) return std::string(element.GetString(), element.GetStringLength());
    if (!element.IsObject()) return std::nullopt;
    auto prefix = element.FindMember("prefix");
    if (prefix != element.MemberEnd() && prefix->value.IsObject()) {
        auto addr = prefix->value.FindMember("addr");
        auto len = prefix->value.FindMember("len");
        if (addr == prefix->value.MemberEnd() || !addr->value.IsString() ||
            len == prefix->value.MemberEnd() || !len->value.IsUint())
            return std::nullopt;
        return fmt::format("{}/{}", addr->value.GetString(), len->value.GetUint());
    }
    // A "prefix" that is no object falls through to "range".
    auto range = element.FindMember("range");
    if (range == element.MemberEnd() || !range->value.IsArray() || range->value.Size() < 2 ||
        !range->value[0].IsString() || !range->value[1].IsString())
        return std::nullopt;
    return fmt::format("{}-{}", range->value[0].GetString(), range->value[1].GetString());
}

}  // namespace

bool is_valid_entry(std::string_view entry) {
    if (const auto slash = entry.find('/'); slash != std::string_view::npos) {
        const std::string_view len = entry.substr(slash + 1);
        unsigned value = 0;
        const auto [end, ec] = std::from_chars(len.data(), len.data() + len.size(), value);
        return !len.empty() && ec == std::errc() && end == len.data() + len.size() && value <= 32 &&
               is_ipv4(entry.substr(0, slash));
    }
    if (const auto dash = entry.find('-'); dash != std::string_view::npos)
        return is_ipv4(entry.substr(0, dash)) && is_ipv4(entry.substr(dash + 1));
    return is_ipv4(entry);
}

std::string build_text(const dh::Value& array) {
    std::string text;
    const auto size = array.Size();
    for (rapidjson::SizeType i = 0; i < size; ++i) {
        if (const auto entry = element_text(array[i])) {
            // Refused with a clear error: the text becomes nft statements.
            if (!is_valid_entry(*entry)) throw dh_error(-22, "Invalid whitelist entry: " + *entry);
            text += *entry;
        }
        if (i + 1 < size) text += ", ";
    }
    return text;
}

std::vector<std::string> split_text(const std::string& text) {
    std::vector<std::string> parts;
    boost::algorithm::split(parts, text, boost::algorithm::is_any_of(","));
    std::vector<std::string> entries;
    for (auto& part : parts) {
        boost::algorithm::trim(part);
        if (!part.empty()) entries.push_back(std::move(part));
    }
    return entries;
}

}  // namespace acl_whitelist

namespace {

constexpr const char* whitelist_ipv4 = "whitelist_ipv4";

std::string flush_statement() {
    return fmt::format("flush set inet filter {};", whitelist_ipv4);
}

std::string add_statement(const std::string& elements) {
    return fmt::format("add element inet filter {} {{ {} }};", whitelist_ipv4, elements);
}

}  // namespace

acl_unit::acl_unit(const host::door& door) : door_(door) {}

// Applies a batch of nft statements in the host's network namespace; nft reads them from its
// standard input, as one line.
void acl_unit::apply_nft(const std::string& statements) {
    door_.call({"/usr/sbin/nft", "-f", "-"}, host::in_host().feeding(statements + "\n"));
}

// The switch and the list change only once the filter took them.
void acl_unit::acl_set_adminStatus(const std::string& status) {
    std::lock_guard lock(mutex_);
    std::string statements = flush_statement();
    bool enabled = false;
    if (status == "up") {
        enabled = true;
        if (!acl_whitelist.empty()) statements += add_statement(acl_whitelist);
    } else if (status == "down") {
        // Off means every IPv4 source is admitted.
        statements += add_statement("0.0.0.0/0");
    } else {
        throw dh_error(-22, fmt::format("Invalid ACL admin status: {}", status));
    }
    try {
        apply_nft(statements);
    } catch (const dh_error&) {
        throw dh_error(-22, "Failed to set ACL admin status.");
    }
    acl_enabled = enabled;
}

void acl_unit::acl_set_whitelist(addr_family family, const Document& doc) {
    if (!doc.IsArray()) throw dh_error(-22, "Invalid whitelist format.");
    if (family == addr_family::ipv6) throw dh_error(-22, "ipv6 not implemented.");
    std::string text = acl_whitelist::build_text(doc);
    std::lock_guard lock(mutex_);
    if (acl_enabled) {
        try {
            apply_nft(flush_statement() + add_statement(text));
        } catch (const dh_error& e) {
            MSG_LOG(3, "acl_set_whitelist") << "Failed to set ACL white list: " << e.message()
                                            << msg_log::getCodeTrace(__FILE__, __LINE__);
            throw dh_error(-22, "Failed to set ACL white list.");
        }
    }
    acl_whitelist = std::move(text);
}

Document acl_unit::acl_get_whitelist(addr_family family) {
    if (family == addr_family::ipv6) throw dh_error(-22, "ipv6 not implemented.");
    std::lock_guard lock(mutex_);
    Document out(rapidjson::kArrayType);
    for (const auto& entry : acl_whitelist::split_text(acl_whitelist))
        out.PushBack(dh::Value(entry, out.GetAllocator()), out.GetAllocator());
    return out;
}
