#include "GLibRunLoop.h"

#include <glib-unix.h>

#include <climits>
#include <cmath>
#include <utility>

#include "Foundation/Logging.h"

namespace qv {

namespace {

constexpr double kReferenceDateUnixSeconds = 978307200.0;

// Seconds on the monotonic clock to GLib's microseconds, kept within what a ready time takes.
gint64 toMicroseconds(double seconds) {
    double us = std::ceil(seconds * 1e6);
    if (!(us > 0.0)) {
        return 0;
    }
    if (us >= static_cast<double>(G_MAXINT64 / 2)) {
        return G_MAXINT64 / 2;
    }
    return static_cast<gint64>(us);
}

std::string describe(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}

// Ends one runUntil(): a GSource that becomes ready at the deadline.
struct DeadlineSource {
    GSource source;
    bool* reached;

    static gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
        auto* self = reinterpret_cast<DeadlineSource*>(source);
        *self->reached = true;
        g_source_set_ready_time(source, -1);
        return G_SOURCE_CONTINUE;
    }
    static inline GSourceFuncs funcs = {nullptr, nullptr, &DeadlineSource::dispatch,
                                        nullptr, nullptr, nullptr};
};

}  // namespace

struct GLibRunLoop::SchedulerSource {
    GSource source;
    GLibRunLoop* loop;

    static gboolean prepare(GSource* source, gint* timeout) {
        auto* self = reinterpret_cast<SchedulerSource*>(source);
        return self->loop->isReady(g_source_get_time(source), timeout) ? TRUE : FALSE;
    }
    static gboolean check(GSource* source) {
        auto* self = reinterpret_cast<SchedulerSource*>(source);
        return self->loop->isReady(g_source_get_time(source), nullptr) ? TRUE : FALSE;
    }
    static gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
        reinterpret_cast<SchedulerSource*>(source)->loop->dispatch();
        return G_SOURCE_CONTINUE;
    }
    static inline GSourceFuncs funcs = {&SchedulerSource::prepare,
                                        &SchedulerSource::check,
                                        &SchedulerSource::dispatch,
                                        nullptr,
                                        nullptr,
                                        nullptr};
};

class GLibRunLoop::DescriptorWatch : public FileDescriptorWatch {
  public:
    DescriptorWatch(GLibRunLoop& loop, int fd, std::function<void()> readable)
        : loop_(&loop),
          alive_(loop.lifetime_),
          context_(g_main_context_ref(loop.context_)),
          readable_(std::move(readable)),
          source_(g_unix_fd_source_new(fd, G_IO_IN)) {
        g_source_set_name(source_, "qv-descriptor-watch");
        g_source_set_callback(source_, G_SOURCE_FUNC(&DescriptorWatch::ready), this, nullptr);
        g_source_attach(source_, context_);
    }
    ~DescriptorWatch() override {
        g_source_destroy(source_);
        g_source_unref(source_);
        g_main_context_unref(context_);
    }
    DescriptorWatch(const DescriptorWatch&) = delete;
    DescriptorWatch& operator=(const DescriptorWatch&) = delete;

  private:
    static gboolean ready(gint /*fd*/, GIOCondition /*condition*/, gpointer data) {
        auto* self = static_cast<DescriptorWatch*>(data);
        if (self->alive_.expired()) {
            return G_SOURCE_REMOVE;
        }
        // GLib's C frames cannot carry an exception.
        try {
            self->readable_();
        } catch (...) {
            self->loop_->absorb(std::current_exception());
        }
        return G_SOURCE_CONTINUE;
    }

    GLibRunLoop* loop_;
    std::weak_ptr<int> alive_;
    GMainContext* context_;
    std::function<void()> readable_;
    GSource* source_;
};

GLibRunLoop::GLibRunLoop(GMainContext* context)
    : context_(context != nullptr ? g_main_context_ref(context)
                                  : g_main_context_ref_thread_default()) {
    source_ = g_source_new(&SchedulerSource::funcs, sizeof(SchedulerSource));
    reinterpret_cast<SchedulerSource*>(source_)->loop = this;
    g_source_set_name(source_, "qv-run-loop");
    // A callback may run the loop again (runUntil inside a timer): the source must dispatch then.
    g_source_set_can_recurse(source_, TRUE);
    g_source_attach(source_, context_);
}

GLibRunLoop::~GLibRunLoop() {
    g_source_destroy(source_);
    g_source_unref(source_);
    timers_.invalidateAll();
    posted_.clear();
    g_main_context_unref(context_);
}

double GLibRunLoop::now() const {
    return static_cast<double>(g_get_monotonic_time()) / 1e6;
}

Date GLibRunLoop::currentDate() const {
    return Date{static_cast<double>(g_get_real_time()) / 1e6 - kReferenceDateUnixSeconds};
}

std::shared_ptr<Timer> GLibRunLoop::scheduleTimer(double interval, bool repeats,
                                                  TimerCallback callback) {
    // Called on the loop's thread: the next prepare() sees the new timer.
    return timers_.add(now(), interval, repeats, std::move(callback));
}

std::unique_ptr<FileDescriptorWatch> GLibRunLoop::watchReadable(int fd,
                                                                std::function<void()> readable) {
    if (fd < 0) {
        return nullptr;
    }
    return std::make_unique<DescriptorWatch>(*this, fd, std::move(readable));
}

void GLibRunLoop::post(std::function<void()> call) {
    posted_.push(std::move(call));
    g_main_context_wakeup(context_);
}

void GLibRunLoop::sleep(double seconds) {
    gint64 us = toMicroseconds(TimerQueue::clampDuration(seconds));
    if (us > 0) {
        g_usleep(static_cast<gulong>(us));
    }
}

void GLibRunLoop::stop() {
    if (runDepth_ > 0) {
        stopRequested_ = true;
        g_main_context_wakeup(context_);
    }
}

bool GLibRunLoop::isReady(gint64 nowMicroseconds, gint* timeoutMilliseconds) const {
    if (timeoutMilliseconds != nullptr) {
        *timeoutMilliseconds = -1;
    }
    if (!posted_.empty()) {
        return true;
    }
    std::optional<double> next = timers_.nextFireTime();
    if (!next) {
        return false;
    }
    gint64 due = toMicroseconds(*next);
    if (due <= nowMicroseconds) {
        return true;
    }
    if (timeoutMilliseconds != nullptr) {
        gint64 ms = (due - nowMicroseconds + 999) / 1000;
        *timeoutMilliseconds = static_cast<gint>(std::min<gint64>(ms, INT_MAX));
    }
    return false;
}

void GLibRunLoop::dispatch() {
    auto shouldStop = [this]() { return stopRequested_.load(); };
    try {
        posted_.runAll(shouldStop);
        // Only timers due when the dispatch began: a repeating timer whose callback outlasts its
        // interval cannot keep this dispatch going for ever.
        double limit = now();
        auto clock = [this]() { return now(); };
        while (!shouldStop() && timers_.fireNextDue(limit, clock)) {
            posted_.runAll(shouldStop);
        }
    } catch (...) {
        absorb(std::current_exception());
    }
}

void GLibRunLoop::absorb(std::exception_ptr exception) {
    if (runDepth_ > 0 && !pendingException_) {
        pendingException_ = std::move(exception);
    } else {
        logToSystemLog("Uncaught exception in a run-loop callback: " + describe(exception));
    }
}

void GLibRunLoop::runUntil(double time) {
    if (std::isnan(time)) {
        time = now();
    }
    stopRequested_ = false;
    ++runDepth_;
    bool reached = false;
    GSource* deadline = g_source_new(&DeadlineSource::funcs, sizeof(DeadlineSource));
    reinterpret_cast<DeadlineSource*>(deadline)->reached = &reached;
    g_source_set_name(deadline, "qv-run-until");
    // Infinity never arrives; a time already past is ready at once.
    g_source_set_ready_time(deadline, time == HUGE_VAL ? -1 : toMicroseconds(time));
    g_source_attach(deadline, context_);

    while (!reached && !stopRequested_ && !pendingException_) {
        g_main_context_iteration(context_, TRUE);
    }

    g_source_destroy(deadline);
    g_source_unref(deadline);
    --runDepth_;
    stopRequested_ = false;
    if (pendingException_) {
        std::exception_ptr exception = std::move(pendingException_);
        pendingException_ = nullptr;
        std::rethrow_exception(exception);
    }
}

}  // namespace qv
