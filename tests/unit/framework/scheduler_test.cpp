// The scheduler: order and phase of timed work on a manual clock, cancellation, and the threaded
// scheduler's cancel and stop, which wait for a run in progress.

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "scheduler.hpp"

using namespace std::chrono_literals;

namespace {

using strings = std::vector<std::string>;

struct ManualScheduler : testing::Test {
    dh::manual_scheduler sched;
    const dh::clock::time_point start = sched.time().now();
    strings ran;

    // A task that records its name and the time it ran, in ms since the test began; then fails
    // if asked to.
    std::function<void()> note(const std::string& name, bool fail = false) {
        return [this, name, fail] {
            const auto at =
                std::chrono::duration_cast<std::chrono::milliseconds>(sched.time().now() - start);
            ran.push_back(name + "@" + std::to_string(at.count()));
            if (fail) throw std::runtime_error("broken");
        };
    }
};

TEST_F(ManualScheduler, RunsWorkInTimeOrderAtItsOwnTime) {
    sched.after(30ms, note("a"), dh::scheduler::on::pool);
    sched.after(10ms, note("b"));
    sched.after(10ms, note("c"));
    sched.every(20ms, 5ms, note("p", true), dh::scheduler::on::pool);  // runs again after failing
    sched.post(note("posted"));
    EXPECT_TRUE(ran.empty());  // nothing runs until time moves or pending work is run

    sched.advance(50ms);
    EXPECT_EQ(ran, (strings{"posted@0", "p@5", "b@10", "c@10", "p@25", "a@30", "p@45"}));
    EXPECT_EQ(sched.time().now() - start, 50ms);

    ran.clear();
    sched.every(100ms, 0ms, note("now"));
    sched.run_pending();
    EXPECT_EQ(ran, strings{"now@50"});
}

TEST_F(ManualScheduler, CancelledWorkNeverRuns) {
    const auto once = sched.after(10ms, note("once"));
    const auto periodic = sched.every(10ms, 10ms, note("periodic"));
    const dh::scheduler::task_id self = sched.every(10ms, 0ms, [&] {
        note("self")();
        sched.cancel(self);
    });
    sched.cancel(once);
    sched.advance(25ms);
    sched.cancel(periodic);
    sched.cancel(periodic);  // twice, and an unknown id, are no-ops
    sched.cancel(12345);
    sched.advance(1s);
    EXPECT_EQ(ran, (strings{"self@0", "periodic@10", "periodic@20"}));
}

TEST_F(ManualScheduler, ALateRunDoesNotMakeUpForMissedPeriods) {
    bool slow = true;
    sched.every(10ms, 0ms, [&] {
        note("tick")();
        if (std::exchange(slow, false)) sched.sleep_for(35ms);  // the first run overruns
    });
    sched.advance(60ms);
    EXPECT_EQ(ran, (strings{"tick@0", "tick@45", "tick@55"}));
}

// A pool task that stays running until released.
struct held_task {
    std::promise<void> started, release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> finished{false};
    std::function<void()> fn() {
        return [this] {
            started.set_value();
            released.wait();
            finished = true;
        };
    }
};

// The state of a thread of this process as /proc shows it: 'S' while it sleeps, for instance
// waiting on a condition variable; '?' once it has ended.
char thread_state(pid_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text;
    std::getline(in, text);
    const auto end = text.rfind(") ");
    return end == std::string::npos ? '?' : text[end + 2];
}

TEST(ThreadedScheduler, CancelWaitsForARunInProgress) {
    dh::scheduler sched(dh::system_clock(), 2);
    held_task held;
    const auto id = sched.every(1h, 0ms, held.fn(), dh::scheduler::on::pool);
    held.started.get_future().wait();

    std::atomic<pid_t> tid{0};
    std::atomic<bool> cancelled{false};
    std::thread canceller([&] {
        tid = ::gettid();
        sched.cancel(id);
        cancelled = true;
        EXPECT_TRUE(held.finished);
    });
    // The task is let go once the canceller waits in cancel, which must not return before.
    while (!cancelled && (tid == 0 || thread_state(tid) != 'S')) std::this_thread::yield();
    EXPECT_FALSE(cancelled);
    held.release.set_value();
    canceller.join();
}

TEST(ThreadedScheduler, StopEndsWhatRunsDropsTheRestAndJoins) {
    held_task held;
    std::atomic<bool> later_ran{false};
    auto sched = std::make_unique<dh::scheduler>(dh::system_clock(), 1);
    sched->post(held.fn());
    sched->post([&] { later_ran = true; });  // queued behind the held task: dropped
    sched->after(1h, [&] { later_ran = true; });
    held.started.get_future().wait();

    std::thread stopper([&] {
        sched->stop();
        EXPECT_TRUE(held.finished);
    });
    // Once stopping, the scheduler takes no more work (id 0); only then is the held task let go.
    while (sched->post([] {}) != 0) std::this_thread::yield();
    held.release.set_value();
    stopper.join();
    sched.reset();
    EXPECT_FALSE(later_ran);
}

}  // namespace
