#include "path_pattern.hpp"

#include "dh_error.hpp"
#include "rpc_codec.hpp"

namespace dh {

namespace {

constexpr std::string_view one_segment = "*";
constexpr std::string_view any_depth = "...";

// The next segment of `path` from `pos`, moving `pos` past it and its slash.
std::string_view next_segment(std::string_view path, std::size_t& pos) {
    const std::size_t end = std::min(path.find('/', pos), path.size());
    const std::string_view s = path.substr(pos, end - pos);
    pos = end + 1;
    return s;
}

}  // namespace

std::optional<path_pattern> path_pattern::parse(std::string_view path) {
    while (!path.empty() && path.front() == '/') path.remove_prefix(1);
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    path_pattern p;
    bool wild = false;
    std::size_t pos = 0;
    while (pos <= path.size()) {
        const std::string_view s = next_segment(path, pos);
        if (p.any_depth_) throw dh_error(server::codec::code_invalid_params, "Invalid params");
        if (s == any_depth) {
            p.any_depth_ = wild = true;
            continue;
        }
        if (s == one_segment) wild = true;
        if (!wild) p.prefix_.append(s).push_back('/');
        p.segments_.emplace_back(s);
    }
    if (!wild) return std::nullopt;
    return p;
}

bool path_pattern::matches(std::string_view path) const {
    std::size_t pos = 0;
    for (const auto& want : segments_) {
        if (pos > path.size()) return false;
        const std::string_view s = next_segment(path, pos);
        if (s.empty() || (want != one_segment && s != want)) return false;
    }
    if (any_depth_) return pos < path.size();
    return pos > path.size();
}

}  // namespace dh
