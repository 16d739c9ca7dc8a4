// qv::HostCallQueue: calls made on a host's GMainContext, in the order they were posted, from
// whatever thread posts them. The framework thread posts its delegate calls here; the host's main
// loop makes them when it turns. close() drops what has not run yet and refuses what comes later,
// so nothing reaches a host that stopped listening.
#pragma once

#include <glib.h>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace qv {

class HostCallQueue : public std::enable_shared_from_this<HostCallQueue> {
  public:
    // context: referenced; nullptr is the global default main context.
    static std::shared_ptr<HostCallQueue> create(GMainContext* context);
    ~HostCallQueue();
    HostCallQueue(const HostCallQueue&) = delete;
    HostCallQueue& operator=(const HostCallQueue&) = delete;

    // Any thread. A call that throws is written to the system log; the next one still runs.
    void post(std::function<void()> call);
    // Any thread, also from inside a call: the calls still queued are dropped.
    void close();
    bool isClosed() const;

  private:
    explicit HostCallQueue(GMainContext* context);
    static gboolean dispatch(gpointer queue);
    // Runs the queued calls one by one; answers whether the idle source stays.
    bool runQueued();

    GMainContext* context_;
    mutable std::mutex mutex_;
    std::deque<std::function<void()>> calls_;
    bool scheduled_ = false;  // an idle source is attached and will drain the queue
    bool closed_ = false;
};

}  // namespace qv
