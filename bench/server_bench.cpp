// Measures the framework server on its Unix socket: request rate and latency of `get` on
// immediate nodes with C connections that each wait for their answer before the next request,
// pattern reads against single reads of the same leaves, and the time an event takes to reach
// 100 subscribers. See bench/RESULTS.md.
//
// Usage: dh_bench_server [requests per run (default 200000)] [fan-out changes (default 1000)]
//        dh_bench_server subscriptions single|pattern
//          100 connections each subscribing to 100 leaves with 100 requests or one pattern,
//          then 2,000 changes: requests, memory and bytes per event (one mode per process, so
//          that the resident size of one does not hide the other's).

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
get_result run_gets(const std::string& socket_path, int connections, std::size_t total,
                    const std::vector<std::string>& requests, std::string_view expected) {
    struct conn {
        int fd;
        std::size_t next_node;
        std::uint64_t sent_at = 0;
        std::size_t have = 0;
        char buf[4096];
    };
    std::vector<conn> conns(static_cast<std::size_t>(connections));
    const int ep = ::epoll_create1(0);
    for (std::size_t i = 0; i < conns.size(); ++i) {
        conns[i].fd = connect_unix(socket_path);
        conns[i].next_node = (i * 37) % requests.size();
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
        c.next_node = (c.next_node + 1) % requests.size();
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
            if (!::memmem(c.buf, c.have, expected.data(), expected.size())) ++errors;
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

// 100 subscribers on the Unix socket: more than its default budget of 64.
dh::server::options bench_options() {
    dh::server::options o;
    o.max_local_connections = 1000;
    return o;
}

std::vector<std::string> get_requests(const std::vector<std::string>& paths) {
    std::vector<std::string> out;
    for (std::size_t i = 0; i < paths.size(); ++i)
        out.push_back(
            fmt::format(R"({{"jsonrpc":"2.0","id":{},"method":"get","params":{{"path":"{}"}}}})"
                        "\n",
                        i, paths[i]));
    return out;
}

// Sixteen ports with ten leaves each, as the daemon's data/eN/... leaves: the pattern reads walk
// all of them and answer one leaf of each port.
void add_ports(dh_db& db) {
    for (int port = 1; port <= 16; ++port)
        for (const char* leaf :
             {"adminStatus", "bridgePort", "ipv4Settings", "linkMediaType", "linkStatus",
              "lldp/neighbours", "macAddress", "mode", "sfp/rxPower", "sfp/txPower"})
            db.add_node(
                std::make_shared<const_text>(db, fmt::format("data/e{}/{}", port, leaf), "up"));
}

long rss_kib() {
    std::FILE* f = std::fopen("/proc/self/status", "r");
    char line[256];
    long kib = -1;
    while (f && std::fgets(line, sizeof line, f))
        if (std::sscanf(line, "VmRSS: %ld kB", &kib) == 1) break;
    if (f) std::fclose(f);
    return kib;
}

// 100 connections subscribe to the 100 leaves bench/sub/N, one request per leaf or one pattern;
// then every leaf changes 20 times while a thread reads every connection.
int run_subscriptions(bool pattern) {
    constexpr int connections = 100, leaves = 100, rounds = 20;
    std::string dir = (std::filesystem::temp_directory_path() / "dh-bench-XXXXXX").string();
    if (!::mkdtemp(dir.data())) return 1;
    {
        device_handler_api api(dir, 0, true, bench_options());
        std::vector<std::shared_ptr<counter>> nodes;
        for (int i = 0; i < leaves; ++i) {
            nodes.push_back(std::make_shared<counter>(api.db, fmt::format("bench/sub/{}", i)));
            api.db.add_node(nodes.back());
        }
        std::thread serving([&] { api.start(); });
        const long before = rss_kib();
        std::vector<int> fds;
        std::size_t requests = 0;
        for (int c = 0; c < connections; ++c) {
            const int fd = connect_unix(api.socket_path());
            const int n = pattern ? 1 : leaves;
            for (int i = 0; i < n; ++i) {
                const std::string path = pattern ? "bench/sub/*" : fmt::format("bench/sub/{}", i);
                send_all(fd, fmt::format(R"({{"jsonrpc":"2.0","id":{},"method":"subscribe",)"
                                         R"("params":{{"path":"{}"}}}})"
                                         "\n",
                                         i, path));
                ++requests;
                if (read_line(fd).find("\"result\"") == std::string::npos)
                    throw std::runtime_error("subscribe failed");
            }
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
            fds.push_back(fd);
        }
        const long subscribed = rss_kib();

        const std::size_t expected = std::size_t{connections} * leaves * rounds;
        std::atomic<std::size_t> lines{0}, bytes{0};
        std::thread reader([&] {
            char buf[65536];
            while (lines.load() < expected) {
                for (int fd : fds) {
                    const ssize_t got = ::recv(fd, buf, sizeof buf, 0);
                    if (got <= 0) continue;
                    bytes += static_cast<std::size_t>(got);
                    lines += static_cast<std::size_t>(std::count(buf, buf + got, '\n'));
                }
            }
        });
        for (int r = 1; r <= rounds; ++r)
            for (auto& n : nodes) n->change(static_cast<std::uint64_t>(r));
        reader.join();
        const long after = rss_kib();
        std::printf(
            "%-8s %3d connections x %3d leaves: %5zu subscribe requests, RSS %+6ld KiB "
            "subscribing, %+6ld KiB over %zu events, %.1f bytes per event\n",
            pattern ? "pattern" : "single", connections, leaves, requests, subscribed - before,
            after - subscribed, expected,
            static_cast<double>(bytes.load()) / static_cast<double>(expected));
        for (int fd : fds) ::close(fd);
        api.stop();
        serving.join();
    }
    std::filesystem::remove_all(dir);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2 && std::string_view(argv[1]) == "subscriptions")
        return run_subscriptions(std::string_view(argv[2]) == "pattern");
    const std::size_t requests = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 200000;
    const std::size_t changes = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1000;

    std::string dir = (std::filesystem::temp_directory_path() / "dh-bench-XXXXXX").string();
    if (!::mkdtemp(dir.data())) return 1;
    {
        device_handler_api api(dir, 0, true, bench_options());
        std::vector<std::string> node_paths;
        for (int i = 0; i < 500; ++i) {
            node_paths.push_back(fmt::format("bench/node/{}", i));
            api.db.add_node(std::make_shared<const_text>(api.db, node_paths.back(),
                                                         fmt::format("value of node {}", i)));
        }
        add_ports(api.db);
        auto fanout = std::make_shared<counter>(api.db, "bench/fanout");
        api.db.add_node(fanout);
        std::thread serving([&] { api.start(); });

        const auto node_gets = get_requests(node_paths);
        constexpr std::string_view node_answer = "\"result\":\"value of node ";
        run_gets(api.socket_path(), 10, std::min<std::size_t>(requests, 20000), node_gets,
                 node_answer);  // warm-up
        std::printf("get, %zu requests per run, Unix socket\n", requests);
        std::printf("%12s %14s %10s %10s %8s\n", "connections", "requests/s", "p50 us", "p99 us",
                    "errors");
        for (int c : {1, 50}) {
            const auto r = run_gets(api.socket_path(), c, requests, node_gets, node_answer);
            std::printf("%12d %14.0f %10.1f %10.1f %8zu\n", c, r.requests_per_second,
                        r.latency.p50_us, r.latency.p99_us, r.errors);
        }

        std::vector<std::string> link_paths;
        for (int port = 1; port <= 16; ++port)
            link_paths.push_back(fmt::format("data/e{}/linkStatus", port));
        std::printf("\nsingle and pattern reads, %zu nodes, 50 connections, %zu requests each\n",
                    api.db.size(), requests / 4);
        std::printf("%-22s %7s %14s %10s %10s %8s\n", "path", "leaves", "requests/s", "p50 us",
                    "p99 us", "errors");
        const auto single = run_gets(api.socket_path(), 50, requests / 4, get_requests(link_paths),
                                     "\"result\":\"up\"");
        std::printf("%-22s %7d %14.0f %10.1f %10.1f %8zu\n", "data/eN/linkStatus", 1,
                    single.requests_per_second, single.latency.p50_us, single.latency.p99_us,
                    single.errors);
        for (const auto& [pattern, leaves] :
             {std::pair<const char*, int>{"data/*/linkStatus", 16}, {"data/e1/...", 10}}) {
            const auto r = run_gets(api.socket_path(), 50, requests / 4, get_requests({pattern}),
                                    "\"result\":{\"values\":{");
            std::printf("%-22s %7d %14.0f %10.1f %10.1f %8zu  (%.0f%% of single)\n", pattern,
                        leaves, r.requests_per_second, r.latency.p50_us, r.latency.p99_us, r.errors,
                        100.0 * r.requests_per_second / single.requests_per_second);
        }

        const auto f = run_fanout(api.socket_path(), *fanout, 100, changes);
        std::printf("\nevent to 100 subscribers, %zu changes: p50 %.1f us, p99 %.1f us\n", changes,
                    f.p50_us, f.p99_us);

        api.stop();
        serving.join();
    }
    std::filesystem::remove_all(dir);
    return 0;
}
