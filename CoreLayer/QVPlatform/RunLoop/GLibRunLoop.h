// qv::GLibRunLoop: the real run loop, on the calling thread's thread-default GMainContext, so a
// GTK or Qt host loop that iterates that context runs the framework with no extra thread.
// The clock is GLib's monotonic time; dates come from the real-time clock.
//
// The loop's timers and posted calls hang off one GSource of its own on the context (default
// priority), which dispatches posted calls first and then the due timers in time order. post()
// and stop() may come from any thread and wake the context; everything else belongs to the thread
// that iterates the context.
#pragma once

#include <glib.h>

#include <atomic>
#include <exception>

#include "PostedCallQueue.h"
#include "RunLoop.h"
#include "TimerQueue.h"

namespace qv {

class GLibRunLoop : public RunLoop {
  public:
    // Uses `context` (referenced), or the calling thread's thread-default context when null.
    explicit GLibRunLoop(GMainContext* context = nullptr);
    ~GLibRunLoop() override;
    GLibRunLoop(const GLibRunLoop&) = delete;
    GLibRunLoop& operator=(const GLibRunLoop&) = delete;

    double now() const override;
    Date currentDate() const override;
    std::shared_ptr<Timer> scheduleTimer(double interval, bool repeats,
                                         TimerCallback callback) override;
    // A GLib unix descriptor source on the loop's context, at default priority.
    std::unique_ptr<FileDescriptorWatch> watchReadable(int fd,
                                                       std::function<void()> readable) override;
    void post(std::function<void()> call) override;
    void sleep(double seconds) override;
    void runUntil(double time) override;
    void stop() override;

    GMainContext* context() const { return context_; }

  private:
    struct SchedulerSource;
    class DescriptorWatch;

    bool isReady(gint64 nowMicroseconds, gint* timeoutMilliseconds) const;
    void dispatch();
    // Keeps an exception from a callback for runUntil() to rethrow, or logs it for a host loop.
    void absorb(std::exception_ptr exception);

    GMainContext* context_;
    GSource* source_ = nullptr;
    TimerQueue timers_;
    PostedCallQueue posted_;
    std::atomic<int> runDepth_{0};
    std::atomic<bool> stopRequested_{false};
    std::exception_ptr pendingException_;
    // Watches outliving the loop check it before they call back.
    std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
};

}  // namespace qv
