// Requests on sets of leaves: pattern reads and subscriptions, resumed subscriptions that replay
// the history, and heartbeats.

#include <set>

#include <fmt/format.h>

#include "path_pattern.hpp"
#include "server_test_support.hpp"

namespace server_test {
namespace {

TEST(path_pattern, WildcardsMatchWholeSegments) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"data/*/linkStatus", "data/e1/linkStatus", true},
        {"data/*/linkStatus", "data/e1/sfp/linkStatus", false},
        {"data/*/linkStatus", "data/linkStatus", false},
        {"data/*/linkStatus", "data/e1/linkStatusX", false},
        {"data/e13/...", "data/e13/sfp/rxPower", true},
        {"data/e13/...", "data/e13/present", true},
        {"data/e13/...", "data/e13", false},
        {"data/e13/...", "data/e130/present", false},
        {"...", "a", true}};
    for (const auto& [pattern, path, expected] : cases)
        EXPECT_EQ(dh::path_pattern::parse(pattern)->matches(path), expected)
            << pattern << " ~ " << path;
    EXPECT_EQ(dh::path_pattern::parse("data/e1*/x"), std::nullopt);
    EXPECT_THROW(dh::path_pattern::parse("data/.../x"), dh_error);
}

// Interface-like leaves: e1 immediate, e3 failing on every read, e4 answered on the workers.
struct leaf_sets : server_fixture {
    void before_start() override {
        e1 = add<value_node>(s.db, "data/e1/linkStatus", false);
        add<tricky_node>(s.db, "data/e3/linkStatus", false);
        e4 = add<value_node>(s.db, "data/e4/linkStatus", true);
        dh::api::const_value<std::string>::create(s.db, "data/e1/macAddress", "02:00:00:00:00:01");
        x = add<value_node>(s.db, "config/x", false);
        y = add<value_node>(s.db, "config/y", true);
    }

    std::shared_ptr<value_node> e1, e4, x, y;
};

TEST_F(leaf_sets, PatternReadAnswersEveryLeafAndEachFailure) {
    set(*e1, R"("up")");
    set(*e4, R"("up")");
    auto c = s.connect();
    // e4 is slow: the whole read goes to the workers and answers the same.
    EXPECT_EQ(result(c, "get", R"({"path":"data/*/linkStatus"})"),
              R"({"values":{"data/e1/linkStatus":"up","data/e4/linkStatus":"up"},)"
              R"("errors":{"data/e3/linkStatus":{"code":-5,"message":"Input/output error"}}})");
    EXPECT_EQ(result(c, "get", R"({"path":"/data/e1/.../"})"),
              R"({"values":{"data/e1/linkStatus":"up","data/e1/macAddress":"02:00:00:00:00:01"},)"
              R"("errors":{}})");
    EXPECT_EQ(result(c, "get", R"({"path":"data/.../linkStatus"})"),
              R"({"code":-32602,"message":"Invalid params"})");
    // Only constants match: nothing to subscribe to.
    EXPECT_EQ(result(c, "subscribe", R"({"path":"data/*/macAddress"})"),
              R"({"code":-95,"message":"Operation not supported"})");
}

TEST_F(leaf_sets, PatternSubscriptionsStartResumeAndEnd) {
    set(*x, "1");
    const std::uint64_t since = s.db.latest_seq();
    set(*y, "20");
    set(*e1, R"("up")");  // not under the pattern
    set(*x, "2");
    auto c = s.connect();
    // The current values answer and come as events as well (y's on the workers).
    auto lines = exchange(c, "1", "subscribe", R"({"path":"config/*"})");
    EXPECT_EQ(to_json_text(lines.back()["result"]),
              R"({"values":{"config/x":2,"config/y":20},"errors":{}})");
    std::set<std::string> initial;
    for (const auto& d : lines)
        if (d.HasMember("method")) initial.insert(event_of(d).first);
    while (initial.size() < 2) initial.insert(event_of(c.read_json()).first);
    EXPECT_EQ(initial, (std::set<std::string>{"config/x=2", "config/y=20"}));
    EXPECT_EQ(result(c, "unsubscribe", R"({"path":"config/*"})"), "null");
    EXPECT_FALSE(x->has_subscribers() || y->has_subscribers());

    // Resumed, it sends no initial events: the answer, the missed events in seq order, the sync,
    // then live events.
    lines = exchange(c, "2", "subscribe",
                     fmt::format(R"({{"path":"config/*","since_seq":{}}})", since));
    ASSERT_EQ(lines.size(), 1u);
    std::vector<std::string> replayed;
    for (auto d = c.read_json(); std::string(d["method"].GetString()) != "sync"; d = c.read_json())
        replayed.push_back(event_of(d).first);
    EXPECT_EQ(replayed, (std::vector<std::string>{"config/y=20", "config/x=2"}));
    set(*x, "3");
    EXPECT_EQ(event_of(c.read_json()).first, "config/x=3");
}

TEST_F(leaf_sets, SyncSaysWhenTheHistoryNoLongerReachesBack) {
    set(*x, "0");
    const std::uint64_t since = s.db.latest_seq();
    for (int i = 1; i <= 1000; ++i) set(*x, std::to_string(i));
    // The 1,000 newest entries are all still there: the one just before them is not needed. A
    // seq beyond the newest (the daemon started again since): everything, and incomplete.
    const std::pair<std::uint64_t, bool> cases[] = {
        {since, true}, {since - 1, false}, {since + 5000, false}};
    for (const auto& [from, complete] : cases) {
        auto c = s.connect();
        exchange(c, "1", "subscribe", fmt::format(R"({{"path":"config/x","since_seq":{}}})", from));
        std::size_t replayed = 0;
        auto d = c.read_json();
        for (; std::string(d["method"].GetString()) != "sync"; d = c.read_json()) ++replayed;
        EXPECT_EQ(to_json_text(d["params"]),
                  fmt::format(R"({{"seq":{},"complete":{}}})", since + 1000, complete));
        EXPECT_EQ(replayed, 1000u) << from;
    }
}

// A value that changes while a subscription registers: once just before (the event is only in
// the history) and once just after (the event also reaches the new subscriber at once).
struct racing_node : value_node {
    using value_node::value_node;
    void subscribe(const std::shared_ptr<dh_session>& s, std::string_view path, dh::Allocator& a,
                   dh::Value& out, std::unique_lock<std::mutex>& lock) override {
        set({}, parse(R"("before")"));
        value_node::subscribe(s, path, a, out, lock);
        set({}, parse(R"("after")"));
    }
};

TEST_F(leaf_sets, ChangesWhileResumingAreNeitherLostNorRepeated) {
    add<racing_node>(s.db, "config/racing", false);
    auto c = s.connect();
    const std::uint64_t since = s.db.latest_seq();
    EXPECT_TRUE(c.send_line(
        req("1", "subscribe", fmt::format(R"({{"path":"config/racing","since_seq":{}}})", since))));
    EXPECT_EQ(to_json_text(c.read_json()["result"]), R"("before")");
    for (std::uint64_t seq = since + 1; const char* value : {"before", "after"})
        EXPECT_EQ(event_of(c.read_json()),
                  std::pair(fmt::format(R"(config/racing="{}")", value), seq++));
    EXPECT_EQ(std::string(c.read_json()["method"].GetString()), "sync");
    expect_nothing_pending(c);
}

TEST_F(leaf_sets, HeartbeatsFillSilenceOnTheConnection) {
    auto c = s.connect();
    for (const char* bad : {R"("heartbeat":3601)", R"("heartbeat":-1)", R"("heartbeat":"5")",
                            R"("since_seq":-1)", R"("since_seq":1.5)"})
        EXPECT_EQ(result(c, "subscribe", fmt::format(R"({{"path":"config/x",{}}})", bad)),
                  R"({"code":-32602,"message":"Invalid params"})")
            << bad;
    EXPECT_EQ(result(c, "subscribe", R"({"path":"config/x","heartbeat":2})"), "null");
    sched.advance(1s);
    set(*x, "1");  // an event: the silence starts again
    c.read_json();
    sched.advance(1500ms);
    expect_nothing_pending(c);
    sched.advance(500ms);
    const auto beat = c.read_json();
    EXPECT_EQ(std::string(beat["method"].GetString()), "heartbeat");
    EXPECT_EQ(beat["params"]["seq"].GetUint64(), s.db.latest_seq());
    EXPECT_TRUE(beat["params"]["time"].IsString());
    // Beats go on once a period; a later subscribe's period replaces it, and 0 turns them off.
    auto next_method = [&] { return std::string(c.read_json()["method"].GetString()); };
    sched.advance(2s);
    EXPECT_EQ(next_method(), "heartbeat");
    EXPECT_EQ(result(c, "subscribe", R"({"path":"data/e*/linkStatus","heartbeat":0})"),
              R"({"code":-32001,"message":"No such node: data/e*/linkStatus"})");
    EXPECT_EQ(result(c, "subscribe", R"({"path":"config/y","heartbeat":1})"), "null");
    sched.advance(1s);
    EXPECT_EQ(next_method(), "heartbeat");
    EXPECT_EQ(result(c, "subscribe", R"({"path":"data/e1/linkStatus","heartbeat":0})"), "null");
    sched.advance(10s);
    expect_nothing_pending(c);
}

}  // namespace
}  // namespace server_test
