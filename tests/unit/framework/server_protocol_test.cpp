#include <regex>
#include <set>

#include <fmt/format.h>

#include "server_test_support.hpp"

namespace server_test {
namespace {

void expect_error(const rapidjson::Value& r, int code, const std::string& message) {
    ASSERT_TRUE(r.HasMember("error")) << to_json(r);
    EXPECT_EQ(r["error"]["code"].GetInt(), code) << to_json(r);
    EXPECT_EQ(std::string(r["error"]["message"].GetString()), message) << to_json(r);
}

using server_protocol = server_fixture;

TEST_F(server_protocol, EveryMethodAnswersAsTheProtocolSays) {
    auto c = connect();

    auto r =
        call(c, R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"/data/version/"}})");
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":1,"result":"1.2.3"})");

    r = call(c,
             R"({"jsonrpc":"2.0","id":"s","method":"get","params":{"path":"config/ospf/areaId"}})");
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":"s","result":null})");
    r = call(
        c,
        R"({"jsonrpc":"2.0","id":2,"method":"set","params":{"path":"config/ospf/areaId","value":{"a":[1,2]}}})");
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":2,"result":null})");
    r = call(c,
             R"({"jsonrpc":"2.0","id":3,"method":"get","params":{"path":"config/ospf/areaId"}})");
    EXPECT_EQ(to_json(r["result"]), R"({"a":[1,2]})");

    // Asynchronous nodes answer the same way.
    r = call(
        c,
        R"({"jsonrpc":"2.0","id":4,"method":"set","params":{"path":"config/ntp/server","value":"10.0.0.1"}})");
    EXPECT_TRUE(r["result"].IsNull());
    r = call(
        c,
        R"({"jsonrpc":"2.0","id":5,"method":"run","params":{"path":"command/echo","value":[true]}})");
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":5,"result":{"echo":[true]}})");
    r = call(c, R"({"jsonrpc":"2.0","id":6,"method":"run","params":{"path":"command/echo"}})");
    EXPECT_EQ(to_json(r["result"]), R"({"echo":null})");

    r = call(c, R"({"jsonrpc":"2.0","id":7,"method":"info","params":{"path":"data/version"}})");
    EXPECT_EQ(
        to_json(r["result"]),
        R"js({"path":"data/version","description":"const value (read)","type":"const value"})js");

    r = call(c, R"({"jsonrpc":"2.0","id":8,"method":"list"})");
    std::vector<std::string> paths;
    for (const auto& e : r["result"].GetArray()) paths.emplace_back(e["path"].GetString());
    EXPECT_EQ(paths,
              (std::vector<std::string>{"command/echo", "config/ntp/server", "config/ospf/areaId",
                                        "data/broken", "data/slow", "data/version"}));
    // A prefix matches whole components only.
    add<text_node>(api_->db, "config/ospfx", "x");
    r = call(c, R"({"jsonrpc":"2.0","id":9,"method":"list","params":{"path":"config/ospf/"}})");
    EXPECT_EQ(
        to_json(r["result"]),
        R"js([{"path":"config/ospf/areaId","info":"config value (read,write,subscribe)"}])js");

    r = call(c, R"({"jsonrpc":"2.0","id":10,"method":"history"})");
    ASSERT_EQ(r["result"].Size(), 2u);
    EXPECT_EQ(std::string(r["result"][0]["path"].GetString()), "config/ospf/areaId");
    EXPECT_EQ(std::string(r["result"][1]["value"].GetString()), "10.0.0.1");
    r = call(c, R"({"jsonrpc":"2.0","id":11,"method":"history","params":{"limit":1}})");
    ASSERT_EQ(r["result"].Size(), 1u);
    EXPECT_EQ(std::string(r["result"][0]["path"].GetString()), "config/ntp/server");

    // TCP speaks the same protocol.
    auto t = line_client::tcp(api_->tcp_port());
    r = call(t, R"({"jsonrpc":"2.0","id":12,"method":"get","params":{"path":"data/version"}})");
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":12,"result":"1.2.3"})");
}

TEST_F(server_protocol, ErrorsMapToTheirCodesAndTexts) {
    auto c = connect();
    auto r = call(c, R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"data/broken"}})");
    EXPECT_EQ(to_json(r),
              R"({"jsonrpc":"2.0","id":1,"error":{"code":-5,"message":"Input/output error"}})");
    r = call(
        c, R"({"jsonrpc":"2.0","id":2,"method":"set","params":{"path":"data/broken","value":-1}})");
    EXPECT_EQ(
        to_json(r["error"]),
        R"({"code":-22,"message":"Invalid value type: expected uint, got 32-bit signed integer",)"
        R"("data":{"expected":"uint","actual":"32-bit signed integer"}})");
    r = call(c, R"({"jsonrpc":"2.0","id":3,"method":"run","params":{"path":"data/broken"}})");
    EXPECT_EQ(to_json(r["error"]),
              R"({"code":-1,"message":"Unknown error!","data":{"what":"boom"}})");

    const std::pair<const char*, const char*> unsupported[] = {
        {"set", R"("path":"data/version","value":1)"},
        {"run", R"("path":"config/ospf/areaId")"},
        {"subscribe", R"("path":"data/version")"},
        {"subscribe", R"("path":"command/echo")"},
    };
    for (const auto& [method, params] : unsupported) {
        r = call(c, fmt::format(R"({{"jsonrpc":"2.0","id":4,"method":"{}","params":{{{}}}}})",
                                method, params));
        expect_error(r, -95, "Operation not supported");
    }
    r = call(c, R"({"jsonrpc":"2.0","id":5,"method":"get","params":{"path":"/no/such/"}})");
    expect_error(r, -32001, "No such node: /no/such/");
    r = call(c, R"({"jsonrpc":"2.0","id":6,"method":"fetch","params":{"path":"data/version"}})");
    expect_error(r, -32601, "Method not found");
    EXPECT_EQ(r["id"].GetInt(), 6);

    for (const char* bad : {
             R"({"jsonrpc":"2.0","id":7,"method":"get"})",
             R"({"jsonrpc":"2.0","id":7,"method":"get","params":{"path":3}})",
             R"({"jsonrpc":"2.0","id":7,"method":"get","params":["data/version"]})",
             R"({"jsonrpc":"2.0","id":7,"method":"set","params":{"path":"config/ospf/areaId"}})",
             R"({"jsonrpc":"2.0","id":7,"method":"history","params":{"limit":-1}})",
             R"({"jsonrpc":"2.0","id":7,"method":"list","params":{"path":false}})",
         }) {
        r = call(c, bad);
        expect_error(r, -32602, "Invalid params");
        EXPECT_EQ(r["id"].GetInt(), 7) << bad;
    }
    for (const char* bad : {
             R"({"jsonrpc":"1.0","id":8,"method":"get","params":{"path":"data/version"}})",
             R"({"id":8,"method":"get","params":{"path":"data/version"}})",
             R"({"jsonrpc":"2.0","id":8,"method":7})",
             R"({"jsonrpc":"2.0","id":{"x":1},"method":"get"})",
             R"("get")",
         }) {
        r = call(c, bad);
        expect_error(r, -32600, "Invalid Request");
    }
    for (const char* bad : {R"({"jsonrpc":"2.0","id":9,"method":)", "nonsense", "{} {}"}) {
        r = call(c, bad);
        EXPECT_EQ(to_json(r),
                  R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error"}})");
    }
    // A NUL byte inside a line must not cut the line short into something valid.
    std::string with_nul = R"({"jsonrpc":"2.0","id":10,"method":"list"})";
    with_nul += std::string("\0 junk", 6);
    r = call(c, with_nul);
    expect_error(r, -32700, "Parse error");
    // None of that closed the connection.
    r = call(c, R"({"jsonrpc":"2.0","id":11,"method":"get","params":{"path":"data/version"}})");
    EXPECT_EQ(std::string(r["result"].GetString()), "1.2.3");
}

TEST_F(server_protocol, NotificationsAndBatches) {
    auto c = connect();
    // A notification is carried out and not answered: the next line answers the next request.
    ASSERT_TRUE(c.send_line(
        R"({"jsonrpc":"2.0","method":"set","params":{"path":"config/ospf/areaId","value":7}})"));
    ASSERT_TRUE(c.send_line(R"({"jsonrpc":"2.0","method":"nosuch"})"));
    auto r = call(
        c, R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"config/ospf/areaId"}})");
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":1,"result":7})");

    r = call(
        c,
        R"([{"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"data/version"}},)"
        R"(1,)"
        R"({"jsonrpc":"2.0","method":"set","params":{"path":"config/ospf/areaId","value":8}},)"
        R"({"jsonrpc":"2.0","id":"e","method":"run","params":{"path":"command/echo","value":2}},)"
        R"({"jsonrpc":"2.0","id":3,"method":"nosuch"}])");
    ASSERT_TRUE(r.IsArray());
    EXPECT_EQ(to_json(r),
              R"([{"jsonrpc":"2.0","id":1,"result":"1.2.3"},)"
              R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request"}},)"
              R"({"jsonrpc":"2.0","id":"e","result":{"echo":2}},)"
              R"({"jsonrpc":"2.0","id":3,"error":{"code":-32601,"message":"Method not found"}}])");

    // A batch of notifications only (one of them on the workers) is not answered.
    ASSERT_TRUE(c.send_line(
        R"([{"jsonrpc":"2.0","method":"set","params":{"path":"config/ntp/server","value":"a"}},)"
        R"({"jsonrpc":"2.0","method":"get","params":{"path":"data/version"}}])"));
    r = call(c,
             R"({"jsonrpc":"2.0","id":2,"method":"get","params":{"path":"config/ospf/areaId"}})");
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":2,"result":8})");
    EXPECT_TRUE(wait_until([&] {
        auto g = call(
            c, R"({"jsonrpc":"2.0","id":3,"method":"get","params":{"path":"config/ntp/server"}})");
        return g["result"].IsString() && std::string(g["result"].GetString()) == "a";
    }));

    r = call(c, "[]");
    EXPECT_EQ(to_json(r),
              R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request"}})");
}

TEST_F(server_protocol, SlowNodeNeitherBlocksOthersNorOrdersResponses) {
    auto c = connect();
    auto other = connect();
    ASSERT_TRUE(c.send_line(
        R"({"jsonrpc":"2.0","id":"slow","method":"get","params":{"path":"data/slow"}})"));
    ASSERT_TRUE(wait_until([&] { return gate->waiting() == 1; }));
    // Same connection, immediate node, and an asynchronous one on another worker.
    ASSERT_TRUE(c.send_line(
        R"({"jsonrpc":"2.0","id":"fast","method":"get","params":{"path":"data/version"}})"));
    ASSERT_TRUE(c.send_line(
        R"({"jsonrpc":"2.0","id":"cmd","method":"run","params":{"path":"command/echo"}})"));
    std::set<std::string> first_two;
    for (int i = 0; i < 2; ++i) {
        auto line = c.read_line();
        ASSERT_TRUE(line);
        first_two.insert(parse(*line)["id"].GetString());
    }
    EXPECT_EQ(first_two, (std::set<std::string>{"fast", "cmd"}));
    auto r =
        call(other, R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"data/version"}})");
    EXPECT_EQ(std::string(r["result"].GetString()), "1.2.3");

    gate->open();
    auto line = c.read_line();
    ASSERT_TRUE(line);
    EXPECT_EQ(*line, R"({"jsonrpc":"2.0","id":"slow","result":"slow"})");

    // Operations of one connection on one asynchronous node keep their order.
    std::string pipeline;
    for (int i = 1; i <= 30; ++i)
        pipeline += fmt::format(
            R"({{"jsonrpc":"2.0","method":"set","params":{{"path":"config/ntp/server","value":{}}}}})"
            "\n",
            i);
    pipeline +=
        R"({"jsonrpc":"2.0","id":"last","method":"get","params":{"path":"config/ntp/server"}})";
    r = call(c, pipeline);
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":"last","result":30})");
}

TEST_F(server_protocol, EventsCarrySequenceAndTime) {
    auto subscriber = connect();
    auto writer = connect();
    call(
        writer,
        R"({"jsonrpc":"2.0","id":1,"method":"set","params":{"path":"config/ospf/areaId","value":"0.0.0.1"}})");

    // The subscription answers the current value and sends it as an event, in either order.
    ASSERT_TRUE(subscriber.send_line(
        R"({"jsonrpc":"2.0","id":"sub","method":"subscribe","params":{"path":"config/ospf/areaId"}})"));
    rapidjson::Document initial;
    for (int i = 0; i < 2; ++i) {
        auto line = subscriber.read_line();
        ASSERT_TRUE(line);
        auto d = parse(*line);
        if (d.HasMember("id")) {
            EXPECT_EQ(to_json(d), R"({"jsonrpc":"2.0","id":"sub","result":"0.0.0.1"})");
        } else {
            initial.CopyFrom(d, initial.GetAllocator());
        }
    }
    ASSERT_TRUE(initial.IsObject());
    EXPECT_EQ(std::string(initial["method"].GetString()), "event");
    EXPECT_FALSE(initial.HasMember("id"));
    const auto& p0 = initial["params"];
    EXPECT_EQ(std::string(p0["path"].GetString()), "config/ospf/areaId");
    EXPECT_EQ(std::string(p0["type"].GetString()), "valueChanged");
    EXPECT_EQ(std::string(p0["value"].GetString()), "0.0.0.1");
    const std::regex iso(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
    EXPECT_TRUE(std::regex_match(p0["time"].GetString(), iso)) << p0["time"].GetString();

    // Every later change follows with the next sequence number, in order.
    std::uint64_t seq = p0["seq"].GetUint64();
    for (int v = 2; v <= 4; ++v)
        call(
            writer,
            fmt::format(
                R"({{"jsonrpc":"2.0","id":1,"method":"set","params":{{"path":"config/ospf/areaId","value":{}}}}})",
                v));
    for (int v = 2; v <= 4; ++v) {
        auto line = subscriber.read_line();
        ASSERT_TRUE(line);
        auto e = parse(*line);
        EXPECT_EQ(e["params"]["value"].GetInt(), v);
        EXPECT_EQ(e["params"]["seq"].GetUint64(), ++seq);
        EXPECT_TRUE(std::regex_match(e["params"]["time"].GetString(), iso));
    }

    auto r = call(
        subscriber,
        R"({"jsonrpc":"2.0","id":"u","method":"unsubscribe","params":{"path":"config/ospf/areaId"}})");
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":"u","result":null})");
    EXPECT_FALSE(param->has_subscribers());
    EXPECT_EQ(param->unsubscribes.load(), 1);

    // Subscriptions on an asynchronous node go through the workers.
    r = call(
        subscriber,
        R"({"jsonrpc":"2.0","id":"s2","method":"subscribe","params":{"path":"config/ntp/server"}})");
    EXPECT_EQ(to_json(r), R"({"jsonrpc":"2.0","id":"s2","result":null})");
    EXPECT_TRUE(async_param->has_subscribers());
}

}  // namespace
}  // namespace server_test
