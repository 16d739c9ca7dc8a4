// Descriptor watches on both run loops: the virtual loop polls without waiting at each turn, the
// GLib loop waits on the descriptor with the rest of its context.
#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "RunLoop/GLibRunLoop.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

using Events = std::vector<std::string>;

// A non-blocking pipe, closed on destruction.
struct Pipe {
    Pipe() {
        int fds[2];
        EXPECT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
        readEnd = fds[0];
        writeEnd = fds[1];
    }
    ~Pipe() {
        closeWriteEnd();
        ::close(readEnd);
    }
    void write(const std::string& text) const {
        EXPECT_EQ(::write(writeEnd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // Everything waiting, or "EOF" once the writer is gone and nothing is left.
    std::string drain() const {
        std::string text;
        char buffer[64];
        for (;;) {
            ssize_t got = ::read(readEnd, buffer, sizeof buffer);
            if (got > 0) {
                text.append(buffer, static_cast<std::size_t>(got));
                continue;
            }
            return got == 0 && text.empty() ? "EOF" : text;
        }
    }
    void closeWriteEnd() {
        if (writeEnd >= 0) {
            ::close(writeEnd);
            writeEnd = -1;
        }
    }
    int readEnd = -1;
    int writeEnd = -1;
};

TEST(VirtualRunLoopDescriptorWatch, ReadableDescriptorsAreSeenAtEachTurnBetweenTimers) {
    qv::VirtualRunLoop loop;
    Pipe pipe;
    Events events;
    auto note = [&](const std::string& what) {
        events.push_back(what + "@" + std::to_string(static_cast<int>(loop.now())));
    };
    auto watch = loop.watchReadable(pipe.readEnd, [&] { note("read " + pipe.drain()); });
    ASSERT_NE(watch, nullptr);

    loop.runPending();
    EXPECT_TRUE(events.empty()) << "nothing written yet";

    // Data written by a timer is read at the next turn, before the next timer.
    loop.performAfterDelay(1.0, [&] {
        note("timer");
        pipe.write("ab");
    });
    loop.performAfterDelay(2.0, [&] { note("later"); });
    loop.post([&] { note("posted"); });
    pipe.write("x");
    loop.runUntil(3.0);
    EXPECT_EQ(events, (Events{"read x@0", "posted@0", "timer@1", "read ab@1", "later@2"}));

    // A hang-up calls back too (the read then tells it), and only once the data is gone.
    events.clear();
    pipe.write("z");
    pipe.closeWriteEnd();
    loop.runPending();
    loop.runPending();
    EXPECT_EQ(events, (Events{"read z@3", "read EOF@3"}));

    EXPECT_EQ(loop.watchReadable(-1, [] {}), nullptr);
    EXPECT_FALSE(loop.hasPendingWork()) << "a watch alone is no pending work";
}

TEST(VirtualRunLoopDescriptorWatch, EndedWatchesAreQuietAndUndrainedOnesDoNotSpin) {
    qv::VirtualRunLoop loop;
    Pipe first;
    Pipe second;
    int firstCalls = 0;
    int secondCalls = 0;
    std::unique_ptr<qv::FileDescriptorWatch> secondWatch;
    // The first callback ends the second watch while both are ready in the same turn.
    auto firstWatch = loop.watchReadable(first.readEnd, [&] {
        ++firstCalls;
        secondWatch.reset();
    });
    secondWatch = loop.watchReadable(second.readEnd, [&] { ++secondCalls; });
    first.write("1");
    second.write("2");
    // Never drained: called once per turn, and a run without timers still ends.
    loop.runUntil(10.0);
    EXPECT_EQ(firstCalls, 1);
    EXPECT_EQ(secondCalls, 0);
    EXPECT_DOUBLE_EQ(loop.now(), 10.0);
    loop.runPending();
    EXPECT_EQ(firstCalls, 2);

    firstWatch.reset();
    loop.runPending();
    EXPECT_EQ(firstCalls, 2);

    // A throwing callback ends the run like a throwing timer; the loop stays usable.
    auto throwing = loop.watchReadable(second.readEnd, [] { throw std::runtime_error("read"); });
    EXPECT_THROW(loop.runPending(), std::runtime_error);
    throwing.reset();
    loop.runPending();

    // A watch may outlive its loop.
    auto survivor = std::make_unique<qv::VirtualRunLoop>();
    auto orphan = survivor->watchReadable(first.readEnd, [] {});
    survivor.reset();
    orphan.reset();
}

class GLibRunLoopDescriptorWatch : public ::testing::Test {
  protected:
    GLibRunLoopDescriptorWatch() : context_(g_main_context_new()) {
        loop_ = std::make_shared<qv::GLibRunLoop>(context_);
    }
    ~GLibRunLoopDescriptorWatch() override {
        loop_.reset();
        g_main_context_unref(context_);
    }

    GMainContext* context_;
    std::shared_ptr<qv::GLibRunLoop> loop_;
};

TEST_F(GLibRunLoopDescriptorWatch, WakesTheLoopForDataFromAnotherThreadUntilEnded) {
    Pipe pipe;
    Events reads;
    auto watch = loop_->watchReadable(pipe.readEnd, [&] {
        reads.push_back(pipe.drain());
        loop_->stop();
    });
    ASSERT_NE(watch, nullptr);
    std::thread writer([&] { pipe.write("hello"); });
    // Ends by the callback's stop(); the deadline only guards against a missing wake-up.
    loop_->runUntil(loop_->now() + 30.0);
    writer.join();
    EXPECT_EQ(reads, Events{"hello"});

    watch.reset();
    pipe.write("unheard");
    loop_->runFor(0.05);
    EXPECT_EQ(reads, Events{"hello"});

    EXPECT_EQ(loop_->watchReadable(-1, [] {}), nullptr);
}

TEST_F(GLibRunLoopDescriptorWatch, ExceptionsPropagateFromRunUntilAndWatchesMayOutliveTheLoop) {
    Pipe pipe;
    auto watch = loop_->watchReadable(pipe.readEnd, [&] {
        pipe.drain();
        throw std::runtime_error("bad read");
    });
    pipe.write("x");
    EXPECT_THROW(loop_->runUntil(loop_->now() + 30.0), std::runtime_error);

    // The context lives on after the loop: the watch must neither call into the dead loop nor
    // fail to end.
    int calls = 0;
    auto orphan = loop_->watchReadable(pipe.readEnd, [&] { ++calls; });
    watch.reset();
    loop_.reset();
    pipe.write("y");
    g_main_context_iteration(context_, FALSE);
    EXPECT_EQ(calls, 0);
    orphan.reset();
}

}  // namespace
