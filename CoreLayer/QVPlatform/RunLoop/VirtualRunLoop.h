// qv::VirtualRunLoop: a run loop on a virtual clock. Nothing waits: a 30-second time-out, a sleep
// or a latency advances the clock at once, and timers fire in time order (ties in the order they
// were scheduled). Posted calls run before the next timer. Used by the tests and the simulator.
// Descriptor watches do not make it wait either: each turn (before the posted calls) polls the
// watched descriptors without blocking and calls back those that are readable; data that arrives
// in real time while the clock jumps is seen at the next turn. A watch alone keeps no run going
// (hasPendingWork() does not count it).
// post() and stop() may come from any thread; everything else belongs to the loop's thread.
#pragma once

#include <atomic>

#include "PostedCallQueue.h"
#include "ReadableDescriptorPoller.h"
#include "RunLoop.h"
#include "TimerQueue.h"

namespace qv {

class VirtualRunLoop : public RunLoop {
  public:
    // `startDate` is the date at virtual time 0.
    explicit VirtualRunLoop(Date startDate = Date{815011200.0});  // 2026-10-30 00:00:00 UTC
    ~VirtualRunLoop() override;

    double now() const override { return now_; }
    Date currentDate() const override;
    std::shared_ptr<Timer> scheduleTimer(double interval, bool repeats,
                                         TimerCallback callback) override;
    std::unique_ptr<FileDescriptorWatch> watchReadable(int fd,
                                                       std::function<void()> readable) override;
    void post(std::function<void()> call) override;
    void sleep(double seconds) override;
    void runUntil(double time) override;
    void stop() override;

    // Runs posted calls and every timer due now, without advancing the clock.
    void runPending() { runUntil(now_); }
    // The fire time of the earliest valid timer, or a negative number when none is scheduled.
    double nextFireTime() const;
    bool hasPendingWork() const;
    // How many timers are scheduled and valid (tests use it to see a timer stop).
    std::size_t scheduledTimerCount() const;

  private:
    double now_ = 0.0;
    Date start_;
    TimerQueue timers_;
    PostedCallQueue posted_;
    ReadableDescriptorPoller descriptors_;
    std::atomic<int> runDepth_{0};
    std::atomic<bool> stopRequested_{false};
};

}  // namespace qv
