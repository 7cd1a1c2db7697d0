#include <fcntl.h>
#include <sys/resource.h>

#include <fstream>
#include <system_error>

#include "../metric_sample.hpp"
#include "device_handler_api.hpp"
#include "server_test_support.hpp"

namespace server_test {
namespace {

using server_transport = server_fixture;

const std::string get_version = req("1", "get", R"({"path":"data/version"})");

bool answers(line_client& c) {
    return c.send_line(get_version) &&
           c.read_line() == R"({"jsonrpc":"2.0","id":1,"result":"1.2.3"})";
}

TEST(server_socket, ReplacesStaleSocketFileWithMode0660AndIsNotInherited) {
    const std::string dir = make_temp_dir();
    const std::string sock_dir = dir + "/a/b";
    std::filesystem::create_directories(sock_dir);
    std::ofstream(sock_dir + "/dh.sock") << "left over";
    {
        device_handler_api api(sock_dir, 0, true);
        const auto st = std::filesystem::status(api.socket_path());
        // A socket, and its mode in octal.
        EXPECT_EQ(fmt::format("{} {:o}", st.type() == std::filesystem::file_type::socket,
                              static_cast<unsigned>(st.permissions())),
                  "true 660");
        // IPv6 is bound to an interface that must exist (the limits test uses it on lo).
        EXPECT_THROW(api.start_ipv6_socket("no-such-if0"), std::system_error);
        // Children the daemon starts must not inherit its listening sockets.
        for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ec;
            if (std::filesystem::read_symlink(fd.path(), ec).string().rfind("socket:", 0) != 0)
                continue;
            const int n = std::stoi(fd.path().filename().string());
            EXPECT_TRUE(::fcntl(n, F_GETFD) & FD_CLOEXEC) << "socket fd " << n << " is inherited";
        }
        // A stop that comes before the serving loop makes it return at once.
        api.stop();
        api.start();
    }
    std::filesystem::remove_all(dir);
}

TEST_F(server_transport, OversizedLineIsRefusedAndClosed) {
    auto c = s.connect();
    // Exactly 1 MiB is still a line; the value is a long string of the right size.
    const std::string head =
        R"({"jsonrpc":"2.0","id":1,"method":"set","params":{"path":"config/ospf/areaId","value":")";
    const std::string tail = R"("}})";
    const std::string fits = head + std::string((1u << 20) - head.size() - tail.size(), 'x') + tail;
    EXPECT_TRUE(call(c, fits)["result"].IsNull());

    c.send_raw(std::string((1u << 20) + 1, ' '));
    EXPECT_EQ(c.read_line(), null_error(-32600, "Request too large"));
    EXPECT_TRUE(c.closed_by_peer());
}

TEST_F(server_transport, DeepNestingIsRefusedWithoutHarm) {
    auto c = s.connect();
    EXPECT_EQ(to_json_text(call(c, std::string(100000, '['))),
              null_error(-32600, "Nesting too deep"));
    // Objects count as well: with the request object and params, 62 arrays make 64 levels.
    auto nested = [](int n) {
        return R"({"jsonrpc":"2.0","id":2,"method":"set","params":{"path":"config/ospf/areaId","value":)" +
               std::string(n, '[') + std::string(n, ']') + "}}";
    };
    EXPECT_TRUE(call(c, nested(62))["result"].IsNull());
    EXPECT_EQ(std::string(call(c, nested(63))["error"]["message"].GetString()), "Nesting too deep");
    EXPECT_TRUE(answers(c));
}

TEST_F(server_transport, SubscriberThatNeverReadsIsCutOffAlone) {
    auto stalled = s.connect();
    auto reader = s.connect();
    auto busy = s.connect();
    for (auto* c : {&stalled, &reader})
        ASSERT_TRUE(
            call(*c, req("1", "subscribe", R"({"path":"config/ospf/areaId"})"))["result"].IsNull());

    // Events of 64 KiB: the stalled connection's queue passes 8 MiB after some 130 of them.
    const double cut_before = metric_count("dh_slow_subscribers_cut_total", {});
    const std::string big(64 * 1024, 'v');
    std::size_t sent = 0;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (param->unsubscribes.load() == 0 && std::chrono::steady_clock::now() < deadline) {
        set(*param, '"' + big + std::to_string(sent++) + '"');
        // The reader keeps up, and a third client is answered between events.
        ASSERT_TRUE(reader.read_line()) << "event " << sent;
        ASSERT_TRUE(answers(busy));
    }
    EXPECT_EQ(param->unsubscribes.load(), 1);
    EXPECT_EQ(metric_count("dh_slow_subscribers_cut_total", {}), cut_before + 1);
    EXPECT_GT(sent * big.size(), 8u << 20);
    EXPECT_LT(sent * big.size(), 12u << 20);
    EXPECT_TRUE(stalled.closed_by_peer());
    EXPECT_TRUE(param->has_subscribers());
    EXPECT_TRUE(answers(reader));
}

TEST_F(server_transport, HalfClosedConnectionGetsEveryAnswer) {
    auto c = s.connect();
    // The last request has no newline; the slow one finishes after the peer stopped sending.
    ASSERT_TRUE(c.send_raw(req("1", "get", R"({"path":"data/slow"})") + "\n" + get_version));
    c.shutdown();
    EXPECT_EQ(c.read_line(), R"({"jsonrpc":"2.0","id":1,"result":"1.2.3"})");
    ASSERT_TRUE(wait_until([&] { return gate->waiting == 1; }));
    gate->open();
    EXPECT_EQ(c.read_line(), R"({"jsonrpc":"2.0","id":1,"result":"slow"})");
    EXPECT_TRUE(c.closed_by_peer());
}

TEST(server_limits, AcceptSurvivesRunningOutOfDescriptors) {
#ifdef __SANITIZE_ADDRESS__
    // UndefinedBehaviorSanitizer probes memory through a pipe when it first checks a type; with
    // no descriptor left it reports every such check as a fault.
    GTEST_SKIP() << "needs free descriptors under AddressSanitizer/UndefinedBehaviorSanitizer";
#endif
    test_server b;
    b.serve();
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    const auto open_now = std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                        std::filesystem::directory_iterator{});
    const rlimit low{static_cast<rlim_t>(open_now + 32), saved.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    // Take every descriptor but one; the client takes that one, so the server cannot accept.
    std::vector<int> filler;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY)) >= 0;) filler.push_back(fd);
    ::close(filler.back());
    filler.pop_back();
    auto c = line_client::unix_socket(b.srv.socket_path());
    ASSERT_TRUE(c.send_line(get_version));
    EXPECT_TRUE(wait_until([&] { return b.srv.accept_failures() > 0; }));

    for (int fd : filler) ::close(fd);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_EQ(c.read_line(), R"({"jsonrpc":"2.0","id":1,"result":"1.2.3"})");
}

// The network's share (IPv4 and IPv6 together), each address's part of it, and the Unix
// socket's own; a closed connection gives its place back.
TEST(server_limits, BudgetsRefuseOnTheWireAndFreeOnClose) {
    dh::server::options opts;
    opts.max_connections = 3;
    opts.max_per_address = 2;
    opts.max_local_connections = 1;
    test_server s(opts);
    s.srv.start_ipv6_socket("lo");
    s.serve();
    auto a = line_client::tcp(s.srv.tcp_port());
    auto b = line_client::tcp(s.srv.tcp_port());
    EXPECT_TRUE(answers(a) && answers(b));
    auto refused = line_client::tcp(s.srv.tcp_port());
    EXPECT_EQ(refused.read_line(), null_error(-32000, "Too many connections from this address"));
    EXPECT_TRUE(refused.closed_by_peer());
    auto v6 = line_client::tcp(s.srv.tcp_port(), "::1");
    EXPECT_TRUE(answers(v6));
    EXPECT_EQ(line_client::tcp(s.srv.tcp_port(), "::1").read_line(),
              null_error(-32000, "Too many connections"));

    auto local = line_client::unix_socket(s.srv.socket_path());
    EXPECT_TRUE(answers(local));
    EXPECT_EQ(line_client::unix_socket(s.srv.socket_path()).read_line(),
              null_error(-32000, "Too many connections"));
    EXPECT_EQ(s.srv.connection_count(), 4u);

    { auto gone_a = std::move(a), gone_local = std::move(local); }
    ASSERT_TRUE(wait_until([&] { return s.srv.connection_count() == 2; }));
    auto c = line_client::tcp(s.srv.tcp_port());
    auto d = s.connect();
    EXPECT_TRUE(answers(c) && answers(d));
}

TEST(server_limits, SilentConnectionsWithoutSubscriptionsAreClosed) {
    dh::server::options opts;
    opts.idle_timeout = 200ms;
    test_server s(opts);
    add<value_node>(s.db, "config/x", false);
    s.serve();
    auto silent = line_client::tcp(s.srv.tcp_port());
    auto talking = line_client::unix_socket(s.srv.socket_path());
    auto subscribed = line_client::tcp(s.srv.tcp_port());
    ASSERT_TRUE(subscribed.send_line(req("1", "subscribe", R"({"path":"config/x"})")));
    ASSERT_TRUE(subscribed.read_line());

    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < 500ms) {
        ASSERT_TRUE(answers(talking));
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(silent.read_line(1s), null_error(-32000, "Idle timeout"));
    EXPECT_TRUE(silent.closed_by_peer());
    EXPECT_TRUE(answers(talking));
    EXPECT_TRUE(answers(subscribed));
}

}  // namespace
}  // namespace server_test
