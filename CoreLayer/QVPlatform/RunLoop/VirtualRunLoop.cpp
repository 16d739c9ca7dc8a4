#include "VirtualRunLoop.h"

#include <cmath>
#include <utility>

namespace qv {

class VirtualRunLoop::VirtualTimer : public Timer {
  public:
    VirtualTimer(VirtualRunLoop* loop, double interval, bool repeats, TimerCallback callback)
        : loop_(loop), interval_(interval), repeats_(repeats), callback_(std::move(callback)) {}

    void invalidate() override {
        valid_ = false;
        callback_ = nullptr;
    }
    bool isValid() const override { return valid_; }
    double interval() const override { return interval_; }
    bool repeats() const override { return repeats_; }
    void fire() override {
        if (!valid_) {
            return;
        }
        TimerCallback callback = callback_;  // the callback may invalidate and drop itself
        if (!repeats_) {
            invalidate();
        }
        if (callback) {
            callback(*this);
        }
    }

    VirtualRunLoop* loop_;
    double interval_;
    bool repeats_;
    TimerCallback callback_;
    bool valid_ = true;
    double fireTime_ = 0.0;
};

VirtualRunLoop::VirtualRunLoop(Date startDate) : start_(startDate) {}

VirtualRunLoop::~VirtualRunLoop() {
    for (auto& entry : timers_) {
        entry.second->invalidate();
    }
}

Date VirtualRunLoop::currentDate() const {
    return Date{start_.secondsSinceReferenceDate + now_};
}

void VirtualRunLoop::schedule(const std::shared_ptr<VirtualTimer>& timer) {
    timers_.emplace(std::make_pair(timer->fireTime_, nextSequence_++), timer);
}

std::shared_ptr<Timer> VirtualRunLoop::scheduleTimer(double interval, bool repeats,
                                                     TimerCallback callback) {
    // A repeating timer needs a positive interval to make progress; the platform uses 0.1 ms.
    if (!(interval > 0.0)) {
        interval = repeats ? 0.0001 : 0.0;
    }
    auto timer = std::make_shared<VirtualTimer>(this, interval, repeats, std::move(callback));
    timer->fireTime_ = now_ + interval;
    schedule(timer);
    return timer;
}

void VirtualRunLoop::post(std::function<void()> call) {
    std::lock_guard<std::mutex> lock(postedMutex_);
    posted_.push_back(std::move(call));
}

void VirtualRunLoop::sleep(double seconds) {
    if (seconds > 0.0) {
        now_ += seconds;
    }
}

bool VirtualRunLoop::runPosted() {
    bool ran = false;
    for (;;) {
        std::function<void()> call;
        {
            std::lock_guard<std::mutex> lock(postedMutex_);
            if (posted_.empty()) {
                return ran;
            }
            call = std::move(posted_.front());
            posted_.pop_front();
        }
        call();
        ran = true;
    }
}

void VirtualRunLoop::runUntil(double time) {
    for (;;) {
        runPosted();
        // Drop invalidated timers at the front.
        while (!timers_.empty() && !timers_.begin()->second->isValid()) {
            timers_.erase(timers_.begin());
        }
        if (timers_.empty() || timers_.begin()->first.first > time) {
            break;
        }
        auto node = timers_.extract(timers_.begin());
        std::shared_ptr<VirtualTimer> timer = std::move(node.mapped());
        if (timer->fireTime_ > now_) {
            now_ = timer->fireTime_;
        }
        timer->fire();
        if (timer->isValid() && timer->repeats_) {
            // Keep to the schedule: the next firing is the first scheduled time after now.
            double next = timer->fireTime_ + timer->interval_;
            if (next <= now_) {
                double skipped = std::floor((now_ - timer->fireTime_) / timer->interval_);
                next = timer->fireTime_ + (skipped + 1.0) * timer->interval_;
                if (next <= now_) {
                    next += timer->interval_;
                }
            }
            timer->fireTime_ = next;
            schedule(timer);
        }
    }
    if (time > now_) {
        now_ = time;
    }
}

double VirtualRunLoop::nextFireTime() const {
    for (const auto& entry : timers_) {
        if (entry.second->isValid()) {
            return entry.first.first;
        }
    }
    return -1.0;
}

bool VirtualRunLoop::hasPendingWork() const {
    {
        std::lock_guard<std::mutex> lock(postedMutex_);
        if (!posted_.empty()) {
            return true;
        }
    }
    return nextFireTime() >= 0.0;
}

std::size_t VirtualRunLoop::scheduledTimerCount() const {
    std::size_t count = 0;
    for (const auto& entry : timers_) {
        if (entry.second->isValid()) {
            ++count;
        }
    }
    return count;
}

}  // namespace qv
