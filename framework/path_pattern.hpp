#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dh {

// A path that names several leaves: a segment `*` stands for exactly one segment
// (`data/*/linkStatus`), a last segment `...` for one or more (`data/e13/...`). Other segments
// match themselves only; `e1*` is a plain name.
class path_pattern {
  public:
    // The pattern in `path` (slashes at either end ignored), or nothing when it holds no
    // wildcard segment. `...` anywhere but last raises dh_error -32602 "Invalid params".
    static std::optional<path_pattern> parse(std::string_view path);

    bool matches(std::string_view path) const;
    // The segments before the first wildcard, each followed by "/": every match starts with it.
    const std::string& literal_prefix() const noexcept { return prefix_; }

  private:
    std::vector<std::string> segments_;  // `...` left off
    bool any_depth_ = false;
    std::string prefix_;
};

}  // namespace dh
