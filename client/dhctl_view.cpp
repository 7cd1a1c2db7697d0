#include "dhctl_view.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "dh_client.hpp"

namespace dh::client {

namespace {

bool is_continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Columns a UTF-8 text takes on a terminal, counting one per character ("°C" is two).
std::size_t columns(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return !is_continuation(c); }));
}

}  // namespace

std::string unit_of(const rapidjson::Value& info) {
    if (!info.IsObject()) return {};
    const auto unit = info.FindMember("unit");
    if (unit == info.MemberEnd() || !unit->value.IsString()) return {};
    return {unit->value.GetString(), unit->value.GetStringLength()};
}

std::string display_with_unit(const rapidjson::Value& value, std::string_view unit, bool pretty) {
    std::string text = display_value(value, pretty);
    if (value.IsNumber() && !unit.empty()) fmt::format_to(std::back_inserter(text), " {}", unit);
    return text;
}

void live_table::add(std::string path, std::string unit) {
    const bool known =
        std::any_of(rows_.begin(), rows_.end(), [&](const row& r) { return r.path == path; });
    if (!known) rows_.push_back({std::move(path), std::move(unit), {}, {}});
}

void live_table::update(std::string_view path, const rapidjson::Value& value,
                        std::string_view time) {
    auto it =
        std::find_if(rows_.begin(), rows_.end(), [&](const row& r) { return r.path == path; });
    if (it == rows_.end()) return;
    it->value = display_with_unit(value, it->unit, false);
    if (columns(it->value) > max_value_width) {
        // Keep max_value_width - 3 characters: cut before the first byte of the next one.
        std::size_t keep = 0;
        for (std::size_t chars = 0; keep < it->value.size(); ++keep)
            if (!is_continuation(it->value[keep]) && chars++ == max_value_width - 3) break;
        it->value.resize(keep);
        it->value += "...";
    }
    // "YYYY-MM-DDTHH:MM:SS.mmmZ": the time of day sits between the T and the zone.
    const auto t = time.find('T');
    std::string_view clock = t == std::string_view::npos ? time : time.substr(t + 1);
    if (!clock.empty() && clock.back() == 'Z') clock.remove_suffix(1);
    it->time = std::string(clock);
}

std::string live_table::render() const {
    std::size_t path_width = 4, value_width = 5;
    for (const auto& r : rows_) {
        path_width = std::max(path_width, columns(r.path));
        value_width = std::max(value_width, columns(r.value));
    }
    std::string out =
        fmt::format("{:<{}}  {:<{}}  {}\n", "PATH", path_width, "VALUE", value_width, "UPDATED");
    for (const auto& r : rows_) {
        std::string line =
            fmt::format("{:<{}}  {:<{}}  {}", r.path, path_width, r.value, value_width, r.time);
        line.erase(line.find_last_not_of(' ') + 1);
        out += line;
        out += '\n';
    }
    return out;
}

bool is_pattern(std::string_view path) {
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    if (path == "..." || path.ends_with("/...")) return true;
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (path.substr(start, end - start) == "*") return true;
        start = end + 1;
    }
    return false;
}

std::string value_table(const std::vector<std::pair<std::string, std::string>>& rows, bool header) {
    std::size_t width = header ? 4 : 0;
    for (const auto& [path, text] : rows) width = std::max(width, columns(path));
    std::string out;
    if (header) out = fmt::format("{:<{}}  VALUE\n", "PATH", width);
    for (const auto& [path, text] : rows)
        fmt::format_to(std::back_inserter(out), "{:<{}}  {}\n", path, width, text);
    return out;
}

std::string redraw_over(std::size_t lines) {
    if (lines == 0) return "\x1b[J";
    return fmt::format("\x1b[{}A\r\x1b[J", lines);
}

}  // namespace dh::client
