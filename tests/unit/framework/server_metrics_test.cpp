// What a real server counts: requests by method and outcome with their latency, connections by
// listener, and events written to subscribers.

#include <gtest/gtest.h>

#include "../metric_sample.hpp"
#include "server_test_support.hpp"

namespace {

using namespace server_test;
using ServerMetrics = server_fixture;

double requests(const char* method, const char* outcome) {
    return metric_count("dh_requests_total", {{"method", method}, {"outcome", outcome}});
}

std::uint64_t timed(const char* method) {
    const auto m = metric_sample("dh_request_duration_seconds", {{"method", method}});
    return m ? m->histogram.sample_count : 0;
}

double open_on(const char* listener) {
    const auto m = metric_sample("dh_connections_open", {{"listener", listener}});
    return m ? m->gauge.value : 0.0;
}

TEST_F(ServerMetrics, RequestsConnectionsAndEvents) {
    const double unix_before = open_on("unix"), tcp_before = open_on("tcp");
    const double get_ok = requests("get", "ok"), get_error = requests("get", "error"),
                 set_ok = requests("set", "ok"), other_error = requests("other", "error");
    const auto get_timed = timed("get");
    const double events = metric_count("dh_events_sent_total", {});
    {
        auto local = connect();
        auto remote = line_client::tcp(api_->tcp_port());
        EXPECT_TRUE(wait_until([&] {
            return open_on("unix") == unix_before + 1 && open_on("tcp") == tcp_before + 1;
        }));

        call(local, R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"data/version"}})");
        call(remote, R"({"jsonrpc":"2.0","id":2,"method":"get","params":{"path":"data/none"}})");
        call(local, R"({"jsonrpc":"2.0","id":3,"method":"drop","params":{}})");
        // Answered by a worker: counted when the answer is made.
        call(local, R"({"jsonrpc":"2.0","id":4,"method":"set",)"
                    R"("params":{"path":"config/ntp/server","value":"10.0.0.1"}})");
        EXPECT_EQ(requests("get", "ok"), get_ok + 1);
        EXPECT_EQ(requests("get", "error"), get_error + 1);
        // A method name a client made up is not a label value of its own.
        EXPECT_EQ(requests("other", "error"), other_error + 1);
        EXPECT_FALSE(
            metric_sample("dh_requests_total", {{"method", "drop"}, {"outcome", "error"}}));
        EXPECT_EQ(requests("set", "ok"), set_ok + 1);
        EXPECT_EQ(timed("get"), get_timed + 2);

        // The subscription's first value, then one change.
        call(remote, R"({"jsonrpc":"2.0","id":5,"method":"subscribe",)"
                     R"("params":{"path":"config/ntp/server"}})");
        remote.read_line();
        call(local, R"({"jsonrpc":"2.0","id":6,"method":"set",)"
                    R"("params":{"path":"config/ntp/server","value":"10.0.0.2"}})");
        EXPECT_TRUE(remote.read_line());
        // Counted just after the write, so possibly after the client read it.
        EXPECT_TRUE(
            wait_until([&] { return metric_count("dh_events_sent_total", {}) == events + 2; }));
    }
    EXPECT_TRUE(
        wait_until([&] { return open_on("unix") == unix_before && open_on("tcp") == tcp_before; }));
}

}  // namespace
