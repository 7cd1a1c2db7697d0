// A client's path pattern and a node path: the input's first line is the pattern, the rest the
// path. Parsing may refuse the pattern; a match must always start with the pattern's literal
// prefix, as the node table walk relies on it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "dh_error.hpp"
#include "path_pattern.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t cut = std::min(input.find('\n'), input.size());
    const std::string_view path = cut < input.size() ? input.substr(cut + 1) : std::string_view();
    try {
        const auto pattern = dh::path_pattern::parse(input.substr(0, cut));
        if (pattern && pattern->matches(path) && !path.starts_with(pattern->literal_prefix()))
            std::abort();
    } catch (const dh_error&) {
    }
    return 0;
}
