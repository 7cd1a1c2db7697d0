// The protocol codec on its own: no sockets, no threads.

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dh_api/json_conversion.hpp"
#include "rpc_codec.hpp"

namespace {

using namespace dh::server::codec;

// Feeds `chunks` as successive reads and collects the lines handed out.
std::vector<std::string> frame(line_framer& f, const std::vector<std::string>& chunks) {
    std::vector<std::string> lines;
    for (const auto& chunk : chunks) {
        for (std::size_t done = 0; done < chunk.size();) {
            const std::size_t n = std::min(f.space_size(), chunk.size() - done);
            std::memcpy(f.space(), chunk.data() + done, n);
            f.commit(n);
            done += n;
            char* line = nullptr;
            std::size_t len = 0;
            while (f.next(line, len) == line_framer::status::line) {
                EXPECT_EQ(line[len], '\0');
                lines.emplace_back(line, len);
            }
            f.compact();
        }
    }
    return lines;
}

TEST(line_framer, SplitsReadsIntoLinesWhateverTheChunkingAndGrowsForLongOnes) {
    line_framer f(100, 8, 32);
    const auto got = frame(f, {"ab", "c\nde", "f\n\ngh\r\n", "ij"});
    EXPECT_EQ(got, (std::vector<std::string>{"abc", "def", "", "gh\r"}));
    char* line = nullptr;
    std::size_t len = 0;
    ASSERT_TRUE(f.rest(line, len));
    EXPECT_EQ(std::string(line, len), "ij");
    EXPECT_FALSE(f.rest(line, len));

    // It grows for one long line and shrinks back.
    line_framer big(1 << 20, 16, 64);
    const auto long_line = frame(big, {std::string(5000, 'a') + "\nb\n"});
    ASSERT_EQ(long_line.size(), 2u);
    EXPECT_EQ(long_line[0].size(), 5000u);
    EXPECT_LE(big.capacity(), 64u);
}

TEST(line_parser, LimitsAndMalformedText) {
    line_parser p(3);
    auto parse = [&](std::string s) { return p.parse(s.c_str(), s.size()); };
    // The server tests cover the nesting limit, NUL bytes and trailing text on the wire.
    EXPECT_EQ(parse(" \t\r"), line_parser::outcome::blank);
    EXPECT_EQ(parse(R"({"a":[[1]]})"), line_parser::outcome::parsed);
    EXPECT_EQ(parse("\"\xff\""), line_parser::outcome::parse_error);
    // A multi-byte sequence cut off at the end of the buffer: nothing is read past it (the buffer
    // holds exactly the line, so AddressSanitizer sees any overread).
    const std::vector<char> cut{'"', 'a', '\xf0'};
    EXPECT_EQ(p.parse(cut.data(), cut.size()), line_parser::outcome::parse_error);
    // The document of one line does not leak into the next.
    ASSERT_EQ(parse(R"({"x":"second"})"), line_parser::outcome::parsed);
    EXPECT_EQ(dh::api::to_json_text(p.document()), R"({"x":"second"})");
}

TEST(envelope, IdsMethodsAndVersions) {
    // Text, valid, answered, and the id the answer carries ("" for none: null).
    const std::tuple<const char*, bool, bool, const char*> cases[] = {
        {R"({"jsonrpc":"2.0","id":7,"method":"get"})", true, true, "7"},
        {R"({"jsonrpc":"2.0","id":-1.5,"method":"get"})", true, true, "-1.5"},
        {R"({"jsonrpc":"2.0","id":"x","method":"get"})", true, true, "\"x\""},
        {R"({"jsonrpc":"2.0","id":null,"method":"get"})", true, true, "null"},
        {R"({"jsonrpc":"2.0","method":"get"})", true, false, ""},
        {R"({"jsonrpc":"2.0","id":{},"method":"get"})", false, true, ""},
        {R"({"jsonrpc":"2.0","id":true,"method":"get"})", false, true, ""},
        {R"({"jsonrpc":"1.0","id":3,"method":"get"})", false, true, "3"},
        {R"({"id":3,"method":"get"})", false, true, "3"},
        {R"({"jsonrpc":"2.0","id":3,"method":7})", false, true, "3"},
        {R"({"jsonrpc":"2.0","method":[]})", false, true, ""},
        {R"([1])", false, true, ""}};
    for (const auto& [text, valid, answered, id] : cases) {
        rapidjson::Document d;
        d.Parse(text);
        request r;
        EXPECT_EQ(parse_envelope(d.IsArray() ? d[0] : d, r), valid) << text;
        EXPECT_EQ(r.answer, answered) << text;
        EXPECT_EQ(r.id ? dh::api::to_json_text(*r.id) : "", id) << text;
    }
    EXPECT_EQ(parse_method("Get"), method_id::unknown);  // method names are case-sensitive
}

TEST(answers, UnrepresentableResultIsAnError) {
    string_buffer sb;
    json_writer w(sb);
    dh::Value id(5);
    write_result(sb, w, &id, dh::Value(std::nan("")));
    EXPECT_EQ(std::string(sb.GetString()),
              R"({"jsonrpc":"2.0","id":5,"error":{"code":-1,"message":"Unknown error!",)"
              R"("data":{"what":"result is not representable in JSON"}}})");
}

}  // namespace
