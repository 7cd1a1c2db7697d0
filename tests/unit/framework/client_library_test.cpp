// The client library against a scripted peer, and dhctl's VALUE rule.

#include <gmock/gmock.h>

#include "dh_client.hpp"
#include "server_test_support.hpp"

namespace dc = dh::client;
using ::testing::HasSubstr;

namespace server_test {
namespace {

// Accepts one connection on a Unix socket and runs a script on it in a thread; finish() waits
// for it and rethrows what the script threw.
class scripted_server {
  public:
    explicit scripted_server(std::function<void(line_client&)> script) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(listener_, 1) != 0)
            throw std::runtime_error("listen " + path);
        done_ = std::async(std::launch::async, [this, script = std::move(script)] {
            line_client peer(::accept(listener_, nullptr, nullptr));
            script(peer);
        });
    }
    ~scripted_server() {
        ::shutdown(listener_, SHUT_RDWR);
        if (done_.valid()) done_.wait();
        ::close(listener_);
        std::filesystem::remove_all(std::filesystem::path(path).parent_path());
    }
    void finish() { done_.get(); }

    const std::string path = make_temp_dir() + "/dh.sock";

  private:
    int listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    std::future<void> done_;
};

std::string response(std::uint64_t id, const std::string& body) {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + "," + body + "}\n";
}
std::string result(std::uint64_t id, const std::string& value) {
    return response(id, R"("result":)" + value);
}
std::uint64_t next_id(line_client& peer) {
    return peer.read_json()["id"].GetUint64();
}

// The requests themselves are checked against the real server (server_access_test, dhctl).
TEST(client_library, MatchesResponsesByIdAndQueuesEventsMeanwhile) {
    rapidjson::Document notification;
    scripted_server server([&](line_client& p) {
        const auto id = next_id(p);
        // A late answer to some earlier request and an event come before the real answer.
        p.send_raw(result(id + 1000, R"("stale")") +
                   req("", "event",
                       R"({"path":"a/b","type":"valueChanged","value":{"n":[1,2]},"seq":7,)"
                       R"("time":"2026-11-21T10:00:00.123Z"})") +
                   "\n" + result(id, R"({"x":[1,2]})"));
        notification = p.read_json();
        p.send_raw(result(next_id(p), "5"));
    });

    auto c = dc::client::unix_socket(server.path);
    EXPECT_EQ(c.get("a/b"), parse(R"({"x":[1,2]})"));
    c.notify("unsubscribe", parse(R"({"path":"a/b"})"));
    EXPECT_EQ(c.history(3), parse("5"));

    auto e = c.next_event(0ms);
    ASSERT_TRUE(e);
    EXPECT_EQ(fmt::format("{} {} {} {}", e->path, e->type, e->seq, e->time),
              "a/b valueChanged 7 2026-11-21T10:00:00.123Z");
    EXPECT_EQ(e->value, parse(R"({"n":[1,2]})"));
    server.finish();
    EXPECT_EQ(notification,
              parse(R"({"jsonrpc":"2.0","method":"unsubscribe","params":{"path":"a/b"}})"));
}

TEST(client_library, ErrorObjectsBecomeRpcErrors) {
    scripted_server server([](line_client& p) {
        p.send_raw(response(next_id(p), R"("error":{"code":-22,"message":"Invalid value type",)"
                                        R"("data":{"expected":"uint"}})"));
        p.read_json();
        p.send_line(null_error(-32600, "Too large"));
        p.send_raw(response(next_id(p), R"("error":{"code":"x"})"));
    });

    auto c = dc::client::unix_socket(server.path, {.timeout = 5s});
    EXPECT_EQ(thrown<dc::rpc_error>(
                  [&] { c.info("x"); },
                  [](const dc::rpc_error& e) { return e.what() + (" " + to_json_text(e.data())); }),
              R"(error -22: Invalid value type {"expected":"uint"})");
    // An error without id answers the request it interrupted.
    EXPECT_EQ(thrown<dc::rpc_error>([&] { c.run("big", parse("null")); }),
              "error -32600: Too large");
    EXPECT_THROW(c.get("y"), dc::connection_error);  // not an error object
    server.finish();
}

TEST(client_library, ReadsLongLinesInPiecesUpToItsLimit) {
    const std::string big(3u << 20, 'v');
    scripted_server server([&](line_client& p) {
        // The answer and an event share the last write.
        const std::string text = result(next_id(p), '"' + big + '"') +
                                 req("", "event", R"({"path":"p","value":true})") + "\n";
        for (std::size_t at = 0; at < text.size(); at += 100000)
            p.send_raw(text.substr(at, 100000));
    });

    auto c = dc::client::unix_socket(server.path, {.timeout = 5s, .max_line_size = 4u << 20});
    EXPECT_EQ(c.get("p").GetStringLength(), big.size());
    auto e = c.next_event(1s);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->value, parse("true"));
    server.finish();

    scripted_server small(
        [](line_client& p) { p.send_raw(result(next_id(p), '"' + std::string(5000, 'v') + '"')); });
    auto d = dc::client::unix_socket(small.path, {.timeout = 5s, .max_line_size = 4096});
    EXPECT_THROW(d.get("p"), dc::connection_error);
    small.finish();
}

TEST(client_library, TimedOutCallLeavesConnectionUsable) {
    scripted_server server([](line_client& p) {
        const auto first = next_id(p);
        const auto second = next_id(p);
        p.send_raw(result(first, R"("late")") + result(second, R"("second")"));
        // Closing now: the next call fails as a broken connection, not as a timeout.
    });

    auto c = dc::client::unix_socket(server.path, {.timeout = 100ms});
    EXPECT_THROW(c.get("slow"), dc::timeout_error);
    c.set_timeout(5s);
    EXPECT_EQ(c.get("fast"), parse(R"("second")"));
    EXPECT_THAT(thrown<dc::connection_error>([&] { c.get("gone"); }), HasSubstr("closed"));
    server.finish();

    const std::string missing = "/nonexistent/dh-test/missing.sock";
    EXPECT_THAT(thrown<dc::connection_error>([&] { dc::client::unix_socket(missing); }),
                HasSubstr(missing));
}

TEST(client_library, CliValueIsJsonWhenItParsesOtherwiseString) {
    for (const char* text : {"5", "-2.5", "true", "null", R"({"a":1})", R"("x")"})
        EXPECT_EQ(dc::parse_cli_value(text), parse(text)) << text;
    for (const char* text : {"abc", "", "0.0.0.2", "5 6", "{\"a\":", "True", "192.0.2.1/24"})
        EXPECT_EQ(dc::parse_cli_value(text), rapidjson::Value(rapidjson::StringRef(text))) << text;

    EXPECT_EQ(dc::display_value(parse(R"("up")"), true), "up");
    EXPECT_EQ(dc::display_value(parse(R"({"a":[1]})"), false), R"({"a":[1]})");
    EXPECT_EQ(dc::display_value(parse(R"({"a":1})"), true), "{\n  \"a\": 1\n}");
}

}  // namespace
}  // namespace server_test
