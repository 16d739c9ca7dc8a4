#include "VirtualRunLoop.h"

#include <cmath>
#include <utility>

namespace qv {

VirtualRunLoop::VirtualRunLoop(Date startDate) : start_(startDate) {}

VirtualRunLoop::~VirtualRunLoop() {
    timers_.invalidateAll();
}

Date VirtualRunLoop::currentDate() const {
    return Date{start_.secondsSinceReferenceDate + now_};
}

std::shared_ptr<Timer> VirtualRunLoop::scheduleTimer(double interval, bool repeats,
                                                     TimerCallback callback) {
    return timers_.add(now_, interval, repeats, std::move(callback));
}

std::unique_ptr<FileDescriptorWatch> VirtualRunLoop::watchReadable(int fd,
                                                                   std::function<void()> readable) {
    return descriptors_.add(fd, std::move(readable));
}

void VirtualRunLoop::post(std::function<void()> call) {
    posted_.push(std::move(call));
}

void VirtualRunLoop::sleep(double seconds) {
    now_ += TimerQueue::clampDuration(seconds);
}

void VirtualRunLoop::stop() {
    if (runDepth_ > 0) {
        stopRequested_ = true;
    }
}

void VirtualRunLoop::runUntil(double time) {
    if (std::isnan(time)) {
        time = now_;
    }
    stopRequested_ = false;
    ++runDepth_;
    struct DepthGuard {
        std::atomic<int>& depth;
        ~DepthGuard() { --depth; }
    } guard{runDepth_};

    auto shouldStop = [this]() { return stopRequested_.load(); };
    auto clock = [this]() { return now_; };
    for (;;) {
        descriptors_.pollOnce();
        if (shouldStop()) {
            stopRequested_ = false;
            return;
        }
        posted_.runAll(shouldStop);
        if (shouldStop()) {
            stopRequested_ = false;
            return;
        }
        std::optional<double> next = timers_.nextFireTime();
        if (!next || *next > time) {
            break;
        }
        if (*next > now_) {
            now_ = *next;
        }
        timers_.fireNextDue(*next, clock);
        if (shouldStop()) {
            stopRequested_ = false;
            return;
        }
    }
    if (time > now_ && std::isfinite(time)) {
        now_ = time;
    }
}

double VirtualRunLoop::nextFireTime() const {
    std::optional<double> next = timers_.nextFireTime();
    return next ? *next : -1.0;
}

bool VirtualRunLoop::hasPendingWork() const {
    return !posted_.empty() || timers_.nextFireTime().has_value();
}

std::size_t VirtualRunLoop::scheduledTimerCount() const {
    return timers_.size();
}

}  // namespace qv
