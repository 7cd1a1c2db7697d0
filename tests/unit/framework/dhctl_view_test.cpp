#include <gtest/gtest.h>

#include <string>

#include "dh_client.hpp"
#include "dhctl_view.hpp"

namespace dc = dh::client;

namespace {

rapidjson::Document json(const char* text) {
    rapidjson::Document d;
    d.Parse(text);
    return d;
}

}  // namespace

// A number with its unit ("-3.98 dBm") is the end-to-end dhctl test's.
TEST(DhctlView, OnlyNumbersCarryTheUnitOfTheirDescription) {
    EXPECT_EQ(dc::unit_of(json(R"({"unit":5})")), "");
    EXPECT_EQ(dc::unit_of(json(R"("dBm")")), "");

    EXPECT_EQ(dc::display_with_unit(json("40"), "", true), "40");
    // A value that is not set, or not a number, is shown as it is.
    EXPECT_EQ(dc::display_with_unit(json(R"("up")"), "dBm", true), "up");
    EXPECT_EQ(dc::display_with_unit(json("[1]"), "dBm", false), "[1]");
}

TEST(DhctlView, TableKeepsOneRowPerPathInOrderAlignedByCharacters) {
    dc::live_table table;
    table.add("data/e13/sfp/temperatureMargin", "°C");
    table.add("data/configStatus", "");
    table.add("data/e13/sfp/temperatureMargin", "dBm");  // already there: the first row stays
    table.update("data/configStatus", json("true"), "2026-11-21T10:00:00.120Z");
    table.update("data/e13/sfp/temperatureMargin", json("33.5"), "2026-11-21T10:00:01.005Z");
    table.update("data/unknown", json("1"), "2026-11-21T10:00:02.000Z");
    EXPECT_EQ(table.lines(), 3u);
    // "33.5 °C" is seven characters wide but eight bytes long: the columns count characters.
    EXPECT_EQ(table.render(),
              "PATH                            VALUE    UPDATED\n"
              "data/e13/sfp/temperatureMargin  33.5 °C  10:00:01.005\n"
              "data/configStatus               true     10:00:00.120\n");
}

TEST(DhctlView, TableShowsRowsWithoutValueAndCutsLongValuesAtACharacter) {
    dc::live_table table;
    table.add("data/any/lldp/neighbours", "");
    EXPECT_EQ(table.render(),
              "PATH                      VALUE  UPDATED\ndata/any/lldp/neighbours\n");

    std::string text(dc::live_table::max_value_width - 4, 'x');
    text += "°°°°°°";
    rapidjson::Document long_value;
    long_value.SetString(text.c_str(), long_value.GetAllocator());
    table.update("data/any/lldp/neighbours", long_value, "10:00:00");
    const std::string row = table.render().substr(table.render().find('\n') + 1);
    const std::string expected_value =
        std::string(dc::live_table::max_value_width - 4, 'x') + "°...";
    EXPECT_EQ(row, "data/any/lldp/neighbours  " + expected_value + "  10:00:00\n");
}

TEST(DhctlView, PatternsAreWholeWildcardSegmentsAndTheirReadsLineUp) {
    for (const char* p : {"data/*/linkStatus", "data/e13/.../", "*"})
        EXPECT_TRUE(dc::is_pattern(p)) << p;
    for (const char* p : {"data/e1*/linkStatus", "data/.../x", "data/e1/linkStatus"})
        EXPECT_FALSE(dc::is_pattern(p)) << p;

    // Pattern reads line up paths and values.
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"data/e1/linkStatus", "up"},
        {"data/e13/sfp/rxPower", "error -61: Value has not been set"}};
    EXPECT_EQ(dc::value_table(rows, false),
              "data/e1/linkStatus    up\n"
              "data/e13/sfp/rxPower  error -61: Value has not been set\n");
    EXPECT_EQ(dc::value_table({{"a", "1"}}, true), "PATH  VALUE\na     1\n");
}
