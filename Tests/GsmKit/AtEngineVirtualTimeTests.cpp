// The AT engine's time bounds on a clock that moves only when the test says so: a pseudo-terminal
// plays the modem (the test writes its answers), the engine's clock is a ManualPollClock, and every
// time-out is checked just before and at its bound, without waiting for it in real time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "QVGsmKit/AtTranscript.h"
#include "QVGsmKit/GsmResultCodes.h"
#include "QVGsmKit/SerialGsmBackend.h"
#include "Support/ManualPollClock.h"

namespace {

using qv::SerialGsmRequest;

// A pseudo-terminal whose far end the test holds: what the engine sends is read there, what the
// test writes there is the modem's answer.
class ModemLine {
  public:
    ModemLine() {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        char name[128];
        if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
            ::ptsname_r(master_, name, sizeof name) != 0) {
            return;
        }
        path_ = name;
        // Held open so that the line never hangs up when the engine closes its side.
        slave_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios settings{};
        if (slave_ >= 0 && ::tcgetattr(slave_, &settings) == 0) {
            ::cfmakeraw(&settings);
            ::tcsetattr(slave_, TCSANOW, &settings);
        }
    }
    ~ModemLine() {
        for (int fd : {master_, slave_}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    ModemLine(const ModemLine&) = delete;
    ModemLine& operator=(const ModemLine&) = delete;

    bool ready() const { return master_ >= 0 && slave_ >= 0; }
    const std::string& path() const { return path_; }
    void answer(const std::string& text) const {
        std::string bytes = "\r\n" + text + "\r\n";
        ASSERT_EQ(::write(master_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

  private:
    int master_ = -1;
    int slave_ = -1;
    std::string path_;
};

struct Sent {
    std::string command;
    double at;
    bool operator==(const Sent&) const = default;
};

void PrintTo(const Sent& sent, std::ostream* out) {
    *out << sent.command << " at " << sent.at;
}

// What the engine sent and read, with the times on its clock. The engine calls it on its own
// thread, before it waits again.
class Transcript : public qv::AtTranscriptListener {
  public:
    void commandSent(const std::string&, const std::string& command, double seconds) override {
        std::lock_guard<std::mutex> lock(mutex_);
        sent_.push_back({command, seconds});
        changed_.notify_all();
    }
    void bytesReceived(const std::string&, std::string_view bytes, double) override {
        std::lock_guard<std::mutex> lock(mutex_);
        received_.append(bytes);
        changed_.notify_all();
    }
    std::vector<Sent> sent() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return sent_;
    }
    // Waits (a few real seconds at most) until `count` commands were sent.
    bool waitForCommands(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(5),
                                 [&] { return sent_.size() >= count; });
    }
    // Waits until the engine has read `bytes` characters in all.
    bool waitForBytes(std::size_t bytes) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(5),
                                 [&] { return received_.size() >= bytes; });
    }
    std::size_t bytesSoFar() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_.size();
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Sent> sent_;
    std::string received_;
};

// One request's outcome, once the engine has given it (the engine may outlive the test's body
// when an assertion ends it early, hence the shared state).
class Outcome {
  public:
    std::function<void(qv::SerialGsmResult)> receiver() {
        return [state = state_](qv::SerialGsmResult result) {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->result = std::move(result);
        };
    }
    std::optional<qv::SerialGsmResult> result() const {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->result;
    }

  private:
    struct State {
        std::mutex mutex;
        std::optional<qv::SerialGsmResult> result;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

constexpr double kStart = 1000.0;
// A step short of a bound; a power of two, so that every time in these tests is exact.
constexpr double kJustBefore = 1.0 / 1024.0;

class AtEngineVirtualTime : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qv-at-clock-locks-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        lockDir_ = pattern;
        ASSERT_TRUE(line_.ready()) << "no pseudo-terminal";
        qv::AtTranscript::setListener(transcript_);
    }
    void TearDown() override {
        backend_.reset();  // answers whatever is still open before the listener goes
        qv::AtTranscript::setListener(nullptr);
        std::filesystem::remove_all(lockDir_);
    }

    // Probe 3 s (three tries of 1 s), commands 5 s, a request 8 s.
    qv::SerialGsmBackend& backend(double requestTimeout = 8.0) {
        qv::SerialGsmOptions options;
        options.probeTimeout = 3.0;
        options.commandTimeout = 5.0;
        options.requestTimeout = requestTimeout;
        options.lockDirectories = {lockDir_};
        options.clock = clock_;
        backend_ = std::make_unique<qv::SerialGsmBackend>(options);
        return *backend_;
    }

    // The modem answers, and the engine has read it all.
    void answer(const std::string& text) {
        std::size_t before = transcript_->bytesSoFar();
        line_.answer(text);
        ASSERT_TRUE(transcript_->waitForBytes(before + text.size() + 4)) << text;
        ASSERT_TRUE(clock_->settle());
    }

    std::shared_ptr<ManualPollClock> clock_ = std::make_shared<ManualPollClock>(kStart);
    std::shared_ptr<Transcript> transcript_ = std::make_shared<Transcript>();
    ModemLine line_;
    std::string lockDir_;
    std::unique_ptr<qv::SerialGsmBackend> backend_;
};

TEST_F(AtEngineVirtualTime, SilentPortCostsThreeProbesWithinTheProbeBound) {
    Outcome outcome;
    backend().perform(SerialGsmRequest::Identify, line_.path(), {}, outcome.receiver());
    ASSERT_TRUE(transcript_->waitForCommands(1));
    ASSERT_TRUE(clock_->settle());

    // Each try waits a third of the bound, and no longer.
    for (double tryEnd : {kStart + 1.0, kStart + 2.0}) {
        std::size_t sentBefore = transcript_->sent().size();
        ASSERT_TRUE(clock_->advanceTo(tryEnd - kJustBefore));
        EXPECT_EQ(transcript_->sent().size(), sentBefore) << "retried early at " << clock_->now();
        ASSERT_TRUE(clock_->advanceTo(tryEnd));
        ASSERT_TRUE(transcript_->waitForCommands(sentBefore + 1));
    }
    EXPECT_EQ(transcript_->sent(),
              (std::vector<Sent>{{"AT", kStart}, {"AT", kStart + 1.0}, {"AT", kStart + 2.0}}));

    ASSERT_TRUE(clock_->advanceTo(kStart + 3.0 - kJustBefore));
    EXPECT_FALSE(outcome.result()) << "gave up before the probe's bound";
    ASSERT_TRUE(clock_->advanceTo(kStart + 3.0));
    std::optional<qv::SerialGsmResult> result = outcome.result();
    ASSERT_TRUE(result) << "still waiting at the probe's bound";
    EXPECT_EQ(result->code, kGsmErrorNoResponse);
    EXPECT_NE(result->reason.find("no answer to \"AT\" in 3 tries"), std::string::npos)
        << result->reason;
    EXPECT_EQ(transcript_->sent().size(), 3u);
}

TEST_F(AtEngineVirtualTime, CommandAndRequestTimeOuts) {
    // A command after the probe waits the command bound, and a time-out ends the request
    // without trying the command's alternative (a late answer would be read as its answer).
    Outcome refused;
    backend().perform(SerialGsmRequest::ModelInformation, line_.path(), {}, refused.receiver());
    ASSERT_TRUE(transcript_->waitForCommands(1));
    answer("OK");
    ASSERT_TRUE(transcript_->waitForCommands(2));
    ASSERT_TRUE(clock_->advanceTo(kStart + 5.0 - kJustBefore));
    EXPECT_FALSE(refused.result()) << "the command bound is shorter than 5 s";
    ASSERT_TRUE(clock_->advanceTo(kStart + 5.0));
    std::optional<qv::SerialGsmResult> result = refused.result();
    ASSERT_TRUE(result) << "the command bound is longer than 5 s";
    EXPECT_EQ(result->code, kGsmErrorNoResponse);
    EXPECT_NE(result->reason.find("no answer to \"AT+CGMM\" in time"), std::string::npos)
        << result->reason;
    EXPECT_EQ(transcript_->sent(), (std::vector<Sent>{{"AT", kStart}, {"AT+CGMM", kStart}}));

    // A modem that answers every command within its bound, but slowly, still runs into the
    // request's bound, counted from the opening of the port.
    Outcome slow;
    const double opened = clock_->now();
    backend_->perform(SerialGsmRequest::DeviceInfo, line_.path(), {}, slow.receiver());
    ASSERT_TRUE(transcript_->waitForCommands(3));
    answer("OK");
    ASSERT_TRUE(transcript_->waitForCommands(4));
    for (const char* value : {"huawei", "E1750"}) {
        ASSERT_TRUE(clock_->advance(3.5));
        std::size_t sentBefore = transcript_->sent().size();
        answer(std::string(value) + "\r\nOK");
        ASSERT_TRUE(transcript_->waitForCommands(sentBefore + 1));
    }
    EXPECT_EQ(transcript_->sent().back(), (Sent{"AT+CGMR", opened + 7.0}));
    ASSERT_TRUE(clock_->advanceTo(opened + 8.0 - kJustBefore));
    EXPECT_FALSE(slow.result());
    // A fresh command's 5 s would end later: the request's own bound ends it.
    ASSERT_TRUE(clock_->advanceTo(opened + 8.0));
    result = slow.result();
    ASSERT_TRUE(result) << "no request bound";
    EXPECT_EQ(result->code, kGsmErrorNoResponse);
    EXPECT_NE(result->reason.find("no complete answer within 8.0 s"), std::string::npos)
        << result->reason;
}

TEST_F(AtEngineVirtualTime, LateProbeAnswersAreWaitedForAndNeverTakenForTheNextCommand) {
    // The first AT is answered only after the second was sent: the engine owes the modem one
    // more answer and listens two tries' time for it before it asks anything else.
    Outcome waited;
    backend().perform(SerialGsmRequest::ModelInformation, line_.path(), {}, waited.receiver());
    ASSERT_TRUE(transcript_->waitForCommands(1));
    ASSERT_TRUE(clock_->advanceTo(kStart + 1.0));
    ASSERT_TRUE(transcript_->waitForCommands(2));
    answer("OK");
    ASSERT_TRUE(clock_->advanceTo(kStart + 3.0 - kJustBefore));
    EXPECT_EQ(transcript_->sent().size(), 2u) << "asked on before the owed answer's time";
    ASSERT_TRUE(clock_->advanceTo(kStart + 3.0));
    ASSERT_TRUE(transcript_->waitForCommands(3));
    EXPECT_EQ(transcript_->sent().back(), (Sent{"AT+CGMM", kStart + 3.0}));
    answer("E1750\r\nOK");
    ASSERT_TRUE(clock_->settle());
    std::optional<qv::SerialGsmResult> result = waited.result();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, 0) << result->reason;
    EXPECT_EQ(result->data["model"], qv::Value("E1750"));

    // When the owed answer comes, the next command goes at once, and the late OK is not read as
    // its answer: the model is the one the modem names afterwards.
    Outcome owed;
    const double start = clock_->now();
    backend_->perform(SerialGsmRequest::ModelInformation, line_.path(), {}, owed.receiver());
    ASSERT_TRUE(transcript_->waitForCommands(4));
    ASSERT_TRUE(clock_->advance(1.0));
    ASSERT_TRUE(transcript_->waitForCommands(5));
    answer("OK");
    ASSERT_TRUE(clock_->advance(0.5));
    answer("OK");
    ASSERT_TRUE(transcript_->waitForCommands(6));
    EXPECT_EQ(transcript_->sent().back(), (Sent{"AT+CGMM", start + 1.5}));
    EXPECT_FALSE(owed.result());
    answer("E1752\r\nOK");
    result = owed.result();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, 0) << result->reason;
    EXPECT_EQ(result->data["model"], qv::Value("E1752"));
}

TEST(ManualPollClockTest, WaitsEndOnlyByDescriptorsOrByMovingTheClock) {
    ManualPollClock clock(10.0);
    int pipeFds[2];
    ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
    std::promise<int> bounded;
    std::promise<short> unbounded;
    // A wait of 2 s on the clock, then one without a bound that only the pipe can end.
    std::thread poller([&] {
        pollfd entry{pipeFds[0], POLLIN, 0};
        bounded.set_value(clock.poll(&entry, 1, 2.0));
        entry.revents = 0;
        int ready = clock.poll(&entry, 1, -1.0);
        unbounded.set_value(ready == 1 ? entry.revents : short(-1));
    });
    std::future<int> first = bounded.get_future();
    std::future<short> second = unbounded.get_future();
    EXPECT_TRUE(clock.settle());
    EXPECT_TRUE(clock.advance(1.5));
    EXPECT_EQ(first.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    // Settled again: the bounded wait ended and the unbounded one began.
    EXPECT_TRUE(clock.advance(0.5));
    EXPECT_EQ(first.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    EXPECT_TRUE(clock.advance(3600.0));
    EXPECT_EQ(second.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_EQ(::write(pipeFds[1], "x", 1), 1);
    poller.join();
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), POLLIN);
    EXPECT_EQ(clock.now(), 3612.0);
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
}

}  // namespace
