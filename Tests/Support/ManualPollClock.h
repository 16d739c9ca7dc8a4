// ManualPollClock: a qv::PollClock whose time moves only when the test says so. The thread that
// polls on it (the AT engine's) still waits for real I/O, but never for time: its wait ends when
// one of its descriptors is ready or when advance() has moved the clock to its bound.
//
// advance() and settle() return once the polling thread waits again at the clock's current time
// with nothing ready, so what the engine does at that time (a retry, a time-out, the next command)
// has happened by then. Bytes written to a pseudo-terminal reach the other side a little later:
// after writing, wait for what they cause (the next command) before moving the clock. The test's
// own waits are bounded in real time, so that a stuck engine fails a test instead of hanging it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "RunLoop/PollClock.h"

class ManualPollClock : public qv::PollClock {
  public:
    explicit ManualPollClock(double start = 1000.0);
    ~ManualPollClock() override;
    ManualPollClock(const ManualPollClock&) = delete;
    ManualPollClock& operator=(const ManualPollClock&) = delete;

    double now() const override;
    int poll(pollfd* fds, std::size_t count, double timeout) override;

    // Moves the clock on by `seconds` (to `time`) and waits as settle() does.
    bool advance(double seconds);
    bool advanceTo(double time);
    // Waits until the polling thread waits with nothing ready at the current time; false when it
    // does not within a few real seconds.
    bool settle();

  private:
    mutable std::mutex mutex_;
    std::condition_variable waiting_;
    double now_;
    std::uint64_t generation_ = 0;    // one more at every move of the clock
    bool polling_ = false;            // the polling thread blocks in poll(2)...
    std::uint64_t pollingSince_ = 0;  // ...since this generation...
    std::vector<pollfd> watched_;     // ...on these descriptors
    int wakeFd_ = -1;
};
