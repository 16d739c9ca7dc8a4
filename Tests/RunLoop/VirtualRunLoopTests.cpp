#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "RunLoop/VirtualRunLoop.h"

namespace {

using Events = std::vector<std::string>;

TEST(VirtualRunLoop, TimersFireInTimeOrderAndPostedCallsComeFirst) {
    qv::VirtualRunLoop loop;
    Events events;
    auto note = [&](const std::string& what) {
        events.push_back(what + "@" + std::to_string(static_cast<int>(loop.now() * 10)));
    };
    auto late = loop.scheduleTimer(3.0, false, [&](qv::Timer&) { note("late"); });
    auto first = loop.scheduleTimer(1.0, false, [&](qv::Timer&) {
        note("first");
        loop.post([&] { note("posted-by-first"); });
    });
    auto tie = loop.scheduleTimer(1.0, false, [&](qv::Timer&) { note("tie"); });
    auto delayed = loop.performAfterDelay(2.5, [&] { note("delayed"); });
    auto repeating = loop.scheduleTimer(1.0, true, [&](qv::Timer&) { note("tick"); });
    loop.post([&] { note("posted"); });

    loop.runUntil(3.0);
    EXPECT_EQ(events, (Events{"posted@0", "first@10", "posted-by-first@10", "tie@10", "tick@10",
                              "tick@20", "delayed@25", "late@30", "tick@30"}));
    EXPECT_DOUBLE_EQ(loop.now(), 3.0);

    // The deadline is absolute: an earlier one neither runs anything nor turns the clock back.
    events.clear();
    loop.runUntil(2.0);
    EXPECT_TRUE(events.empty());
    EXPECT_DOUBLE_EQ(loop.now(), 3.0);
    loop.runFor(1.5);
    EXPECT_EQ(events, (Events{"tick@40"}));
    EXPECT_DOUBLE_EQ(loop.now(), 4.5);
    EXPECT_DOUBLE_EQ(loop.nextFireTime(), 5.0);
}

TEST(VirtualRunLoop, InvalidationInsideCallbacks) {
    qv::VirtualRunLoop loop;
    int selfStopping = 0;
    int victimFired = 0;
    std::shared_ptr<qv::Timer> victim;
    loop.scheduleTimer(1.0, true, [&](qv::Timer& timer) {
        if (++selfStopping == 3) {
            timer.invalidate();
        }
    });
    // Due at the same instant as the killer, and scheduled after it: never fires.
    auto killer = loop.scheduleTimer(2.0, false, [&](qv::Timer& timer) {
        victim->invalidate();
        timer.invalidate();
        timer.invalidate();  // twice is harmless
    });
    victim = loop.scheduleTimer(2.0, false, [&](qv::Timer&) { ++victimFired; });
    auto oneShot = loop.performAfterDelay(0.5, [] {});

    loop.runUntil(10.0);
    EXPECT_EQ(selfStopping, 3);
    EXPECT_EQ(victimFired, 0);
    EXPECT_FALSE(killer->isValid());
    EXPECT_FALSE(oneShot->isValid());
    EXPECT_EQ(loop.scheduledTimerCount(), 0u);
    EXPECT_FALSE(loop.hasPendingWork());

    // A timer that outlives its loop stays harmless.
    std::shared_ptr<qv::Timer> orphan;
    {
        qv::VirtualRunLoop shortLived;
        orphan = shortLived.scheduleTimer(1.0, true, [](qv::Timer&) {});
    }
    EXPECT_FALSE(orphan->isValid());
    orphan->invalidate();
    orphan->fire();
}

TEST(VirtualRunLoop, SleepAdvancesTimeAndRepeatingTimersSkipMissedFirings) {
    qv::VirtualRunLoop loop;
    std::vector<double> ticks;
    auto timer = loop.scheduleTimer(1.0, true, [&](qv::Timer&) {
        ticks.push_back(loop.now());
        if (ticks.size() == 1) {
            loop.sleep(3.5);  // blocks the loop's thread: nothing fires meanwhile
        }
    });
    loop.runUntil(6.0);
    // Fired at 1, then the firings at 2, 3 and 4 were missed during the sleep: one at 5, then 6.
    EXPECT_EQ(ticks, (std::vector<double>{1.0, 5.0, 6.0}));

    qv::VirtualRunLoop idle;
    int fired = 0;
    idle.performAfterDelay(1.0, [&] { ++fired; });
    idle.sleep(2.0);
    EXPECT_DOUBLE_EQ(idle.now(), 2.0);
    EXPECT_EQ(fired, 0);
    idle.runPending();  // due while asleep: runs late, at the current time
    EXPECT_EQ(fired, 1);
    EXPECT_DOUBLE_EQ(idle.now(), 2.0);
}

TEST(VirtualRunLoop, ThirtySecondTimeOutRunsWithoutWaiting) {
    qv::VirtualRunLoop loop;
    // The examination pattern: a one-second repeating timer, and a device that times out when
    // it is older than 30 seconds.
    int ticks = 0;
    double timedOutAt = -1;
    auto examination = loop.scheduleTimer(1.0, true, [&](qv::Timer& timer) {
        ++ticks;
        if (loop.now() > 30.0) {
            timedOutAt = loop.now();
            timer.invalidate();
        }
    });
    loop.runUntil(100.0);
    EXPECT_EQ(ticks, 31);
    EXPECT_DOUBLE_EQ(timedOutAt, 31.0);
    EXPECT_DOUBLE_EQ(loop.now(), 100.0);
}

TEST(VirtualRunLoop, OddDurationsAreClamped) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    qv::VirtualRunLoop loop;
    int oneShots = 0;
    int repeats = 0;
    loop.scheduleTimer(-5.0, false, [&](qv::Timer&) { ++oneShots; });
    loop.scheduleTimer(nan, false, [&](qv::Timer&) { ++oneShots; });
    auto fast = loop.scheduleTimer(nan, true, [&](qv::Timer&) { ++repeats; });
    EXPECT_DOUBLE_EQ(fast->interval(), 0.0001);

    loop.runUntil(nan);  // NaN is now: what is due now runs, the clock stays
    EXPECT_EQ(oneShots, 2);
    EXPECT_EQ(repeats, 0);
    EXPECT_DOUBLE_EQ(loop.now(), 0.0);
    loop.runUntil(0.00105);
    EXPECT_EQ(repeats, 10);
    fast->invalidate();

    loop.sleep(-3.0);
    loop.sleep(nan);
    EXPECT_DOUBLE_EQ(loop.now(), 0.00105);
    loop.sleep(inf);
    EXPECT_TRUE(std::isfinite(loop.now()));
    EXPECT_GT(loop.now(), 1e9);
}

TEST(VirtualRunLoop, ExceptionsFromCallbacksLeaveTheLoopIntact) {
    qv::VirtualRunLoop loop;
    int ticks = 0;
    loop.scheduleTimer(1.0, true, [&](qv::Timer&) {
        if (++ticks == 2) {
            throw std::runtime_error("tick failed");
        }
    });
    EXPECT_THROW(loop.runUntil(5.0), std::runtime_error);
    EXPECT_EQ(ticks, 2);
    EXPECT_DOUBLE_EQ(loop.now(), 2.0);
    EXPECT_DOUBLE_EQ(loop.nextFireTime(), 3.0);  // kept its schedule
    loop.runUntil(5.0);
    EXPECT_EQ(ticks, 5);

    Events events;
    loop.post([] { throw std::logic_error("posted failed"); });
    loop.post([&] { events.push_back("after"); });
    EXPECT_THROW(loop.runPending(), std::logic_error);
    EXPECT_TRUE(events.empty());
    loop.runPending();
    EXPECT_EQ(events, Events{"after"});
}

TEST(VirtualRunLoop, StopEndsTheRunEarly) {
    qv::VirtualRunLoop loop;
    int after = 0;
    loop.performAfterDelay(2.0, [&] { loop.stop(); });
    loop.performAfterDelay(2.0, [&] { ++after; });
    loop.runUntil(10.0);
    EXPECT_DOUBLE_EQ(loop.now(), 2.0);
    EXPECT_EQ(after, 0);
    loop.stop();  // no run in progress: ignored
    loop.runUntil(3.0);
    EXPECT_EQ(after, 1);
    EXPECT_DOUBLE_EQ(loop.now(), 3.0);
}

TEST(VirtualRunLoop, PostFromOtherThreadsKeepsEachThreadsOrder) {
    qv::VirtualRunLoop loop;
    constexpr int kThreads = 4;
    constexpr int kCalls = 2000;
    std::vector<std::vector<int>> received(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCalls; ++i) {
                loop.post([&received, t, i] { received[t].push_back(i); });
            }
        });
    }
    // The loop's thread runs while the others post.
    for (int i = 0; i < 50; ++i) {
        loop.runPending();
    }
    for (auto& thread : threads) {
        thread.join();
    }
    loop.runPending();
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(received[t].size(), static_cast<std::size_t>(kCalls));
        for (int i = 0; i < kCalls; ++i) {
            ASSERT_EQ(received[t][i], i);
        }
    }
}

}  // namespace
