// The client library against a scripted line server, and dhctl's VALUE rule.

#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <boost/asio.hpp>

#include "dh_client.hpp"

namespace asio = boost::asio;
namespace dc = dh::client;
using namespace std::chrono_literals;

namespace {

rapidjson::Document json(const std::string& text) {
    rapidjson::Document d;
    d.Parse(text.c_str());
    return d;
}

// One accepted connection as the scripted server sees it.
template <typename Protocol>
struct peer {
    typename Protocol::socket socket;
    std::string input;

    rapidjson::Document read() {
        const std::size_t n = asio::read_until(socket, asio::dynamic_buffer(input), '\n');
        rapidjson::Document d;
        d.Parse(input.substr(0, n - 1).c_str());
        input.erase(0, n);
        return d;
    }
    void send(const std::string& text) { asio::write(socket, asio::buffer(text)); }
};

// Accepts one connection and runs a script on it in a thread. Failures inside the script are
// rethrown by finish(); the destructor unblocks a script that waits for a client that went away.
template <typename Protocol>
class scripted_server {
  public:
    explicit scripted_server(typename Protocol::endpoint endpoint) : acceptor_(io_, endpoint) {}
    ~scripted_server() {
        ::shutdown(acceptor_.native_handle(), SHUT_RDWR);
        if (peer_fd_ >= 0) ::shutdown(peer_fd_, SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
    }

    typename Protocol::endpoint endpoint() const { return acceptor_.local_endpoint(); }

    void serve(std::function<void(peer<Protocol>&)> script) {
        thread_ = std::thread([this, script = std::move(script)] {
            try {
                peer<Protocol> p{acceptor_.accept(), {}};
                peer_fd_ = p.socket.native_handle();
                script(p);
            } catch (...) {
                failure_ = std::current_exception();
            }
        });
    }

    void finish() {
        thread_.join();
        if (failure_) std::rethrow_exception(failure_);
    }

  private:
    asio::io_context io_;
    typename Protocol::acceptor acceptor_;
    std::thread thread_;
    std::atomic<int> peer_fd_{-1};
    std::exception_ptr failure_;
};

using local = asio::local::stream_protocol;

class ClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/dhclient-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        server_.emplace(local::endpoint(socket_path()));
    }
    void TearDown() override {
        server_.reset();
        std::filesystem::remove_all(dir_);
    }
    std::string socket_path() const { return dir_ + "/dh.sock"; }
    dc::client connect(dc::options opts = {}) {
        return dc::client::unix_socket(socket_path(), opts);
    }

    std::string dir_;
    std::optional<scripted_server<local>> server_;
};

std::string response(std::uint64_t id, const std::string& result) {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"result":)" + result + "}\n";
}

TEST_F(ClientTest, MatchesResponsesByIdAndQueuesEventsMeanwhile) {
    std::vector<rapidjson::Document> requests;
    server_->serve([&](peer<local>& p) {
        requests.push_back(p.read());
        const auto id = requests.back()["id"].GetUint64();
        // A late answer to some earlier request and an event come before the real answer.
        p.send(response(id + 1000, R"("stale")"));
        p.send(R"({"jsonrpc":"2.0","method":"event","params":{"path":"a/b","type":"valueChanged",)"
               R"("value":{"n":[1,2]},"seq":7,"time":"2026-11-21T10:00:00.123Z"}})"
               "\n");
        p.send(response(id, R"({"x":[1,2]})"));
        requests.push_back(p.read());  // the notification
        requests.push_back(p.read());
        p.send(response(requests.back()["id"].GetUint64(), "5"));
    });

    auto c = connect();
    EXPECT_EQ(c.get("a/b"), json(R"({"x":[1,2]})"));
    c.notify("unsubscribe", json(R"({"path":"a/b"})"));
    EXPECT_EQ(c.history(3), json("5"));

    auto e = c.next_event(0ms);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->path, "a/b");
    EXPECT_EQ(e->type, "valueChanged");
    EXPECT_EQ(e->seq, 7u);
    EXPECT_EQ(e->time, "2026-11-21T10:00:00.123Z");
    EXPECT_EQ(e->value, json(R"({"n":[1,2]})"));
    server_->finish();

    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0],
              json(R"({"jsonrpc":"2.0","id":)" + std::to_string(requests[0]["id"].GetUint64()) +
                   R"(,"method":"get","params":{"path":"a/b"}})"));
    EXPECT_FALSE(requests[1].HasMember("id"));
    EXPECT_EQ(requests[1]["method"], "unsubscribe");
    EXPECT_GT(requests[2]["id"].GetUint64(), requests[0]["id"].GetUint64());
    EXPECT_EQ(requests[2]["params"], json(R"({"limit":3})"));
}

TEST_F(ClientTest, ErrorObjectsBecomeRpcErrors) {
    server_->serve([](peer<local>& p) {
        auto id = p.read()["id"].GetUint64();
        p.send(R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
               R"(,"error":{"code":-22,"message":"Invalid value type: expected int, got string",)"
               R"("data":{"expected":"int","actual":"string"}}})"
               "\n");
        id = p.read()["id"].GetUint64();
        p.send(R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
               R"(,"error":{"code":-32001,"message":"No such node: x"}})"
               "\n");
        p.read();
        p.send(
            R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Request too large"}})"
            "\n");
        id = p.read()["id"].GetUint64();
        p.send(R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
               R"(,"error":{"code":"x"}})"
               "\n");
    });

    auto c = connect();
    try {
        c.set("p", json("\"s\""));
        FAIL() << "no error";
    } catch (const dc::rpc_error& e) {
        EXPECT_EQ(e.code(), -22);
        EXPECT_EQ(e.message(), "Invalid value type: expected int, got string");
        EXPECT_EQ(e.data(), json(R"({"expected":"int","actual":"string"})"));
        EXPECT_STREQ(e.what(), "error -22: Invalid value type: expected int, got string");
    }
    try {
        c.info("x");
        FAIL() << "no error";
    } catch (const dc::rpc_error& e) {
        EXPECT_EQ(e.code(), -32001);
        EXPECT_FALSE(e.has_data());
    }
    try {
        c.run("big", json("null"));
        FAIL() << "no error";
    } catch (const dc::rpc_error& e) {
        EXPECT_EQ(e.code(), -32600);
    }
    EXPECT_THROW(c.get("y"), dc::connection_error);
    server_->finish();
}

TEST_F(ClientTest, ReadsLongLinesArrivingInPieces) {
    const std::string big(3u << 20, 'v');
    server_->serve([&](peer<local>& p) {
        const auto id = p.read()["id"].GetUint64();
        std::string text = response(id, '"' + big + '"');
        // The answer and an event share the last write.
        text += R"({"jsonrpc":"2.0","method":"event","params":{"path":"p","value":true}})"
                "\n";
        for (std::size_t at = 0; at < text.size(); at += 100000) p.send(text.substr(at, 100000));
    });

    auto c = connect();
    auto value = c.get("p");
    ASSERT_TRUE(value.IsString());
    EXPECT_EQ(value.GetStringLength(), big.size());
    auto e = c.next_event(1s);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->value, json("true"));
    server_->finish();
}

TEST_F(ClientTest, RefusesLinesBeyondItsLimit) {
    server_->serve([](peer<local>& p) {
        const auto id = p.read()["id"].GetUint64();
        p.send(response(id, '"' + std::string(5000, 'v') + '"'));
    });
    dc::options opts;
    opts.max_line_size = 4096;
    auto c = connect(opts);
    EXPECT_THROW(c.get("p"), dc::connection_error);
    server_->finish();
}

TEST_F(ClientTest, TimedOutCallLeavesConnectionUsable) {
    server_->serve([](peer<local>& p) {
        const auto first = p.read()["id"].GetUint64();
        const auto second = p.read()["id"].GetUint64();
        p.send(response(first, R"("late")"));
        p.send(response(second, R"("second")"));
        // Closing now: the next call fails as a broken connection, not as a timeout.
    });

    dc::options opts;
    opts.timeout = 100ms;
    auto c = connect(opts);
    EXPECT_THROW(c.get("slow"), dc::timeout_error);
    EXPECT_FALSE(c.next_event(20ms));
    c.set_timeout(5s);
    EXPECT_EQ(c.get("fast"), json(R"("second")"));
    try {
        c.get("gone");
        FAIL() << "no error";
    } catch (const dc::timeout_error&) {
        FAIL() << "closed connection reported as timeout";
    } catch (const dc::connection_error& e) {
        EXPECT_NE(std::string(e.what()).find("closed"), std::string::npos) << e.what();
    }
    server_->finish();
}

TEST_F(ClientTest, ConnectFailureNamesTheSocket) {
    const std::string missing = dir_ + "/missing.sock";
    try {
        dc::client::unix_socket(missing);
        FAIL() << "connected";
    } catch (const dc::connection_error& e) {
        EXPECT_NE(std::string(e.what()).find(missing), std::string::npos) << e.what();
    }
}

TEST(ClientTcpTest, ConnectsOverTcp) {
    using tcp = asio::ip::tcp;
    scripted_server<tcp> server(tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    server.serve([](peer<tcp>& p) {
        const auto id = p.read()["id"].GetUint64();
        p.send(response(id, "[]"));
    });
    auto c = dc::client::tcp("127.0.0.1", std::to_string(server.endpoint().port()));
    EXPECT_EQ(c.address(), "127.0.0.1:" + std::to_string(server.endpoint().port()));
    EXPECT_EQ(c.list(), json("[]"));
    server.finish();
}

TEST(CliValueTest, JsonWhenItParsesOtherwiseString) {
    EXPECT_EQ(dc::parse_cli_value("5"), json("5"));
    EXPECT_EQ(dc::parse_cli_value("-2.5"), json("-2.5"));
    EXPECT_EQ(dc::parse_cli_value("true"), json("true"));
    EXPECT_EQ(dc::parse_cli_value("null"), json("null"));
    EXPECT_EQ(dc::parse_cli_value(R"({"a":1})"), json(R"({"a":1})"));
    EXPECT_EQ(dc::parse_cli_value(R"("x")"), json(R"("x")"));
    for (const char* text : {"abc", "", "0.0.0.2", "5 6", "{\"a\":", "True", "192.0.2.1/24"})
        EXPECT_EQ(dc::parse_cli_value(text), rapidjson::Value(rapidjson::StringRef(text))) << text;
}

TEST(CliValueTest, DisplayPrintsStringsBare) {
    EXPECT_EQ(dc::display_value(json(R"("up")"), true), "up");
    EXPECT_EQ(dc::display_value(json(R"({"a":[1]})"), false), R"({"a":[1]})");
    EXPECT_EQ(dc::display_value(json(R"({"a":1})"), true), "{\n  \"a\": 1\n}");
}

}  // namespace
