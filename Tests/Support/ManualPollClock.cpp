#include "Support/ManualPollClock.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

ManualPollClock::ManualPollClock(double start) : now_(start) {
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

ManualPollClock::~ManualPollClock() {
    if (wakeFd_ >= 0) {
        ::close(wakeFd_);
    }
}

double ManualPollClock::now() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return now_;
}

int ManualPollClock::poll(pollfd* fds, std::size_t count, double timeout) {
    double deadline = std::numeric_limits<double>::infinity();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (timeout >= 0.0) {
            deadline = now_ + timeout;
        }
    }
    std::vector<pollfd> all(fds, fds + count);
    all.push_back({wakeFd_, POLLIN, 0});
    for (;;) {
        std::uint64_t generation = 0;
        double time = 0.0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            generation = generation_;
            time = now_;
        }
        for (pollfd& entry : all) {
            entry.revents = 0;
        }
        int ready = ::poll(all.data(), all.size(), 0);
        if (ready < 0) {
            return ready;
        }
        if ((all.back().revents & POLLIN) != 0) {
            std::uint64_t moves = 0;
            [[maybe_unused]] ssize_t got = ::read(wakeFd_, &moves, sizeof moves);
        }
        int realReady = 0;
        for (std::size_t i = 0; i < count; ++i) {
            fds[i].revents = all[i].revents;
            realReady += fds[i].revents != 0 ? 1 : 0;
        }
        if (realReady > 0) {
            return realReady;
        }
        if (time >= deadline) {
            return 0;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            polling_ = true;
            pollingSince_ = generation;
            watched_.assign(all.begin(), all.end() - 1);
        }
        waiting_.notify_all();
        int blocked = ::poll(all.data(), all.size(), -1);
        int error = errno;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            polling_ = false;
        }
        if (blocked < 0 && error != EINTR) {
            errno = error;
            return blocked;
        }
    }
}

bool ManualPollClock::advance(double seconds) {
    return advanceTo(now() + seconds);
}

bool ManualPollClock::advanceTo(double time) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        now_ = std::max(now_, time);
        ++generation_;
    }
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t written = ::write(wakeFd_, &one, sizeof one);
    return settle();
}

bool ManualPollClock::settle() {
    auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (polling_ && pollingSince_ == generation_) {
            // The descriptors it waits on are still open while it waits (it cannot go on without
            // this lock); one that became ready since (a submitted request, bytes from the modem)
            // means it has work to do.
            std::vector<pollfd> look = watched_;
            if (::poll(look.data(), look.size(), 0) == 0) {
                return true;
            }
        }
        if (std::chrono::steady_clock::now() >= giveUp) {
            return false;
        }
        waiting_.wait_for(lock, std::chrono::milliseconds(1));
    }
}
