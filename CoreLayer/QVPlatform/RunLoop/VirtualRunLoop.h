// qv::VirtualRunLoop: a run loop on a virtual clock. Nothing waits: a 30-second time-out, a sleep
// or a latency advances the clock at once, and timers fire in time order (ties in the order they
// were scheduled). Posted calls run before the next timer. Used by the tests and the simulator.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>

#include "RunLoop.h"

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
    void post(std::function<void()> call) override;
    void sleep(double seconds) override;
    void runUntil(double time) override;

    // Runs posted calls and every timer due now, without advancing the clock.
    void runPending() { runUntil(now_); }
    // The fire time of the earliest valid timer, or a negative number when none is scheduled.
    double nextFireTime() const;
    bool hasPendingWork() const;
    // How many timers are scheduled and valid (tests use it to see a timer stop).
    std::size_t scheduledTimerCount() const;

  private:
    class VirtualTimer;
    friend class VirtualTimer;

    bool runPosted();
    void schedule(const std::shared_ptr<VirtualTimer>& timer);

    double now_ = 0.0;
    Date start_;
    std::uint64_t nextSequence_ = 0;
    // Ordered by (fire time, sequence); the timer itself knows whether it is still valid.
    std::multimap<std::pair<double, std::uint64_t>, std::shared_ptr<VirtualTimer>> timers_;
    mutable std::mutex postedMutex_;
    std::deque<std::function<void()>> posted_;
};

}  // namespace qv
