#include "Application/HostCallQueue.h"

#include <exception>
#include <utility>

#include "Foundation/Logging.h"

namespace qv {

namespace {
// Calls taken per turn of the host's loop: a burst of framework events never holds the host's
// other sources back for long.
constexpr int kCallsPerDispatch = 64;
}  // namespace

std::shared_ptr<HostCallQueue> HostCallQueue::create(GMainContext* context) {
    return std::shared_ptr<HostCallQueue>(new HostCallQueue(context));
}

HostCallQueue::HostCallQueue(GMainContext* context)
    : context_(g_main_context_ref(context != nullptr ? context : g_main_context_default())) {}

HostCallQueue::~HostCallQueue() {
    g_main_context_unref(context_);
}

void HostCallQueue::post(std::function<void()> call) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || !call) {
        return;
    }
    calls_.push_back(std::move(call));
    if (scheduled_) {
        return;
    }
    scheduled_ = true;
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_static_name(source, "QVDeviceObserver delegate calls");
    // The source keeps the queue alive until it is dispatched or its context goes away.
    g_source_set_callback(
        source, &HostCallQueue::dispatch, new std::shared_ptr<HostCallQueue>(shared_from_this()),
        [](gpointer data) { delete static_cast<std::shared_ptr<HostCallQueue>*>(data); });
    g_source_attach(source, context_);
    g_source_unref(source);
}

void HostCallQueue::close() {
    std::deque<std::function<void()>> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        dropped.swap(calls_);
    }
    // Destroyed outside the lock: a call's captures may post again (and be refused).
}

bool HostCallQueue::isClosed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closed_;
}

gboolean HostCallQueue::dispatch(gpointer queue) {
    return (*static_cast<std::shared_ptr<HostCallQueue>*>(queue))->runQueued() ? G_SOURCE_CONTINUE
                                                                               : G_SOURCE_REMOVE;
}

bool HostCallQueue::runQueued() {
    for (int taken = 0; taken < kCallsPerDispatch; ++taken) {
        std::function<void()> call;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (calls_.empty()) {
                scheduled_ = false;
                return false;
            }
            call = std::move(calls_.front());
            calls_.pop_front();
        }
        try {
            call();
        } catch (const std::exception& error) {
            logSystem("A delegate call of the framework thread threw: %s",
                      std::string(error.what()));
        } catch (...) {
            logSystem("A delegate call of the framework thread threw");
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    scheduled_ = !calls_.empty();
    return scheduled_;
}

}  // namespace qv
