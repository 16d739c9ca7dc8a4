// qv::GLibRunLoop: the real run loop, on the calling thread's thread-default GMainContext, so a
// GTK or Qt host loop that iterates that context runs the framework with no extra thread.
// The clock is GLib's monotonic time; dates come from the real-time clock.
#pragma once

#include <glib.h>

#include "RunLoop.h"

namespace qv {

class GLibRunLoop : public RunLoop {
  public:
    // Uses `context` (referenced), or the calling thread's thread-default context when null.
    explicit GLibRunLoop(GMainContext* context = nullptr);
    ~GLibRunLoop() override;

    double now() const override;
    Date currentDate() const override;
    std::shared_ptr<Timer> scheduleTimer(double interval, bool repeats,
                                         TimerCallback callback) override;
    void post(std::function<void()> call) override;
    void sleep(double seconds) override;
    void runUntil(double time) override;

    GMainContext* context() const { return context_; }

  private:
    GMainContext* context_;
};

}  // namespace qv
