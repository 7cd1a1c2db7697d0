#pragma once

#include <algorithm>
#include <string_view>

// Checks of client text that becomes one argument of a host command (an image or package URL,
// technical-log parameters). No shell reads these arguments any more, but a text that starts
// with "-" would still be read as an option by the tool, and a refusal with a clear error beats
// whatever the tool makes of control characters or white space.
namespace client_text {

// No white space or control character (NUL included), none of ; | & ` $ ( ) { } < > ' " \, and
// not starting with "-".
inline bool is_plain_word(std::string_view text) {
    constexpr std::string_view forbidden = ";|&`$(){}<>'\"\\";
    return !text.empty() && text.front() != '-' &&
           std::none_of(text.begin(), text.end(), [&](char c) {
               const auto u = static_cast<unsigned char>(c);
               return u <= 0x20 || u == 0x7f || forbidden.find(c) != std::string_view::npos;
           });
}

// A plain word without "*": URLs may hold "?", "~" and "[ ]" (a query, a home directory, an IPv6
// host) but never a wildcard.
inline bool is_url(std::string_view text) {
    return is_plain_word(text) && text.find('*') == std::string_view::npos;
}

// A plain word without any of * ? [ ] ~: names of interfaces and the like hold none.
inline bool is_name(std::string_view text) {
    return is_plain_word(text) && text.find_first_of("*?[]~") == std::string_view::npos;
}

}  // namespace client_text
