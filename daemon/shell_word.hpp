#pragma once

#include <algorithm>
#include <string_view>

// Client text that the daemon puts unquoted into a shell command line (image and package URLs,
// technical-log parameters) must stay one plain word.
namespace shell_word {

// True when no character of `text` could end the word or start shell syntax: none of
// ; | & ` $ ( ) { } < >, no quote or backslash, no white space, no control character.
// Square brackets and the characters of URLs (: / ? = % # @ + ~ ! * , .) are allowed.
inline bool is_safe(std::string_view text) {
    constexpr std::string_view forbidden = ";|&`$(){}<>'\"\\";
    return std::none_of(text.begin(), text.end(), [&](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u <= 0x20 || u == 0x7f || forbidden.find(c) != std::string_view::npos;
    });
}

}  // namespace shell_word
