// Measures the framework server on its Unix socket: request rate and latency of `get` on
// immediate nodes with C connections that each wait for their answer before the next request,
// and the time an event takes to reach 100 subscribers. See bench/RESULTS.md.
//
// Usage: dh_bench_server [requests per run (default 200000)] [fan-out changes (default 1000)]

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "device_handler_api.hpp"
#include "dh_db.hpp"
#include "dh_node.hpp"

namespace {

using clock_type = std::chrono::steady_clock;

std::uint64_t now_ns() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(clock_type::now().time_since_epoch())
            .count());
}

// A constant text answered on the serving thread, like the daemon's const and status values.
class const_text : public dh_db_leaf_node {
  public:
    const_text(dh_db& db, const std::string& path, std::string text)
        : dh_db_leaf_node(db, dh_db::split_path(path)), text_(std::move(text)) {}
    void get(std::string_view, dh::Allocator& a, dh::Value& out) override {
        out.SetString(text_.data(), static_cast<rapidjson::SizeType>(text_.size()), a);
    }
    std::string get_info() override { return "const value (read)"; }

  private:
    const std::string text_;
};

// A counter that the program changes, sending each change to its subscribers.
class counter : public dh_db_event_node {
  public:
    counter(dh_db& db, const std::string& path) : dh_db_event_node(db, dh_db::split_path(path)) {}
    void get(std::string_view, dh::Allocator&, dh::Value& out) override {
        std::lock_guard lock(mutex_);
        out.SetUint64(value_);
    }
    void change(std::uint64_t v) {
        std::lock_guard lock(mutex_);
        value_ = v;
        auto event = create_value_changed_event();
        event.AddMember("value", v, event.GetAllocator());
        send_event_impl(std::move(event));
    }
    std::string get_info() override { return "status value (read,subscribe)"; }

  private:
    std::mutex mutex_;
    std::uint64_t value_ = 0;
};

int connect_unix(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        throw std::runtime_error("connect: " + std::string(std::strerror(errno)));
    return fd;
}

void send_all(int fd, const std::string& text) {
    std::size_t off = 0;
    while (off < text.size()) {
        const ssize_t n = ::send(fd, text.data() + off, text.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EAGAIN) continue;
        if (n <= 0) throw std::runtime_error("send: " + std::string(std::strerror(errno)));
        off += static_cast<std::size_t>(n);
    }
}

// Reads one line, blocking.
std::string read_line(int fd) {
    std::string line;
    char c;
    while (::recv(fd, &c, 1, 0) == 1) {
        if (c == '\n') return line;
        line += c;
    }
    throw std::runtime_error("connection closed");
}

struct percentiles {
    double p50_us;
    double p99_us;
};

percentiles summarise(std::vector<std::uint32_t>& ns) {
    std::sort(ns.begin(), ns.end());
    auto at = [&](double q) {
        return ns[std::min(ns.size() - 1,
                           static_cast<std::size_t>(q * static_cast<double>(ns.size())))] /
               1000.0;
    };
    return {at(0.50), at(0.99)};
}

struct get_result {
    double requests_per_second;
    percentiles latency;
    std::size_t errors;
};

// C connections, each sending `get` for the next node only after its previous answer arrived;
// one thread drives them all through epoll, as redis-benchmark does.
get_result run_gets(const std::string& socket_path, int connections, std::size_t total) {
    struct conn {
        int fd;
        std::size_t next_node;
        std::uint64_t sent_at = 0;
        std::size_t have = 0;
        char buf[4096];
    };
    std::vector<std::string> requests;
    for (int i = 0; i < 500; ++i)
        requests.push_back(fmt::format(
            R"({{"jsonrpc":"2.0","id":{},"method":"get","params":{{"path":"bench/node/{}"}}}})"
            "\n",
            i, i));

    std::vector<conn> conns(static_cast<std::size_t>(connections));
    const int ep = ::epoll_create1(0);
    for (std::size_t i = 0; i < conns.size(); ++i) {
        conns[i].fd = connect_unix(socket_path);
        conns[i].next_node = (i * 37) % 500;
        ::fcntl(conns[i].fd, F_SETFL, ::fcntl(conns[i].fd, F_GETFL) | O_NONBLOCK);
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        ::epoll_ctl(ep, EPOLL_CTL_ADD, conns[i].fd, &ev);
    }
    std::vector<std::uint32_t> latencies;
    latencies.reserve(total);
    std::size_t issued = 0;
    std::size_t errors = 0;
    auto issue = [&](conn& c) {
        c.sent_at = now_ns();
        send_all(c.fd, requests[c.next_node]);
        c.next_node = (c.next_node + 1) % 500;
        ++issued;
    };
    const auto start = clock_type::now();
    for (auto& c : conns)
        if (issued < total) issue(c);
    epoll_event events[128];
    while (latencies.size() < total) {
        const int n = ::epoll_wait(ep, events, 128, 10000);
        if (n <= 0) throw std::runtime_error("no answer within 10 s");
        for (int k = 0; k < n; ++k) {
            conn& c = conns[events[k].data.u64];
            const ssize_t got = ::recv(c.fd, c.buf + c.have, sizeof c.buf - c.have, 0);
            if (got <= 0) {
                if (got < 0 && errno == EAGAIN) continue;
                throw std::runtime_error("server closed a connection");
            }
            c.have += static_cast<std::size_t>(got);
            if (c.buf[c.have - 1] != '\n') continue;
            latencies.push_back(static_cast<std::uint32_t>(
                std::min<std::uint64_t>(now_ns() - c.sent_at, UINT32_MAX)));
            static constexpr char expected[] = "\"result\":\"value of node ";
            if (!::memmem(c.buf, c.have, expected, sizeof expected - 1)) ++errors;
            c.have = 0;
            if (issued < total) issue(c);
        }
    }
    const double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
    for (auto& c : conns) ::close(c.fd);
    ::close(ep);
    return {static_cast<double>(total) / seconds, summarise(latencies), errors};
}

// 100 subscribers of one node; each change is timed from just before the node sends the event
// until the last subscriber has read it.
percentiles run_fanout(const std::string& socket_path, counter& node, int subscribers,
                       std::size_t changes) {
    std::vector<int> fds;
    for (int i = 0; i < subscribers; ++i) {
        const int fd = connect_unix(socket_path);
        send_all(fd,
                 R"({"jsonrpc":"2.0","id":1,"method":"subscribe","params":{"path":"bench/fanout"}})"
                 "\n");
        const std::string answer = read_line(fd);
        if (answer.find("\"result\"") == std::string::npos)
            throw std::runtime_error("subscribe failed: " + answer);
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        fds.push_back(fd);
    }

    std::mutex m;
    std::condition_variable cv;
    std::size_t done_round = 0;
    std::atomic<std::uint64_t> started_at{0};
    std::vector<std::uint32_t> latencies;
    latencies.reserve(changes);

    std::thread reader([&] {
        const int ep = ::epoll_create1(0);
        for (int i = 0; i < subscribers; ++i) {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.u32 = static_cast<std::uint32_t>(i);
            ::epoll_ctl(ep, EPOLL_CTL_ADD, fds[static_cast<std::size_t>(i)], &ev);
        }
        std::vector<std::string> partial(static_cast<std::size_t>(subscribers));
        std::vector<std::uint64_t> seen(static_cast<std::size_t>(subscribers), 0);
        std::uint64_t round = 1;
        int arrived = 0;
        char buf[65536];
        epoll_event events[128];
        while (round <= changes) {
            const int n = ::epoll_wait(ep, events, 128, 10000);
            if (n <= 0) {
                std::fprintf(stderr, "fan-out: no event within 10 s\n");
                std::exit(1);
            }
            for (int k = 0; k < n; ++k) {
                const auto i = events[k].data.u32;
                const ssize_t got = ::recv(fds[i], buf, sizeof buf, 0);
                if (got <= 0) continue;
                partial[i].append(buf, static_cast<std::size_t>(got));
                std::size_t nl;
                while ((nl = partial[i].find('\n')) != std::string::npos) {
                    const auto pos = partial[i].find("\"value\":");
                    const std::uint64_t v =
                        pos < nl ? std::strtoull(partial[i].c_str() + pos + 8, nullptr, 10) : 0;
                    partial[i].erase(0, nl + 1);
                    if (v != round || seen[i] == round) continue;
                    seen[i] = round;
                    if (++arrived < subscribers) continue;
                    latencies.push_back(static_cast<std::uint32_t>(now_ns() - started_at.load()));
                    arrived = 0;
                    {
                        std::lock_guard lock(m);
                        done_round = round;
                    }
                    cv.notify_one();
                    ++round;
                }
            }
        }
        ::close(ep);
    });

    for (std::uint64_t round = 1; round <= changes; ++round) {
        started_at.store(now_ns());
        node.change(round);
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return done_round == round; });
    }
    reader.join();
    for (int fd : fds) ::close(fd);
    return summarise(latencies);
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t requests = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 200000;
    const std::size_t changes = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1000;

    std::string dir = (std::filesystem::temp_directory_path() / "dh-bench-XXXXXX").string();
    if (!::mkdtemp(dir.data())) return 1;
    {
        device_handler_api api(dir, 0, true);
        for (int i = 0; i < 500; ++i)
            api.db.add_node(std::make_shared<const_text>(api.db, fmt::format("bench/node/{}", i),
                                                         fmt::format("value of node {}", i)));
        auto fanout = std::make_shared<counter>(api.db, "bench/fanout");
        api.db.add_node(fanout);
        std::thread serving([&] { api.start(); });

        run_gets(api.socket_path(), 10, std::min<std::size_t>(requests, 20000));  // warm-up
        std::printf("get, %zu requests per run, Unix socket\n", requests);
        std::printf("%12s %14s %10s %10s %8s\n", "connections", "requests/s", "p50 us", "p99 us",
                    "errors");
        for (int c : {1, 50}) {
            const auto r = run_gets(api.socket_path(), c, requests);
            std::printf("%12d %14.0f %10.1f %10.1f %8zu\n", c, r.requests_per_second,
                        r.latency.p50_us, r.latency.p99_us, r.errors);
        }
        const auto f = run_fanout(api.socket_path(), *fanout, 100, changes);
        std::printf("event to 100 subscribers, %zu changes: p50 %.1f us, p99 %.1f us\n", changes,
                    f.p50_us, f.p99_us);

        api.stop();
        serving.join();
    }
    std::filesystem::remove_all(dir);
    return 0;
}
