// The protocol codec and the connection budget on their own: no sockets, no threads.

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "listeners.hpp"
#include "rpc_codec.hpp"

namespace {

using namespace dh::server::codec;
using dh::server::detail::client_identity;
using dh::server::detail::connection_budget;

// Feeds `chunks` as successive reads and collects the lines handed out.
struct framed {
    std::vector<std::string> lines;
    bool too_large = false;
};

framed frame(line_framer& f, const std::vector<std::string>& chunks) {
    framed out;
    for (const auto& chunk : chunks) {
        std::size_t done = 0;
        while (done < chunk.size()) {
            const std::size_t n = std::min(f.space_size(), chunk.size() - done);
            std::memcpy(f.space(), chunk.data() + done, n);
            f.commit(n);
            done += n;
            char* line = nullptr;
            std::size_t len = 0;
            for (;;) {
                const auto st = f.next(line, len);
                if (st == line_framer::status::too_large) {
                    out.too_large = true;
                    return out;
                }
                if (st == line_framer::status::need_more) break;
                EXPECT_EQ(line[len], '\0');
                out.lines.emplace_back(line, len);
            }
            f.compact();
        }
    }
    return out;
}

TEST(line_framer, SplitsReadsIntoLinesWhateverTheChunkingAndGrowsForLongOnes) {
    line_framer f(100, 8, 32);
    const auto got = frame(f, {"ab", "c\nde", "f\n\ngh\r\n", "ij"});
    EXPECT_EQ(got.lines, (std::vector<std::string>{"abc", "def", "", "gh\r"}));
    EXPECT_FALSE(got.too_large);
    char* line = nullptr;
    std::size_t len = 0;
    ASSERT_TRUE(f.rest(line, len));
    EXPECT_EQ(std::string(line, len), "ij");
    EXPECT_FALSE(f.rest(line, len));

    // It grows for one long line and shrinks back.
    line_framer big(1 << 20, 16, 64);
    const auto long_line = frame(big, {std::string(5000, 'a') + "\nb\n"});
    ASSERT_EQ(long_line.lines.size(), 2u);
    EXPECT_EQ(long_line.lines[0].size(), 5000u);
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
    EXPECT_FALSE(p.document().HasMember("a"));
    EXPECT_STREQ(p.document()["x"].GetString(), "second");
}

struct envelope_case {
    const char* text;
    bool valid;
    bool answered;
    const char* id;  // the id as answered, or nullptr for none
};

TEST(envelope, IdsMethodsAndVersions) {
    const envelope_case cases[] = {
        {R"({"jsonrpc":"2.0","id":7,"method":"get"})", true, true, "7"},
        {R"({"jsonrpc":"2.0","id":-1.5,"method":"get"})", true, true, "-1.5"},
        {R"({"jsonrpc":"2.0","id":"x","method":"get"})", true, true, "\"x\""},
        {R"({"jsonrpc":"2.0","id":null,"method":"get"})", true, true, "null"},
        {R"({"jsonrpc":"2.0","method":"get"})", true, false, nullptr},
        {R"({"jsonrpc":"2.0","id":{},"method":"get"})", false, true, nullptr},
        {R"({"jsonrpc":"2.0","id":true,"method":"get"})", false, true, nullptr},
        {R"({"jsonrpc":"1.0","id":3,"method":"get"})", false, true, "3"},
        {R"({"id":3,"method":"get"})", false, true, "3"},
        {R"({"jsonrpc":"2.0","id":3,"method":7})", false, true, "3"},
        {R"({"jsonrpc":"2.0","method":[]})", false, true, nullptr},
        {R"([1])", false, true, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        rapidjson::Document d;
        d.Parse(c.text);
        request r;
        EXPECT_EQ(parse_envelope(d.IsArray() ? d[0] : d, r), c.valid);
        EXPECT_EQ(r.answer, c.answered);
        string_buffer sb;
        json_writer w(sb);
        write_error(sb, w, r.id, {-1, "x"});
        const std::string answered_id = c.id ? c.id : "null";
        EXPECT_NE(std::string(sb.GetString()).find("\"id\":" + answered_id + ","),
                  std::string::npos)
            << sb.GetString();
    }
    // Method names are case-sensitive.
    rapidjson::Document d;
    d.Parse(R"({"jsonrpc":"2.0","id":1,"method":"Get"})");
    request r;
    ASSERT_TRUE(parse_envelope(d, r));
    EXPECT_EQ(r.method, method_id::unknown);
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

client_identity from(const char* address) {
    client_identity c;
    c.via = client_identity::transport::tcp;
    c.address = address;
    return c;
}

TEST(connection_budget, LocalNetworkAndPerAddressShares) {
    connection_budget b(1, 3, 2);
    EXPECT_FALSE(b.admit(from("192.0.2.1")));
    EXPECT_FALSE(b.admit(from("192.0.2.1")));
    EXPECT_EQ(b.admit(from("192.0.2.1")), "Too many connections from this address");
    EXPECT_FALSE(b.admit(from("192.0.2.2")));
    // The network is full: another address is refused, the Unix socket is not.
    EXPECT_EQ(b.admit(from("192.0.2.3")), "Too many connections");
    EXPECT_FALSE(b.admit(client_identity{}));
    EXPECT_EQ(b.admit(client_identity{}), "Too many connections");

    b.release(from("192.0.2.1"));
    EXPECT_FALSE(b.admit(from("192.0.2.3")));
    b.release(client_identity{});
    EXPECT_FALSE(b.admit(client_identity{}));
}

}  // namespace
