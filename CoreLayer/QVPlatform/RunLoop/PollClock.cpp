#include "PollClock.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace qv {

namespace {

class MonotonicPollClock : public PollClock {
  public:
    double now() const override {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    int poll(pollfd* fds, std::size_t count, double timeout) override {
        int milliseconds = -1;
        if (timeout >= 0.0) {
            // Rounded up, so that a wait for a deadline never wakes just before it; an hour at
            // most per call (the caller loops).
            double wanted = std::ceil(timeout * 1000.0);
            milliseconds = static_cast<int>(std::clamp(wanted, 0.0, 3600.0 * 1000.0));
        }
        return ::poll(fds, static_cast<nfds_t>(count), milliseconds);
    }
};

}  // namespace

std::shared_ptr<PollClock> PollClock::monotonic() {
    static const std::shared_ptr<PollClock> clock = std::make_shared<MonotonicPollClock>();
    return clock;
}

}  // namespace qv
