#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "../log_capture.hpp"
#include "dhapi_fakes.hpp"

using namespace dh::api;
using namespace std::chrono_literals;

namespace {

struct ticking_node : dh_db_leaf_node {
    using dh_db_leaf_node::dh_db_leaf_node;
    void periodic_task(bool immediate) override {
        ticks += immediate ? 100 : 1;
        if (fail) throw std::runtime_error("broken sensor");
    }
    std::atomic<unsigned> ticks{0};
    std::atomic<bool> fail{false};
};

template <class Pred>
bool eventually(Pred pred) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

}  // namespace

TEST(DhApiValueGroup, TicksMonitoredMembersAndSurvivesTheirFailures) {
    dh_db db;
    log_capture logs;
    auto monitored = std::make_shared<ticking_node>(db, std::vector<std::string>{"a"});
    auto broken = std::make_shared<ticking_node>(db, std::vector<std::string>{"b"});
    auto plain = std::make_shared<ticking_node>(db, std::vector<std::string>{"c"});
    broken->fail = true;
    value_group group(5, 0, 0);
    group.add_value(monitored, 1);
    group.add_value(broken, 1);
    group.add_value(plain, 0);
    EXPECT_EQ(group.size(), 3u);
    EXPECT_EQ(group.period(), 5ms);

    ASSERT_TRUE(eventually([&] { return monitored->ticks >= 5 && broken->ticks >= 5; }));
    EXPECT_EQ(plain->ticks, 0u);
    EXPECT_EQ(logs.find("Periodic task of b failed: broken sensor").size(), 1u);

    broken.reset();
    EXPECT_EQ(group.size(), 2u);
    const unsigned seen = monitored->ticks;
    ASSERT_TRUE(eventually([&] { return monitored->ticks >= seen + 3; }));
}

TEST(DhApiValueGroup, StopsPromptlyAndRunsPostedJobsOnItsWorkers) {
    dh_db db;
    auto node = std::make_shared<ticking_node>(db, std::vector<std::string>{"a"});
    const auto start = std::chrono::steady_clock::now();
    {
        value_group group(60'000, 0, 2);
        group.add_value(node, 1);
        ASSERT_TRUE(eventually([&] { return node->ticks == 1; }));  // phase 0: first tick now

        std::atomic<bool> ran{false};
        std::thread::id where;
        group.post([&] {
            where = std::this_thread::get_id();
            ran = true;
        });
        group.post([] { throw std::runtime_error("ignored"); });
        ASSERT_TRUE(eventually([&] { return ran.load(); }));
        EXPECT_NE(where, std::this_thread::get_id());
        EXPECT_FALSE(group.alive().expired());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(node->ticks, 1u);
}

TEST(DhApiValueGroup, FirstTickWaitsForThePhase) {
    dh_db db;
    auto node = std::make_shared<ticking_node>(db, std::vector<std::string>{"a"});
    value_group group(5, 200, 0);
    const auto start = std::chrono::steady_clock::now();
    group.add_value(node, 1);
    ASSERT_TRUE(eventually([&] { return node->ticks >= 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 190ms);
}

// The owner of a group may be released by a job running on the group's own worker.
TEST(DhApiValueGroup, OwnerReleasedFromItsWorker) {
    struct owner {
        value_group group{5, 0, 1};
    };
    auto o = std::make_shared<owner>();
    std::atomic<bool> done{false};
    owner* raw = o.get();
    raw->group.post([keep = std::move(o), &done]() mutable {
        keep.reset();
        done = true;
    });
    ASSERT_TRUE(eventually([&] { return done.load(); }));
}
