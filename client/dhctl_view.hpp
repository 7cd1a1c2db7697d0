#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <rapidjson/document.h>

// How dhctl shows values to people: a number with the unit its node describes, and the live
// table of `watch --table`. Pure text functions, apart from the client's connection.
namespace dh::client {

// The "unit" member of a node's description object; empty when it has none.
std::string unit_of(const rapidjson::Value& info);

// A value for people (as display_value), followed by " UNIT" when the value is a number and
// the unit is not empty: "-2.3 dBm". Other values never carry a unit.
std::string display_with_unit(const rapidjson::Value& value, std::string_view unit, bool pretty);

// The rows of `watch --table`: one per watched path in the order given, each with its latest
// value (one line, with its unit) and the time of day it arrived.
class live_table {
  public:
    // Values longer than this are cut and end in "...", so that a document does not fill the
    // screen.
    static constexpr std::size_t max_value_width = 48;

    // Adds a row for `path` (without a value yet); a path added twice keeps its first row.
    void add(std::string path, std::string unit);
    // Records the latest value of `path`; `time` is ISO 8601 ("2026-11-21T10:00:00.120Z"), of
    // which the row shows the time of day. Paths without a row are ignored.
    void update(std::string_view path, const rapidjson::Value& value, std::string_view time);
    // The table: a header line and one line per row, columns aligned, each line ending in '\n'.
    std::string render() const;
    // The number of lines render() gives.
    std::size_t lines() const noexcept { return rows_.size() + 1; }

  private:
    struct row {
        std::string path, unit, value, time;
    };
    std::vector<row> rows_;
};

// True when `path` names several leaves: a segment "*", or "..." as the last segment.
bool is_pattern(std::string_view path);

// Rows of (path, text) in aligned columns, one line each; with `header`, a "PATH  VALUE" line
// first. Used for pattern reads.
std::string value_table(const std::vector<std::pair<std::string, std::string>>& rows, bool header);

// Terminal control that moves the cursor up over `lines` lines already written and clears
// from there to the end of the screen, so the next table replaces the last one.
std::string redraw_over(std::size_t lines);

}  // namespace dh::client
