// qv::TimerQueue: the timers of one run loop in firing order. Both run loops keep their timers
// here: the virtual loop drives it with its own clock, the GLib loop from a GSource on the
// monotonic clock, so the ordering and rescheduling rules are the same on both.
//
// Order: by fire time, ties in the order the timers were scheduled. A repeating timer keeps to its
// schedule: after a firing its next fire time is the first of (fire time + k * interval) that lies
// after the clock's reading once the callback has returned, so missed firings are skipped.
//
// Owned by the run loop's thread; nothing here is locked.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "RunLoop.h"

namespace qv {

class TimerQueue {
  public:
    TimerQueue();
    ~TimerQueue();
    TimerQueue(const TimerQueue&) = delete;
    TimerQueue& operator=(const TimerQueue&) = delete;

    // What an interval becomes: NaN and negative values are 0, a repeating timer fires at most
    // every 0.1 ms (as the original platform's did), and nothing waits longer than a century.
    static double clampInterval(double interval, bool repeats);
    // A duration for sleeps and delays: NaN and negative are 0, at most a century.
    static double clampDuration(double seconds);

    // Schedules a timer that first fires `interval` seconds after `now`.
    std::shared_ptr<Timer> add(double now, double interval, bool repeats, TimerCallback callback);

    // The earliest fire time of a valid timer.
    std::optional<double> nextFireTime() const;
    std::size_t size() const;

    // Fires the earliest timer when its fire time is `limit` or earlier and answers whether one
    // fired. `clock` reads the time after the callback (a callback may sleep), to reschedule a
    // repeating timer. An exception thrown by the callback propagates after the timer has been
    // rescheduled (or dropped), so the queue stays intact.
    bool fireNextDue(double limit, const std::function<double()>& clock);

    // Invalidates every timer (the loop goes away).
    void invalidateAll();

  private:
    class ScheduledTimer;
    struct State;
    using Key = std::pair<double, std::uint64_t>;

    std::shared_ptr<State> state_;
};

}  // namespace qv
