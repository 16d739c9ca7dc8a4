// qv::RunLoop: what the original platform's run loop, timers, delayed calls, "now" and thread
// sleep were. Every timer, delayed call, sleep and clock read of the framework goes through the
// calling thread's run loop, so that the same code runs on the host's GLib loop and in virtual
// time (tests, `qvdevice simulate`).
//
// A run loop belongs to one thread. Timers, sources and delayed calls are created and fire on that
// thread; only post() may be called from any thread.
#pragma once

#include <functional>
#include <memory>

#include "Foundation/Value.h"

namespace qv {

class RunLoop;

// A scheduled timer. A repeating timer keeps to its schedule: after a late firing the next one is
// the first scheduled time still ahead, and missed ones are skipped (one firing for the lot).
class Timer {
  public:
    virtual ~Timer() = default;
    // Stops the timer for good; safe to call more than once and from inside its own callback.
    virtual void invalidate() = 0;
    virtual bool isValid() const = 0;
    virtual double interval() const = 0;
    virtual bool repeats() const = 0;
    // Runs the callback now, outside the schedule; a one-shot timer is invalidated by it.
    virtual void fire() = 0;
};

using TimerCallback = std::function<void(Timer&)>;

// A watch on a file descriptor (RunLoop::watchReadable). Destroying it ends the watch; end it
// before closing the descriptor.
class FileDescriptorWatch {
  public:
    virtual ~FileDescriptorWatch() = default;
};

// A run-loop source: signal() asks the loops it was added to to call perform() on their own
// thread soon. signal() may be called from any thread; perform() never runs from inside signal().
class RunLoopSource : public std::enable_shared_from_this<RunLoopSource> {
  public:
    explicit RunLoopSource(std::function<void()> perform);
    void signal();

  private:
    friend class RunLoop;
    std::function<void()> perform_;
    std::weak_ptr<RunLoop> loop_;
};

class RunLoop : public std::enable_shared_from_this<RunLoop> {
  public:
    virtual ~RunLoop() = default;

    // The calling thread's run loop. A thread that has none gets a GLib run loop on its
    // thread-default main context.
    static RunLoop& current();
    static std::shared_ptr<RunLoop> currentShared();
    // Installs a run loop for the calling thread (tests and the simulator install a virtual one);
    // nullptr removes it.
    static void setCurrent(std::shared_ptr<RunLoop> loop);

    // Seconds on this loop's clock: monotonic on a real loop, virtual time on a virtual one.
    virtual double now() const = 0;
    // The current date (what NSDate's date was), on the same clock.
    virtual Date currentDate() const = 0;

    // Intervals and delays that are negative or NaN count as 0; a repeating timer fires at most
    // every 0.1 ms.
    virtual std::shared_ptr<Timer> scheduleTimer(double interval, bool repeats,
                                                 TimerCallback callback) = 0;
    // A delayed call (performSelector:withObject:afterDelay:). The returned timer cancels it.
    std::shared_ptr<Timer> performAfterDelay(double delay, std::function<void()> call);

    // Calls `readable` on this loop's thread whenever `fd` has something to read (or has hung up
    // or failed, which the read then tells), until the returned watch is destroyed. The callback
    // should read what is there: a descriptor left readable calls it again at the next turn.
    // An exception from it is handled as one from a timer. Null for a negative descriptor.
    virtual std::unique_ptr<FileDescriptorWatch> watchReadable(int fd,
                                                               std::function<void()> readable) = 0;

    // Runs `call` on this loop's thread as soon as it turns, in posting order, before any timer
    // that is due at the same moment. Safe from any thread; a real loop is woken for it.
    virtual void post(std::function<void()> call) = 0;

    // Blocks the calling thread (this loop's thread) for the given seconds. Nothing of this loop
    // runs meanwhile, as on the original platform; a virtual loop just advances its clock.
    virtual void sleep(double seconds) = 0;

    // Turns the loop until its clock reaches `time`, an absolute reading of now() (tests and
    // tools; a host normally runs the loop itself), or until stop(). A time already past runs
    // what is due now; NaN counts as now; infinity runs until stop().
    // An exception thrown by a callback ends the run and propagates from here; the loop stays
    // usable (the timer that threw keeps its schedule). When the host turns a real loop itself
    // there is nobody to propagate to: the exception is written to the system log.
    virtual void runUntil(double time) = 0;
    void runFor(double seconds) { runUntil(now() + seconds); }
    // Ends the innermost runUntil() in progress after the current callback (CFRunLoopStop).
    // Without a run in progress it does nothing. Safe from any thread.
    virtual void stop() = 0;

    void addSource(const std::shared_ptr<RunLoopSource>& source);
    void removeSource(const std::shared_ptr<RunLoopSource>& source);
    bool containsSource(const std::shared_ptr<RunLoopSource>& source) const;
};

// Core Foundation's names for the same operations, as the framework's code calls them.
using CFRunLoopRef = RunLoop*;
using CFRunLoopSourceRef = std::shared_ptr<RunLoopSource>;
inline constexpr const char* kCFRunLoopCommonModes = "kCFRunLoopCommonModes";
CFRunLoopRef CFRunLoopGetCurrent();
void CFRunLoopAddSource(CFRunLoopRef loop, const CFRunLoopSourceRef& source, const char* mode);
void CFRunLoopRemoveSource(CFRunLoopRef loop, const CFRunLoopSourceRef& source, const char* mode);

}  // namespace qv
