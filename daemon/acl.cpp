#include <arpa/inet.h>
#include <fmt/format.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <charconv>
#include <optional>

#include "acl_whitelist.hpp"
#include "dh_error.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"

namespace acl_whitelist {

namespace {

bool is_ipv4(std::string_view text) {
    in_addr address{};
    return inet_pton(AF_INET, std::string(text).c_str(), &address) == 1;
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
            // Hardening: the text is written, unquoted, into a shell command line.
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
constexpr const char* whitelist_ipv6 = "whitelist_ipv6";

std::string flush_statement() {
    return fmt::format("flush set inet filter {};", whitelist_ipv4);
}

std::string add_statement(const std::string& elements) {
    return fmt::format("add element inet filter {} {{ {} }};", whitelist_ipv4, elements);
}

// Applies a batch of nft statements in the host's network namespace.
void apply_nft(const std::string& statements) {
    sysrepo_common::exec(
        fmt::format("echo '{}' | {} /usr/sbin/nft -f -", statements, sysrepo_common::NSENTER_CMD),
        true);
}

}  // namespace

void sysrepo_device_handler::acl_set_adminStatus(const std::string& status) {
    std::lock_guard lock(mutex);
    std::string statements = flush_statement();
    if (status == "up") {
        acl_enabled = true;
        if (!acl_whitelist.empty()) statements += add_statement(acl_whitelist);
    } else if (status == "down") {
        acl_enabled = false;
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
}

void sysrepo_device_handler::acl_set_whitelist(addr_family family, const Document& doc) {
    std::lock_guard lock(mutex);
    if (!doc.IsArray()) throw dh_error(-22, "Invalid whitelist format.");
    if (family == addr_family::ipv6) throw dh_error(-22, "ipv6 not implemented.");
    acl_whitelist = acl_whitelist::build_text(doc);
    if (!acl_enabled) return;
    try {
        apply_nft(flush_statement() + add_statement(acl_whitelist));
    } catch (const dh_error& e) {
        MSG_LOG(3, "acl_set_whitelist") << "Failed to set ACL white list: " << e.message()
                                        << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(-22, "Failed to set ACL white list.");
    }
}

Document sysrepo_device_handler::acl_get_whitelist(addr_family family) {
    std::lock_guard lock(mutex);
    if (family == addr_family::ipv6) throw dh_error(-22, "ipv6 not implemented.");
    Document out(rapidjson::kArrayType);
    for (const auto& entry : acl_whitelist::split_text(acl_whitelist))
        out.PushBack(dh::Value(entry, out.GetAllocator()), out.GetAllocator());
    return out;
}

std::string sysrepo_device_handler::acl_get_adminStatus() {
    std::lock_guard lock(mutex);
    std::string output;
    try {
        output = sysrepo_common::exec(fmt::format("{} /usr/sbin/nft list set inet filter {}",
                                                  sysrepo_common::NSENTER_CMD, whitelist_ipv4),
                                      true);
    } catch (const dh_error&) {
        throw dh_error(-22, "Failed to get ACL admin status.");
    }
    return output.find("0.0.0.0/0") != std::string::npos ? "down" : "up";
}

Document sysrepo_device_handler::_acl_get_whitelist(addr_family family) {
    const char* set = family == addr_family::ipv6 ? whitelist_ipv6 : whitelist_ipv4;
    std::string output;
    try {
        output = sysrepo_common::exec(fmt::format("{} /usr/sbin/nft -j list set inet filter {}",
                                                  sysrepo_common::NSENTER_CMD, set),
                                      true);
    } catch (const dh_error&) {
        // The same text as the switch reader's, on purpose.
        throw dh_error(-22, "Failed to get ACL admin status.");
    }
    Document parsed;
    parsed.Parse(output);
    if (!parsed.HasParseError() && parsed.IsObject()) {
        auto nftables = parsed.FindMember("nftables");
        if (nftables != parsed.MemberEnd() && nftables->value.IsArray() &&
            nftables->value.Size() == 2 && nftables->value[1].IsObject()) {
            auto set_it = nftables->value[1].FindMember("set");
            if (set_it != nftables->value[1].MemberEnd()) {
                Document out(rapidjson::kArrayType);
                if (set_it->value.IsObject()) {
                    auto elem = set_it->value.FindMember("elem");
                    if (elem != set_it->value.MemberEnd() && elem->value.IsArray())
                        for (auto& e : elem->value.GetArray())
                            out.PushBack(dh::Value(e, out.GetAllocator()), out.GetAllocator());
                }
                return out;
            }
        }
    }
    MSG_LOG(6, "_acl_get_whitelist") << output << msg_log::getCodeTrace(__FILE__, __LINE__);
    throw dh_error(-22, "Failed to parse ACL whitelist.");
}
