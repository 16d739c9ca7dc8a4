// qv::PollClock: the clock of a thread that waits in poll() rather than on a run loop (the AT
// engine's I/O thread). Such a thread reads "now" and bounds its waits only through its clock, so
// the same code runs on the monotonic clock and, in tests, on a clock that moves when told.
//
// A clock may be shared by threads: now() and poll() are safe to call from any thread.
#pragma once

#include <poll.h>

#include <cstddef>
#include <memory>

namespace qv {

class PollClock {
  public:
    virtual ~PollClock() = default;

    // Seconds on this clock; only differences mean anything.
    virtual double now() const = 0;
    // poll(2) over `fds`, waiting at most `timeout` seconds on this clock (negative: no bound; 0:
    // a look without waiting). Returns as poll(2) does: the number of ready entries, 0 when the
    // time is up, -1 with errno on failure.
    virtual int poll(pollfd* fds, std::size_t count, double timeout) = 0;

    // The monotonic clock (CLOCK_MONOTONIC through std::chrono::steady_clock), shared.
    static std::shared_ptr<PollClock> monotonic();
};

}  // namespace qv
