#include "PostedCallQueue.h"

#include <utility>

namespace qv {

bool PostedCallQueue::push(std::function<void()> call) {
    std::lock_guard<std::mutex> lock(mutex_);
    bool wasEmpty = calls_.empty();
    calls_.push_back(std::move(call));
    return wasEmpty;
}

bool PostedCallQueue::empty() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_.empty();
}

bool PostedCallQueue::runAll(const std::function<bool()>& shouldStop) {
    bool ran = false;
    for (;;) {
        std::function<void()> call;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (calls_.empty()) {
                return ran;
            }
            call = std::move(calls_.front());
            calls_.pop_front();
        }
        ran = true;
        if (call) {
            call();
        }
        if (shouldStop && shouldStop()) {
            return ran;
        }
    }
}

void PostedCallQueue::clear() {
    std::deque<std::function<void()>> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        dropped.swap(calls_);
    }
}

}  // namespace qv
