#include "TimerQueue.h"

#include <algorithm>
#include <cmath>

namespace qv {

namespace {
constexpr double kCentury = 100.0 * 365.25 * 24 * 3600;
constexpr double kMinimumRepeatInterval = 0.0001;
}  // namespace

struct TimerQueue::State {
    std::map<Key, std::shared_ptr<ScheduledTimer>> timers;
    std::uint64_t nextSequence = 0;
};

class TimerQueue::ScheduledTimer : public Timer,
                                   public std::enable_shared_from_this<ScheduledTimer> {
  public:
    ScheduledTimer(std::weak_ptr<State> owner, double interval, bool repeats,
                   TimerCallback callback)
        : owner_(std::move(owner)),
          interval_(interval),
          repeats_(repeats),
          callback_(std::move(callback)) {}

    void invalidate() override {
        std::shared_ptr<ScheduledTimer> keepAlive = shared_from_this();  // the queue may own us
        valid_ = false;
        unschedule();
        // Dropped last: the callback may own what invalidated it.
        TimerCallback dropped = std::move(callback_);
        callback_ = nullptr;
    }
    bool isValid() const override { return valid_; }
    double interval() const override { return interval_; }
    bool repeats() const override { return repeats_; }
    void fire() override {
        if (!valid_) {
            return;
        }
        std::shared_ptr<ScheduledTimer> keepAlive = shared_from_this();
        TimerCallback callback = callback_;  // the callback may invalidate and drop itself
        if (!repeats_) {
            invalidate();
        }
        if (callback) {
            callback(*this);
        }
    }

    void schedule(State& state, double fireTime) {
        fireTime_ = fireTime;
        key_ = Key{fireTime, state.nextSequence++};
        state.timers.emplace(*key_, shared_from_this());
    }
    void unschedule() {
        if (!key_) {
            return;
        }
        Key key = *key_;
        key_.reset();
        if (std::shared_ptr<State> state = owner_.lock()) {
            state->timers.erase(key);
        }
    }
    // Taken off the queue to fire; the queue's entry is erased by the caller.
    void detach() { key_.reset(); }
    bool isScheduled() const { return key_.has_value(); }
    double fireTime() const { return fireTime_; }

  private:
    std::weak_ptr<State> owner_;
    double interval_;
    bool repeats_;
    TimerCallback callback_;
    bool valid_ = true;
    double fireTime_ = 0.0;
    std::optional<Key> key_;
};

TimerQueue::TimerQueue() : state_(std::make_shared<State>()) {}

TimerQueue::~TimerQueue() {
    invalidateAll();
}

double TimerQueue::clampInterval(double interval, bool repeats) {
    interval = clampDuration(interval);
    if (repeats && interval < kMinimumRepeatInterval) {
        interval = kMinimumRepeatInterval;
    }
    return interval;
}

double TimerQueue::clampDuration(double seconds) {
    if (!(seconds > 0.0)) {
        return 0.0;
    }
    return std::min(seconds, kCentury);
}

std::shared_ptr<Timer> TimerQueue::add(double now, double interval, bool repeats,
                                       TimerCallback callback) {
    interval = clampInterval(interval, repeats);
    auto timer = std::make_shared<ScheduledTimer>(state_, interval, repeats, std::move(callback));
    timer->schedule(*state_, now + interval);
    return timer;
}

std::optional<double> TimerQueue::nextFireTime() const {
    if (state_->timers.empty()) {
        return std::nullopt;
    }
    return state_->timers.begin()->first.first;
}

std::size_t TimerQueue::size() const {
    return state_->timers.size();
}

bool TimerQueue::fireNextDue(double limit, const std::function<double()>& clock) {
    auto& timers = state_->timers;
    if (timers.empty() || timers.begin()->first.first > limit) {
        return false;
    }
    std::shared_ptr<ScheduledTimer> timer = timers.begin()->second;
    timers.erase(timers.begin());
    timer->detach();

    auto reschedule = [&]() {
        if (!timer->isValid() || !timer->repeats() || timer->isScheduled()) {
            return;
        }
        double now = clock();
        double interval = timer->interval();
        double next = timer->fireTime() + interval;
        if (next <= now) {
            double skipped = std::floor((now - timer->fireTime()) / interval);
            next = timer->fireTime() + (skipped + 1.0) * interval;
            if (next <= now) {
                next += interval;
            }
        }
        timer->schedule(*state_, next);
    };
    try {
        timer->fire();
    } catch (...) {
        reschedule();
        throw;
    }
    reschedule();
    return true;
}

void TimerQueue::invalidateAll() {
    std::map<Key, std::shared_ptr<ScheduledTimer>> timers;
    timers.swap(state_->timers);
    for (auto& entry : timers) {
        entry.second->detach();
        entry.second->invalidate();
    }
}

}  // namespace qv
