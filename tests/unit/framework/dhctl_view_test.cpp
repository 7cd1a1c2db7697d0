#include <gtest/gtest.h>

#include <string>

#include "dh_client.hpp"
#include "dhctl_view.hpp"
#include "server_test_support.hpp"

namespace dc = dh::client;
using server_test::parse;

// A number with its unit ("-3.98 dBm") is the end-to-end dhctl test's.
TEST(DhctlView, OnlyNumbersCarryTheUnitOfTheirDescription) {
    for (const char* description : {R"({"unit":5})", R"("dBm")"})
        EXPECT_EQ(dc::unit_of(parse(description)), "") << description;

    EXPECT_EQ(dc::display_with_unit(parse("40"), "", true), "40");
    // A value that is not set, or not a number, is shown as it is.
    EXPECT_EQ(dc::display_with_unit(parse(R"("up")"), "dBm", true), "up");
    EXPECT_EQ(dc::display_with_unit(parse("[1]"), "dBm", false), "[1]");
}

TEST(DhctlView, TableKeepsOneRowPerPathInOrderAlignedByCharacters) {
    dc::live_table table;
    table.add("data/e13/sfp/temperatureMargin", "°C");
    table.add("data/configStatus", "");
    table.add("data/e13/sfp/temperatureMargin", "dBm");  // already there: the first row stays
    table.update("data/configStatus", parse("true"), "2026-11-21T10:00:00.120Z");
    table.update("data/e13/sfp/temperatureMargin", parse("33.5"), "2026-11-21T10:00:01.005Z");
    table.update("data/unknown", parse("1"), "2026-11-21T10:00:02.000Z");
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

    const std::string xs(dc::live_table::max_value_width - 4, 'x');
    table.update("data/any/lldp/neighbours", parse('"' + xs + "°°°°°°\""), "10:00:00");
    const std::string row = table.render().substr(table.render().find('\n') + 1);
    EXPECT_EQ(row, "data/any/lldp/neighbours  " + xs + "°...  10:00:00\n");
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
