#pragma once

// Shared by the server and client tests: a raw line connection on real sockets, small node
// kinds, and real servers on sockets in a temporary directory.

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "dh_api/dh_api.hpp"
#include "dh_db.hpp"
#include "dh_session.hpp"
#include "scheduler.hpp"
#include "server.hpp"

namespace server_test {

using namespace std::chrono_literals;
using dh::api::to_json_text;

inline bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// A request line; id and params are JSON texts, each left out when empty (no id: a
// notification).
inline std::string req(const std::string& id, const std::string& method,
                       const std::string& params = "") {
    return fmt::format(R"({{"jsonrpc":"2.0",{}"method":"{}"{}}})",
                       id.empty() ? "" : R"("id":)" + id + ",", method,
                       params.empty() ? "" : R"(,"params":)" + params);
}

// The error line answering what has no usable id.
inline std::string null_error(int code, const std::string& message) {
    return fmt::format(R"({{"jsonrpc":"2.0","id":null,"error":{{"code":{},"message":"{}"}}}})",
                       code, message);
}

// What f throws as an E, as describe(e) tells it (e.what() by default); "" when it throws none.
template <typename E, typename F, typename D>
std::string thrown(F&& f, D&& describe) {
    try {
        f();
    } catch (const E& e) {
        return describe(e);
    }
    return "";
}
template <typename E, typename F>
std::string thrown(F&& f) {
    return thrown<E>(f, [](const E& e) { return std::string(e.what()); });
}

inline rapidjson::Document parse(const std::string& text) {
    rapidjson::Document d;
    d.Parse(text.c_str(), text.size());
    if (d.HasParseError()) throw std::runtime_error("not JSON: " + text);
    return d;
}

// One connection that sends raw text and reads whole lines, each with a deadline.
class line_client {
  public:
    explicit line_client(int fd) : fd_(fd) {}
    line_client(line_client&& o) noexcept
        : fd_(std::exchange(o.fd_, -1)), buf_(std::move(o.buf_)) {}
    ~line_client() {
        if (fd_ >= 0) ::close(fd_);
    }

    static line_client unix_socket(const std::string& path) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        return open(AF_UNIX, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    }
    static line_client tcp(unsigned port, const char* host = "127.0.0.1") {
        addrinfo* ai = nullptr;
        if (::getaddrinfo(host, std::to_string(port).c_str(), nullptr, &ai) != 0)
            throw std::runtime_error(std::string("no address ") + host);
        std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> free(ai, ::freeaddrinfo);
        return open(ai->ai_family, ai->ai_addr, ai->ai_addrlen);
    }

    // Sends everything; false when the peer has closed the connection meanwhile.
    bool send_raw(std::string_view text) {
        while (!text.empty()) {
            const ssize_t n = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
            if (n < 0) return false;
            text.remove_prefix(static_cast<std::size_t>(n));
        }
        return true;
    }
    bool send_line(std::string_view text) { return send_raw(std::string(text) + "\n"); }

    // The next line, or nothing on timeout, end of stream or error.
    std::optional<std::string> read_line(std::chrono::milliseconds limit = 5s) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        std::size_t nl;
        while ((nl = buf_.find('\n')) == std::string::npos)
            if (!fill(deadline)) return std::nullopt;
        std::string line = buf_.substr(0, nl);
        buf_.erase(0, nl + 1);
        return line;
    }
    // The next line as JSON; throws when none comes.
    rapidjson::Document read_json() { return parse(read_line().value()); }

    // True once the peer closed the connection (lines still buffered are dropped).
    bool closed_by_peer(std::chrono::milliseconds limit = 5s) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (fill(deadline)) buf_.clear();
        return eof_;
    }

    void shutdown(int how = SHUT_WR) { ::shutdown(fd_, how); }

  private:
    static line_client open(int family, const sockaddr* addr, socklen_t len) {
        line_client c(::socket(family, SOCK_STREAM, 0));
        if (::connect(c.fd_, addr, len) != 0)
            throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
        return c;
    }

    bool fill(std::chrono::steady_clock::time_point deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
        char tmp[65536];
        const ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
        if (n <= 0) return !(eof_ = true);
        buf_.append(tmp, static_cast<std::size_t>(n));
        return true;
    }

    int fd_ = -1;
    std::string buf_;
    bool eof_ = false;
};

// A value clients read, write and subscribe to; optionally answered on the workers.
class value_node : public dh_db_event_node {
  public:
    value_node(dh_db& db, const std::string& path, bool async)
        : dh_db_event_node(db, dh_db::split_path(path)), async_(async) {}

    void get(std::string_view, dh::Allocator& a, dh::Value& out) override {
        std::lock_guard lock(mutex_);
        out.CopyFrom(value_, a);
    }
    void set(std::string_view, const dh::Value& v) override {
        std::lock_guard lock(mutex_);
        if (value_ == v) return;
        value_.CopyFrom(v, value_.GetAllocator());
        send_event_impl(event());
    }
    void subscribe(const std::shared_ptr<dh_session>& s, std::string_view path, dh::Allocator& a,
                   dh::Value& out, std::unique_lock<std::mutex>& lock) override {
        std::lock_guard own(mutex_);
        dh_db_event_node::subscribe(s, path, a, out, lock);
        out.CopyFrom(value_, a);
        if (!value_.IsNull()) send_event_to_session_impl(s, true, event());
    }
    void unsubscribe(const std::shared_ptr<dh_session>& s) override {
        dh_db_event_node::unsubscribe(s);
        ++unsubscribes;
    }
    std::string get_info() override { return "config value (read,write,subscribe)"; }
    bool is_async() override { return async_; }

    std::atomic<int> unsubscribes{0};

  private:
    dh::Document event() {
        auto e = create_value_changed_event();
        e.AddMember("value", dh::Value(value_, e.GetAllocator()), e.GetAllocator());
        return e;
    }

    const bool async_;
    std::mutex mutex_;
    dh::Document value_;
};

// A slow read on the workers: get waits until the test opens the gate.
struct gated_node : dh_db_leaf_node {
    explicit gated_node(dh_db& db) : dh_db_leaf_node(db, {"data", "slow"}) {}
    void get(std::string_view, dh::Allocator& a, dh::Value& out) override {
        ++waiting;
        opened.wait(false);
        out.SetString("slow", a);
    }
    bool is_async() override { return true; }
    void open() {
        opened = true;
        opened.notify_all();
    }

    std::atomic<int> waiting{0};
    std::atomic<bool> opened{false};
};

// Fails with a dh_error (get) or any other exception (run); with `echo`, a run answers
// {"echo": value} instead, on the workers.
struct tricky_node : dh_db_leaf_node {
    tricky_node(dh_db& db, const std::string& path, bool echo)
        : dh_db_leaf_node(db, dh_db::split_path(path)), echo(echo) {}
    void get(std::string_view, dh::Allocator&, dh::Value&) override {
        throw dh_error(-5, "Input/output error");
    }
    void run(std::string_view, const dh::Value& in, dh::Allocator& a, dh::Value& out) override {
        if (!echo) throw std::runtime_error("boom");
        out.SetObject();
        out.AddMember("echo", dh::Value(in, a), a);
    }
    bool is_async() override { return echo; }
    const bool echo;
};

template <typename Node, typename... Args>
std::shared_ptr<Node> add(dh_db& db, Args&&... args) {
    auto node = std::make_shared<Node>(db, std::forward<Args>(args)...);
    db.add_node(node);
    return node;
}

inline std::string make_temp_dir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "dh-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

// A real server with its own node tree (data/version to begin with) on <tmp>/dh.sock and an
// ephemeral port on 127.0.0.1; serve() runs it on a thread until the object goes.
struct test_server {
    explicit test_server(dh::server::options opts = {}) : srv(db, dir, 0, true, std::move(opts)) {
        dh::api::const_value<std::string>::create(db, "data/version", "1.2.3");
    }
    ~test_server() {
        srv.stop();
        if (thread.joinable()) thread.join();
        std::filesystem::remove_all(dir);
    }
    void serve() {
        thread = std::thread([this] { srv.run(); });
    }
    line_client connect() const { return line_client::unix_socket(srv.socket_path()); }

    dh_db db;
    const std::string dir = make_temp_dir();
    dh::server::server srv;
    std::thread thread;
};

// A served test_server with the small node kinds above and heartbeats on a manual clock.
struct server_fixture : ::testing::Test {
    void SetUp() override {
        param = add<value_node>(s.db, "config/ospf/areaId", false);
        async_param = add<value_node>(s.db, "config/ntp/server", true);
        gate = add<gated_node>(s.db);
        add<tricky_node>(s.db, "data/broken", false);
        add<tricky_node>(s.db, "command/echo", true);
        before_start();
        s.serve();
    }
    // For fixtures that add to the server before it serves.
    virtual void before_start() {}
    void TearDown() override { gate->open(); }

    // Sends one request and returns the next line as a document.
    static rapidjson::Document call(line_client& c, const std::string& request) {
        EXPECT_TRUE(c.send_line(request));
        return c.read_json();
    }
    // Sends a request; returns the lines up to and including its answer.
    static std::vector<rapidjson::Document> exchange(line_client& c, const std::string& id,
                                                     const std::string& method,
                                                     const std::string& params) {
        EXPECT_TRUE(c.send_line(req(id, method, params)));
        std::vector<rapidjson::Document> lines;
        do lines.push_back(c.read_json());
        while (!lines.back().HasMember("id") || to_json_text(lines.back()["id"]) != id);
        return lines;
    }
    // The result of a request, or its error, as JSON text.
    static std::string result(line_client& c, const std::string& method,
                              const std::string& params = "") {
        auto lines = exchange(c, "0", method, params);
        const auto& answer = lines.back();
        return to_json_text(answer.HasMember("result") ? answer["result"] : answer["error"]);
    }
    // The next line is the answer to a get: nothing was sent before it.
    static void expect_nothing_pending(line_client& c) {
        auto lines = exchange(c, R"("probe")", "get", R"({"path":"data/version"})");
        EXPECT_EQ(lines.size(), 1u) << to_json_text(lines.front());
    }
    // path=value and seq of an event line.
    static std::pair<std::string, std::uint64_t> event_of(const rapidjson::Document& d) {
        EXPECT_EQ(std::string(d["method"].GetString()), "event") << to_json_text(d);
        return {
            std::string(d["params"]["path"].GetString()) + "=" + to_json_text(d["params"]["value"]),
            d["params"]["seq"].GetUint64()};
    }
    static void set(value_node& n, const std::string& json) { n.set({}, parse(json)); }

    dh::manual_scheduler sched;
    test_server s{[this] {
        dh::server::options o;
        o.scheduler = &sched;
        return o;
    }()};
    std::shared_ptr<value_node> param;
    std::shared_ptr<value_node> async_param;
    std::shared_ptr<gated_node> gate;
};

}  // namespace server_test
