// qv::PostedCallQueue: the calls posted to one run loop, in posting order. push() may be called
// from any thread; the calls run on the loop's thread.
#pragma once

#include <deque>
#include <functional>
#include <mutex>

namespace qv {

class PostedCallQueue {
  public:
    // Answers whether the queue was empty before (the loop may need waking).
    bool push(std::function<void()> call);
    bool empty() const;
    // Runs the queued calls in order until none is left, including calls posted meanwhile, and
    // answers whether any ran. An exception thrown by a call propagates; the calls behind it stay
    // queued. `shouldStop` is asked after each call (the loop was told to stop).
    bool runAll(const std::function<bool()>& shouldStop = nullptr);
    void clear();

  private:
    mutable std::mutex mutex_;
    std::deque<std::function<void()>> calls_;
};

}  // namespace qv
