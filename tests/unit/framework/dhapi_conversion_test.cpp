#include <limits>

#include <gtest/gtest.h>

#include "dh_api/json_conversion.hpp"
#include "dhapi_fakes.hpp"

using namespace dh::api;

namespace {

template <class T>
json_value_conversion_error conversion_error(const char* text) {
    try {
        from_json<T>(json(text));
    } catch (const json_value_conversion_error& e) {
        return e;
    }
    ADD_FAILURE() << text << " was accepted";
    return {};
}

}  // namespace

TEST(DhApiConversion, ActualTypeNames) {
    const std::pair<const char*, const char*> cases[] = {
        {"null", "null"},
        {"true", "bool"},
        {"{}", "object"},
        {"[]", "array"},
        {"\"x\"", "string"},
        {"4294967295", "32-bit unsigned integer"},
        {"-1", "32-bit signed integer"},
        {"-2147483648", "32-bit signed integer"},
        {"4294967296", "64-bit unsigned integer"},
        {"-2147483649", "64-bit signed integer"},
        {"1.5", "float"},
        {"1.0", "float"},
        {"3.4028234e38", "float"},
        {"1e300", "double"},
        {"-1e300", "double"},
    };
    for (const auto& [text, name] : cases) EXPECT_EQ(json_type_name(json(text)), name) << text;
}

TEST(DhApiConversion, AcceptedValues) {
    EXPECT_EQ(from_json<std::string>(json("\"up\"")), "up");
    EXPECT_EQ(from_json<std::string>(json("5")), "5");
    EXPECT_EQ(from_json<std::string>(json("{\"a\":1}")), "{\"a\":1}");
    EXPECT_EQ(from_json<std::string>(json("null")), "null");
    EXPECT_TRUE(from_json<bool>(json("true")));
    EXPECT_EQ(from_json<unsigned>(json("4294967295")), 4294967295u);
    EXPECT_EQ(to_json_text(from_json<dh::Document>(json("{\"a\":[1,2]}"))), "{\"a\":[1,2]}");
    EXPECT_EQ(to_json_text(from_json<dh::Document>(json("\"[1,2]\""))), "[1,2]");
    EXPECT_EQ(to_json_text(from_json<dh::Document>(json("\" {\\\"k\\\": true} \""))),
              "{\"k\":true}");
}

TEST(DhApiConversion, MismatchesNameExpectedAndActualType) {
    auto check = [](json_value_conversion_error e, const char* expected, const char* actual) {
        EXPECT_EQ(e.expected, expected);
        EXPECT_EQ(e.actual, actual);
    };
    check(conversion_error<unsigned>("-1"), "uint", "32-bit signed integer");
    check(conversion_error<unsigned>("1.5"), "uint", "float");
    check(conversion_error<unsigned>("4294967296"), "uint", "64-bit unsigned integer");
    check(conversion_error<unsigned>("\"7\""), "uint", "string");
    check(conversion_error<bool>("1"), "bool", "32-bit unsigned integer");
    check(conversion_error<bool>("null"), "bool", "null");
    check(conversion_error<dh::Document>("\"not json\""), "stringified object or array", "string");
    check(conversion_error<dh::Document>("\"42\""), "stringified object or array", "string");
    check(conversion_error<dh::Document>("42"), "object or array", "32-bit unsigned integer");
}

TEST(DhApiConversion, ReadableTypeNamesAndOutput) {
    EXPECT_EQ(type_name<std::string>(), "string");
    EXPECT_EQ(type_name<bool>(), "bool");
    EXPECT_EQ(type_name<unsigned int>(), "unsigned int");
    EXPECT_EQ(type_name<double>(), "double");
    EXPECT_EQ(type_name<dh::Document>(), "document");
    EXPECT_EQ(type_name<void>(), "void");
    EXPECT_EQ(type_name<family>(), "family");

    dh::Document d;
    EXPECT_EQ(to_json_text(to_json_value(std::string("a\"b"), d.GetAllocator())), "\"a\\\"b\"");
    EXPECT_EQ(to_json_text(to_json_value(-2.5, d.GetAllocator())), "-2.5");
    EXPECT_EQ(
        to_json_text(to_json_value(std::numeric_limits<double>::infinity(), d.GetAllocator())),
        "null");
    EXPECT_EQ(to_json_text(to_json_value(family::ipv6, d.GetAllocator())), "1");
}
