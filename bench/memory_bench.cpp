// Resident memory of the framework under a long run of writes and reads: 500 configuration
// parameters (string and integer) behind a real server, a subscriber on the Unix socket, then
// mixed writes and reads over another connection. Prints VmRSS after start-up (nodes registered,
// first requests answered) and after the run. Usage: dh_bench_memory [writes] [reads]

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <fmt/format.h>

#include "device_handler_api.hpp"
#include "dh_api/dh_api.hpp"

// Outside the anonymous namespace: its methods become template arguments of the node kinds.
struct handler {
    void set_text(std::string_view, const std::string&) {}
    void set_number(std::string_view, unsigned) {}
};

namespace {

long rss_kib() {
    std::ifstream f("/proc/self/status");
    std::string line;
    while (std::getline(f, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

class client {
  public:
    explicit client(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
            throw std::runtime_error("connect failed");
    }
    ~client() { ::close(fd_); }

    std::string call(const std::string& request) {
        const std::string line = request + "\n";
        if (::send(fd_, line.data(), line.size(), MSG_NOSIGNAL) != ssize_t(line.size()))
            throw std::runtime_error("send failed");
        return read_line();
    }
    // Reads and drops whatever has arrived (a subscriber's events).
    void drain() {
        char tmp[65536];
        while (::recv(fd_, tmp, sizeof tmp, MSG_DONTWAIT) > 0) {
        }
    }

  private:
    std::string read_line() {
        for (;;) {
            if (auto nl = buf_.find('\n'); nl != std::string::npos) {
                std::string out = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                return out;
            }
            char tmp[4096];
            const ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
            if (n <= 0) throw std::runtime_error("connection closed");
            buf_.append(tmp, static_cast<std::size_t>(n));
        }
    }

    int fd_;
    std::string buf_;
};

}  // namespace

int main(int argc, char** argv) {
    const std::size_t writes = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 10000;
    const std::size_t reads = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 200000;
    constexpr int nodes = 250;

    std::string dir = (std::filesystem::temp_directory_path() / "dh-bench-XXXXXX").string();
    if (!::mkdtemp(dir.data())) return 1;
    {
        device_handler_api api(dir, 0, true);
        auto h = std::make_shared<handler>();
        for (int i = 0; i < nodes; ++i) {
            dh::api::config_param<&handler::set_text>::create(
                api.db, fmt::format("config/port{}/description", i), h,
                [i] { return fmt::format("port {}", i); }, fmt::format("port{}", i));
            dh::api::config_param<&handler::set_number>::create(
                api.db, fmt::format("config/port{}/mtu", i), h, [] { return 1500u; },
                fmt::format("port{}", i));
        }
        std::thread serving([&] { api.start(); });

        client subscriber(api.socket_path());
        for (int i = 0; i < nodes; ++i)
            subscriber.call(fmt::format(
                R"({{"jsonrpc":"2.0","id":1,"method":"subscribe","params":{{"path":"config/port{}/mtu"}}}})",
                i));
        client c(api.socket_path());
        c.call(R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"config/port0/mtu"}})");
        const long start_kib = rss_kib();

        for (std::size_t i = 0, r = 0; i < writes; ++i) {
            const int n = static_cast<int>(i % nodes);
            if (i % 2)
                c.call(fmt::format(
                    R"({{"jsonrpc":"2.0","id":{},"method":"set","params":{{"path":"config/port{}/mtu","value":{}}}}})",
                    i, n, 1500 + i % 7000));
            else
                c.call(fmt::format(
                    R"({{"jsonrpc":"2.0","id":{},"method":"set","params":{{"path":"config/port{}/description","value":"link to site {} rack {}"}}}})",
                    i, n, i, i % 40));
            subscriber.drain();
            // Reads spread over the writes, with a history read now and then.
            for (const std::size_t until = (i + 1) * reads / writes; r < until; ++r)
                c.call(
                    r % 1000 == 0
                        ? std::string(
                              R"({"jsonrpc":"2.0","id":2,"method":"history","params":{"limit":1000}})")
                        : fmt::format(
                              R"({{"jsonrpc":"2.0","id":{},"method":"get","params":{{"path":"config/port{}/description"}}}})",
                              r, r % nodes));
        }
        subscriber.drain();
        const long end_kib = rss_kib();
        std::printf(
            "%d nodes, %zu writes, %zu reads: VmRSS start-up %ld KiB, after %ld KiB, "
            "growth %ld KiB\n",
            2 * nodes, writes, reads, start_kib, end_kib, end_kib - start_kib);

        api.stop();
        serving.join();
    }
    std::filesystem::remove_all(dir);
    return 0;
}
