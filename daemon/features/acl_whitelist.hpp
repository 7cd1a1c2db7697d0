#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "dh_types.hpp"

// The access-control whitelist as one text, the form in which it is kept and written into the
// nftables set ("10.0.0.0/8, 192.168.1.0/24, 1.2.3.4-1.2.3.9").
namespace acl_whitelist {

// True for an IPv4 address, a prefix (address/length, length 0 to 32) or a range
// (address-address).
bool is_valid_entry(std::string_view entry);

// Joins the elements of a whitelist array with ", ": a string as it stands, {"prefix": {"addr",
// "len"}} as addr/len, {"range": [a, b]} as a-b. An element of no usable form writes nothing
// (its separators stay). Throws dh_error -22 "Invalid whitelist entry: " + the entry's text for
// an entry that is not a valid IPv4 address, prefix or range; the array must be an array.
std::string build_text(const dh::Value& array);

// The non-empty entries of a stored whitelist text, trimmed.
std::vector<std::string> split_text(const std::string& text);

}  // namespace acl_whitelist
