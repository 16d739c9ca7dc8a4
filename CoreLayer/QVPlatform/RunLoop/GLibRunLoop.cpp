#include "GLibRunLoop.h"

#include <cmath>
#include <utility>

namespace qv {

namespace {

constexpr double kReferenceDateUnixSeconds = 978307200.0;

gint64 toMicroseconds(double seconds) {
    return static_cast<gint64>(std::llround(seconds * 1e6));
}

// A timer is a GSource with an absolute ready time, so a repeating timer can keep to its own
// schedule (GLib's timeout sources drift with every late dispatch).
class GLibTimer : public Timer, public std::enable_shared_from_this<GLibTimer> {
  public:
    GLibTimer(double interval, bool repeats, TimerCallback callback)
        : interval_(interval), repeats_(repeats), callback_(std::move(callback)) {}
    ~GLibTimer() override { invalidate(); }

    void start(GMainContext* context) {
        source_ = g_source_new(&kFuncs, sizeof(Holder));
        auto* holder = reinterpret_cast<Holder*>(source_);
        holder->timer = new std::shared_ptr<GLibTimer>(shared_from_this());
        fireTime_ = g_get_monotonic_time() + toMicroseconds(interval_);
        g_source_set_ready_time(source_, fireTime_);
        g_source_set_name(source_, "qv-timer");
        g_source_attach(source_, context);
        // The context owns the source now; we keep a reference until invalidation.
    }

    void invalidate() override {
        valid_ = false;
        callback_ = nullptr;
        if (source_ != nullptr) {
            GSource* source = source_;
            source_ = nullptr;
            g_source_destroy(source);
            g_source_unref(source);
        }
    }
    bool isValid() const override { return valid_; }
    double interval() const override { return interval_; }
    bool repeats() const override { return repeats_; }
    void fire() override {
        if (!valid_) {
            return;
        }
        TimerCallback callback = callback_;
        auto keepAlive = shared_from_this();
        if (!repeats_) {
            invalidate();
        }
        if (callback) {
            callback(*this);
        }
    }

  private:
    struct Holder {
        GSource source;
        std::shared_ptr<GLibTimer>* timer;
    };

    static gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
        auto* holder = reinterpret_cast<Holder*>(source);
        std::shared_ptr<GLibTimer> timer = *holder->timer;
        if (!timer->valid_) {
            return G_SOURCE_REMOVE;
        }
        timer->fire();
        if (!timer->valid_ || !timer->repeats_) {
            return G_SOURCE_REMOVE;
        }
        gint64 now = g_get_monotonic_time();
        gint64 step = std::max<gint64>(toMicroseconds(timer->interval_), 100);
        gint64 next = timer->fireTime_ + step;
        if (next <= now) {
            next += ((now - next) / step + 1) * step;
        }
        timer->fireTime_ = next;
        g_source_set_ready_time(source, next);
        return G_SOURCE_CONTINUE;
    }

    static void finalize(GSource* source) {
        auto* holder = reinterpret_cast<Holder*>(source);
        delete holder->timer;
        holder->timer = nullptr;
    }

    static inline GSourceFuncs kFuncs = {
        nullptr, nullptr, &GLibTimer::dispatch, &GLibTimer::finalize, nullptr, nullptr};

    double interval_;
    bool repeats_;
    TimerCallback callback_;
    bool valid_ = true;
    GSource* source_ = nullptr;
    gint64 fireTime_ = 0;
};

gboolean runPostedCall(gpointer data) {
    auto* call = static_cast<std::function<void()>*>(data);
    (*call)();
    return G_SOURCE_REMOVE;
}

void deletePostedCall(gpointer data) {
    delete static_cast<std::function<void()>*>(data);
}

gboolean wakeUp(gpointer) {
    return G_SOURCE_REMOVE;
}

}  // namespace

GLibRunLoop::GLibRunLoop(GMainContext* context)
    : context_(context != nullptr ? g_main_context_ref(context)
                                  : g_main_context_ref_thread_default()) {}

GLibRunLoop::~GLibRunLoop() {
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
    if (!(interval > 0.0)) {
        interval = repeats ? 0.0001 : 0.0;
    }
    auto timer = std::make_shared<GLibTimer>(interval, repeats, std::move(callback));
    timer->start(context_);
    return timer;
}

void GLibRunLoop::post(std::function<void()> call) {
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, &runPostedCall, new std::function<void()>(std::move(call)),
                          &deletePostedCall);
    g_source_attach(source, context_);
    g_source_unref(source);
}

void GLibRunLoop::sleep(double seconds) {
    if (seconds > 0.0) {
        g_usleep(static_cast<gulong>(toMicroseconds(seconds)));
    }
}

void GLibRunLoop::runUntil(double time) {
    double remaining = time - now();
    if (remaining <= 0.0) {
        while (g_main_context_iteration(context_, FALSE)) {
        }
        return;
    }
    // A wake-up at the deadline so the blocking iteration returns in time.
    GSource* wake = g_timeout_source_new(static_cast<guint>(std::ceil(remaining * 1000.0)));
    g_source_set_callback(wake, &wakeUp, nullptr, nullptr);
    g_source_attach(wake, context_);
    while (now() < time) {
        g_main_context_iteration(context_, TRUE);
    }
    g_source_destroy(wake);
    g_source_unref(wake);
}

}  // namespace qv
