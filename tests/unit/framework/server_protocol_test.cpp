#include <set>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "../metric_sample.hpp"
#include "server_test_support.hpp"

namespace server_test {
namespace {

using server_protocol = server_fixture;

TEST_F(server_protocol, EveryMethodAnswersAsTheProtocolSays) {
    auto c = s.connect();
    EXPECT_EQ(to_json_text(call(c, req("1", "get", R"({"path":"/data/version/"})"))),
              R"({"jsonrpc":"2.0","id":1,"result":"1.2.3"})");
    // Method, params and result; asynchronous nodes answer the same way as immediate ones.
    const std::tuple<const char*, const char*, const char*> exchanges[] = {
        {"get", R"({"path":"config/ospf/areaId"})", "null"},
        {"set", R"({"path":"config/ospf/areaId","value":{"a":[1,2]}})", "null"},
        {"get", R"({"path":"config/ospf/areaId"})", R"({"a":[1,2]})"},
        {"set", R"({"path":"config/ntp/server","value":"10.0.0.1"})", "null"},
        {"run", R"({"path":"command/echo","value":[true]})", R"({"echo":[true]})"},
        {"run", R"({"path":"command/echo"})", R"({"echo":null})"},
        {"info", R"({"path":"data/version"})",
         R"js({"path":"data/version","description":"const value (read)","type":"const value",)js"
         R"js("valueType":"string","capabilities":{"read":true}})js"},
        // A prefix matches whole components only.
        {"list", R"({"path":"config/ospf/"})",
         R"js([{"path":"config/ospf/areaId","info":"config value (read,write,subscribe)"}])js"}};
    dh::api::const_value<int>::create(s.db, "config/ospfx", 1);
    for (const auto& [method, params, answer] : exchanges)
        EXPECT_EQ(result(c, method, params), answer) << method << params;

    const auto all = parse(result(c, "list"));
    std::vector<std::string> paths;
    for (const auto& e : all.GetArray()) paths.emplace_back(e["path"].GetString());
    EXPECT_EQ(paths, (std::vector<std::string>{"command/echo", "config/ntp/server",
                                               "config/ospf/areaId", "config/ospfx", "data/broken",
                                               "data/slow", "data/version"}));

    // Oldest first; a limit keeps the newest.
    const auto history = parse(result(c, "history"));
    ASSERT_EQ(history.Size(), 2u);
    EXPECT_STREQ(history[0]["path"].GetString(), "config/ospf/areaId");
    EXPECT_STREQ(history[1]["value"].GetString(), "10.0.0.1");
    EXPECT_STREQ(parse(result(c, "history", R"({"limit":1})"))[0]["path"].GetString(),
                 "config/ntp/server");
}

TEST_F(server_protocol, ErrorsMapToTheirCodesAndTexts) {
    auto c = s.connect();
    EXPECT_EQ(result(c, "get", R"({"path":"data/broken"})"),
              R"({"code":-5,"message":"Input/output error"})");
    // The write tests hold the answer to a conversion error.
    EXPECT_EQ(result(c, "run", R"({"path":"data/broken"})"),
              R"({"code":-1,"message":"Unknown error!","data":{"what":"boom"}})");

    const std::tuple<int, const char*, const char*, const char*> refused[] = {
        {-95, "Operation not supported", "set", R"({"path":"data/version","value":1})"},
        {-95, "Operation not supported", "run", R"({"path":"config/ospf/areaId"})"},
        {-95, "Operation not supported", "subscribe", R"({"path":"data/version"})"},
        {-32001, "No such node: /no/such/", "get", R"({"path":"/no/such/"})"},
        {-32602, "Invalid params", "get", ""},
        {-32602, "Invalid params", "get", R"({"path":3})"},
        {-32602, "Invalid params", "get", R"(["data/version"])"},
        {-32602, "Invalid params", "set", R"({"path":"config/ospf/areaId"})"},
        {-32602, "Invalid params", "history", R"({"limit":-1})"},
        {-32602, "Invalid params", "list", R"({"path":false})"}};
    for (const auto& [code, message, method, params] : refused)
        EXPECT_EQ(result(c, method, params),
                  fmt::format(R"({{"code":{},"message":"{}"}})", code, message))
            << method << params;
    // The codec tests hold the other malformed envelopes.
    EXPECT_EQ(to_json_text(call(c, R"({"jsonrpc":"1.0","id":8,"method":"get"})")),
              R"({"jsonrpc":"2.0","id":8,"error":{"code":-32600,"message":"Invalid Request"}})");
    // A NUL byte inside a line must not cut the line short into something valid.
    const std::string parse_errors[] = {R"({"jsonrpc":"2.0","id":9,"method":)", "nonsense", "{} {}",
                                        req("10", "list") + std::string("\0 junk", 6)};
    for (const auto& bad : parse_errors)
        EXPECT_EQ(to_json_text(call(c, bad)), null_error(-32700, "Parse error"));
    // None of that closed the connection.
    EXPECT_EQ(result(c, "get", R"({"path":"data/version"})"), R"("1.2.3")");
}

TEST_F(server_protocol, NotificationsAndBatches) {
    auto c = s.connect();
    // A notification is carried out and not answered: the next line answers the next request.
    ASSERT_TRUE(c.send_line(req("", "set", R"({"path":"config/ospf/areaId","value":7})")));
    ASSERT_TRUE(c.send_line(req("", "nosuch")));
    EXPECT_EQ(to_json_text(call(c, req("1", "get", R"({"path":"config/ospf/areaId"})"))),
              R"({"jsonrpc":"2.0","id":1,"result":7})");

    auto r = call(c, "[" + req("1", "get", R"({"path":"data/version"})") + ",1," +
                         req("", "set", R"({"path":"config/ospf/areaId","value":8})") + "," +
                         req(R"("e")", "run", R"({"path":"command/echo","value":2})") + "," +
                         req("3", "nosuch") + "]");
    EXPECT_EQ(to_json_text(r),
              R"([{"jsonrpc":"2.0","id":1,"result":"1.2.3"},)"
              R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request"}},)"
              R"({"jsonrpc":"2.0","id":"e","result":{"echo":2}},)"
              R"({"jsonrpc":"2.0","id":3,"error":{"code":-32601,"message":"Method not found"}}])");

    // A batch of notifications only (one of them on the workers) is not answered.
    ASSERT_TRUE(c.send_line("[" + req("", "set", R"({"path":"config/ntp/server","value":"a"})") +
                            "," + req("", "get", R"({"path":"data/version"})") + "]"));
    EXPECT_EQ(to_json_text(call(c, req("2", "get", R"({"path":"config/ospf/areaId"})"))),
              R"({"jsonrpc":"2.0","id":2,"result":8})");
    EXPECT_TRUE(wait_until(
        [&] { return result(c, "get", R"({"path":"config/ntp/server"})") == R"("a")"; }));
    EXPECT_EQ(to_json_text(call(c, "[]")), null_error(-32600, "Invalid Request"));
}

TEST_F(server_protocol, SlowNodeNeitherBlocksOthersNorOrdersResponses) {
    auto c = s.connect();
    ASSERT_TRUE(c.send_line(req(R"("slow")", "get", R"({"path":"data/slow"})")));
    ASSERT_TRUE(wait_until([&] { return gate->waiting == 1; }));
    // Same connection, immediate node, and an asynchronous one on another worker.
    ASSERT_TRUE(c.send_line(req(R"("fast")", "get", R"({"path":"data/version"})")));
    ASSERT_TRUE(c.send_line(req(R"("cmd")", "run", R"({"path":"command/echo"})")));
    std::set<std::string> first_two;
    for (int i = 0; i < 2; ++i) first_two.insert(c.read_json()["id"].GetString());
    EXPECT_EQ(first_two, (std::set<std::string>{"fast", "cmd"}));

    gate->open();
    EXPECT_EQ(c.read_line(), R"({"jsonrpc":"2.0","id":"slow","result":"slow"})");

    // Operations of one connection on one asynchronous node keep their order.
    std::string pipeline;
    for (int i = 1; i <= 30; ++i)
        pipeline +=
            req("", "set", fmt::format(R"({{"path":"config/ntp/server","value":{}}})", i)) + "\n";
    EXPECT_EQ(to_json_text(call(c, pipeline + req("2", "get", R"({"path":"config/ntp/server"})"))),
              R"({"jsonrpc":"2.0","id":2,"result":30})");
}

TEST_F(server_protocol, EventsCarrySequenceAndTime) {
    auto c = s.connect();
    set(*param, R"("0.0.0.1")");
    // The subscription answers the current value and sends it as an event, in either order.
    auto lines = exchange(c, "1", "subscribe", R"({"path":"config/ospf/areaId"})");
    EXPECT_EQ(to_json_text(lines.back()["result"]), R"("0.0.0.1")");
    auto initial = lines.size() > 1 ? std::move(lines.front()) : c.read_json();
    auto& params = initial["params"];
    EXPECT_THAT(params["time"].GetString(),
                ::testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}"
                                        "\\.[0-9]{3}Z"));
    std::uint64_t seq = params["seq"].GetUint64();
    params.RemoveMember("time");
    params.RemoveMember("seq");
    EXPECT_EQ(to_json_text(initial),
              R"({"jsonrpc":"2.0","method":"event","params":{"path":"config/ospf/areaId",)"
              R"("type":"valueChanged","value":"0.0.0.1"}})");

    // Every later change follows with the next sequence number, in order.
    for (int v = 2; v <= 4; ++v) set(*param, std::to_string(v));
    for (int v = 2; v <= 4; ++v)
        EXPECT_EQ(event_of(c.read_json()),
                  std::make_pair("config/ospf/areaId=" + std::to_string(v), ++seq));

    EXPECT_EQ(result(c, "unsubscribe", R"({"path":"config/ospf/areaId"})"), "null");
    EXPECT_EQ(param->unsubscribes.load(), 1);
}

// What the server counts: requests by method and outcome with their latency, connections by
// listener, and events written to subscribers.
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

TEST_F(server_protocol, RequestsConnectionsAndEventsAreCounted) {
    const double unix_before = open_on("unix"), tcp_before = open_on("tcp");
    // A method name a client made up is not a label value of its own.
    const auto counts = [] {
        return std::vector<double>{requests("get", "ok"), requests("get", "error"),
                                   requests("other", "error"), requests("set", "ok"),
                                   static_cast<double>(timed("get"))};
    };
    const auto before = counts();
    const double events = metric_count("dh_events_sent_total", {});
    {
        auto local = s.connect();
        auto remote = line_client::tcp(s.srv.tcp_port());
        EXPECT_TRUE(wait_until([&] {
            return open_on("unix") == unix_before + 1 && open_on("tcp") == tcp_before + 1;
        }));

        call(local, req("1", "get", R"({"path":"data/version"})"));
        call(remote, req("2", "get", R"({"path":"data/none"})"));
        call(local, req("3", "drop", "{}"));
        // Answered by a worker: counted when the answer is made.
        call(local, req("4", "set", R"({"path":"config/ntp/server","value":"10.0.0.1"})"));
        auto added = counts();
        for (std::size_t i = 0; i < added.size(); ++i) added[i] -= before[i];
        EXPECT_EQ(added, (std::vector<double>{1, 1, 1, 1, 2}));

        // The subscription's first value, then one change.
        call(remote, req("5", "subscribe", R"({"path":"config/ntp/server"})"));
        remote.read_line();
        call(local, req("6", "set", R"({"path":"config/ntp/server","value":"10.0.0.2"})"));
        EXPECT_TRUE(remote.read_line());
        // Counted just after the write, so possibly after the client read it.
        EXPECT_TRUE(
            wait_until([&] { return metric_count("dh_events_sent_total", {}) == events + 2; }));
    }
    // Closed, the connections are no longer counted and their subscriptions end.
    EXPECT_TRUE(wait_until([&] {
        return open_on("unix") == unix_before && open_on("tcp") == tcp_before &&
               async_param->unsubscribes.load() == 1;
    }));
}

}  // namespace
}  // namespace server_test
