#include <glib.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Foundation/Logging.h"
#include "RunLoop/GLibRunLoop.h"

namespace {

using Events = std::vector<std::string>;

// Each test runs its loop on a fresh context of its own.
class GLibRunLoopTest : public ::testing::Test {
  protected:
    GLibRunLoopTest() : context_(g_main_context_new()) {
        loop_ = std::make_shared<qv::GLibRunLoop>(context_);
    }
    ~GLibRunLoopTest() override {
        loop_.reset();
        g_main_context_unref(context_);
    }

    GMainContext* context_;
    std::shared_ptr<qv::GLibRunLoop> loop_;
};

TEST_F(GLibRunLoopTest, RealTimersFireOnARealContext) {
    double start = loop_->now();
    double oneShotAt = -1;
    int oneShots = 0;
    int ticks = 0;
    auto oneShot = loop_->scheduleTimer(0.05, false, [&](qv::Timer&) {
        ++oneShots;
        oneShotAt = loop_->now();
    });
    auto repeating = loop_->scheduleTimer(0.02, true, [&](qv::Timer&) { ++ticks; });
    loop_->runUntil(start + 0.2);

    EXPECT_EQ(oneShots, 1);
    EXPECT_GE(oneShotAt, start + 0.05);
    EXPECT_FALSE(oneShot->isValid());
    EXPECT_GE(ticks, 3);
    EXPECT_GE(loop_->now(), start + 0.2);
    repeating->invalidate();

    // The date is the real one: within a minute of the system clock (2001 reference date).
    double unixNow =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    EXPECT_NEAR(loop_->currentDate().secondsSinceReferenceDate, unixNow - 978307200.0, 60.0);
}

TEST_F(GLibRunLoopTest, DueTimersFireInTimeOrderAfterPostedCalls) {
    Events events;
    // Scheduled in the opposite order of their fire times, then both overdue at once.
    loop_->scheduleTimer(0.03, false, [&](qv::Timer&) { events.push_back("later"); });
    loop_->scheduleTimer(0.01, false, [&](qv::Timer&) {
        events.push_back("sooner");
        loop_->post([&] { events.push_back("posted-by-sooner"); });
    });
    loop_->post([&] { events.push_back("posted"); });
    loop_->sleep(0.05);
    loop_->runUntil(loop_->now() - 1.0);  // a deadline already past: runs what is due now
    EXPECT_EQ(events, (Events{"posted", "sooner", "posted-by-sooner", "later"}));
}

TEST_F(GLibRunLoopTest, PostFromAnotherThreadWakesTheLoop) {
    std::thread::id ranOn;
    double deadline = loop_->now() + 30.0;
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        loop_->post([&] {
            ranOn = std::this_thread::get_id();
            loop_->stop();
        });
    });
    loop_->runUntil(deadline);
    poster.join();
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    // Woken by the post, not by the deadline.
    EXPECT_LT(loop_->now(), deadline);
}

TEST_F(GLibRunLoopTest, ManyThreadsPostingKeepEachThreadsOrder) {
    constexpr int kThreads = 4;
    constexpr int kCalls = 500;
    std::vector<std::vector<int>> received(kThreads);
    int done = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCalls; ++i) {
                loop_->post([&, t, i] {
                    received[t].push_back(i);
                    if (++done == kThreads * kCalls) {
                        loop_->stop();
                    }
                });
            }
        });
    }
    loop_->runUntil(loop_->now() + 30.0);
    for (auto& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(received[t].size(), static_cast<std::size_t>(kCalls));
        for (int i = 0; i < kCalls; ++i) {
            ASSERT_EQ(received[t][i], i);
        }
    }
}

TEST_F(GLibRunLoopTest, ExceptionsPropagateFromRunUntilOrAreLoggedForAHostLoop) {
    int ticks = 0;
    auto timer = loop_->scheduleTimer(0.01, true, [&](qv::Timer&) {
        if (++ticks == 1) {
            throw std::runtime_error("tick failed");
        }
    });
    EXPECT_THROW(loop_->runUntil(loop_->now() + 5.0), std::runtime_error);
    EXPECT_EQ(ticks, 1);
    EXPECT_TRUE(timer->isValid());
    loop_->runUntil(loop_->now() + 0.05);
    EXPECT_GE(ticks, 2);  // the loop and the timer go on
    timer->invalidate();

    // The host iterates the context itself: nobody to throw to, so the system log hears of it.
    Events logged;
    qv::setSystemLogSink([&](const std::string& line) { logged.push_back(line); });
    bool after = false;
    loop_->post([] { throw std::runtime_error("posted failed"); });
    loop_->post([&] { after = true; });
    while (g_main_context_iteration(context_, FALSE)) {
    }
    qv::setSystemLogSink(nullptr);
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_NE(logged[0].find("posted failed"), std::string::npos);
    EXPECT_TRUE(after);
}

TEST_F(GLibRunLoopTest, NestedRunsStillDispatch) {
    Events events;
    loop_->performAfterDelay(0.01, [&] {
        events.push_back("outer");
        loop_->performAfterDelay(0.01, [&] { events.push_back("inner"); });
        loop_->runUntil(loop_->now() + 0.05);
        events.push_back("outer-done");
    });
    loop_->runUntil(loop_->now() + 0.2);
    EXPECT_EQ(events, (Events{"outer", "inner", "outer-done"}));
}

}  // namespace
