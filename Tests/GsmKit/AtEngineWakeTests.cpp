// The descriptor that wakes the AT engine's thread, and the engine when none can be opened.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "QVGsmKit/AtEngine.h"
#include "QVGsmKit/GsmResultCodes.h"
#include "QVGsmKit/WakeChannel.h"

namespace {

bool isReadable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

// What the waiting thread does: one 8-byte read.
void takeWakeUps(int fd) {
    std::uint64_t count = 0;
    [[maybe_unused]] ssize_t got = ::read(fd, &count, sizeof count);
}

TEST(WakeChannel, WakesAPollFromAnotherThreadAsEventFdOrAsPipe) {
    for (bool tryEventFd : {true, false}) {
        SCOPED_TRACE(tryEventFd ? "eventfd" : "pipe");
        qv::WakeChannel channel(tryEventFd);
        ASSERT_TRUE(channel.isOpen()) << channel.failure();
        EXPECT_EQ(channel.kind(),
                  tryEventFd ? qv::WakeChannel::Kind::EventFd : qv::WakeChannel::Kind::Pipe);
        EXPECT_TRUE(channel.failure().empty());
        EXPECT_FALSE(isReadable(channel.readFd()));

        std::thread other([&] {
            for (int i = 0; i < 3; ++i) {
                channel.notify();
            }
        });
        other.join();
        pollfd entry{channel.readFd(), POLLIN, 0};
        ASSERT_EQ(::poll(&entry, 1, -1), 1);
        // Three wake-ups are gone with one read, whatever the kind.
        takeWakeUps(channel.readFd());
        EXPECT_FALSE(isReadable(channel.readFd()));
    }
}

struct RecordedFinish {
    std::int32_t code = -100;
    std::string reason;
    int calls = 0;
};

class RecordingConversation : public qv::AtConversation {
  public:
    RecordingConversation(std::string port, RecordedFinish& finish)
        : qv::AtConversation(std::move(port)), finish_(finish) {}
    std::optional<qv::AtCommand> next(const qv::AtResponse*) override {
        return qv::AtCommand{"AT", 1.0};
    }
    void finish(std::int32_t code, const std::string& reason) override {
        finish_.code = code;
        finish_.reason = reason;
        ++finish_.calls;
    }

  private:
    RecordedFinish& finish_;
};

// Runs in a child of its own (a re-executed test binary): leaves no descriptor free, then checks
// that the channel and the engine fail cleanly. Exits 0 when everything held.
[[noreturn]] void runOutOfDescriptors() {
    // Guards against the hang this is about: a stuck destructor ends the child by SIGALRM.
    ::alarm(20);
    int lowestFree = ::dup(0);
    if (lowestFree < 0) {
        std::fprintf(stderr, "no descriptor to start from\n");
        std::_Exit(2);
    }
    ::close(lowestFree);
    RecordedFinish finish;
    auto conversation = std::make_unique<RecordingConversation>("/dev/ttyUSB0", finish);
    rlimit original{};
    ::getrlimit(RLIMIT_NOFILE, &original);
    // The soft limit only, so that it can be raised again below.
    rlimit limit{static_cast<rlim_t>(lowestFree), original.rlim_max};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        std::fprintf(stderr, "setrlimit failed\n");
        std::_Exit(2);
    }
    bool held = true;
    auto check = [&](bool condition, const char* what) {
        if (!condition) {
            std::fprintf(stderr, "failed: %s\n", what);
            held = false;
        }
    };
    {
        qv::WakeChannel channel;
        check(!channel.isOpen() && channel.readFd() == -1, "the channel is closed");
        check(channel.failure().find("eventfd: ") != std::string::npos &&
                  channel.failure().find("; pipe: ") != std::string::npos,
              "the failure names both attempts");
        channel.notify();  // nothing to write to: no crash
    }
    {
        qv::AtEngine engine;
        // The engine found no descriptor; the rest may have them back. The undefined-behaviour
        // sanitizer checks an object's type through a pipe of its own, and with no descriptor
        // left it reports every virtual call as a bad one.
        ::setrlimit(RLIMIT_NOFILE, &original);
        engine.submit(std::move(conversation));
        check(finish.calls == 1, "the conversation is finished at once");
        check(finish.code == kGsmErrorPortUnavailable, "with 'port unavailable'");
        check(finish.reason.find("/dev/ttyUSB0: ") == 0 &&
                  finish.reason.find("no wake-up descriptor") != std::string::npos,
              "and a reason naming the port and the cause");
    }
    check(finish.calls == 1, "finished once only, also after the engine went");
    std::_Exit(held ? 0 : 1);
}

TEST(AtEngineWithoutDescriptors, RefusesRequestsAndDestroysWithoutHanging) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runOutOfDescriptors(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
