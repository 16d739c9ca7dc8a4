// qvdevice::FrameworkEventTap: while it lives, what the framework writes on its three output
// channels and every notification posted in the process become events of an EventSink: "log"
// (log, message), "syslog" (message), "stdout" (message) and "notification" (name). `simulate` and
// `run` print the same lines this way. When it goes, the channels are put back as they were.
#pragma once

#include <atomic>

#include "Application/SeamInstallation.h"
#include "EventSink.h"
#include "Foundation/NotificationCenter.h"

namespace qvdevice {

class FrameworkEventTap {
  public:
    explicit FrameworkEventTap(EventSink& sink);
    ~FrameworkEventTap();
    FrameworkEventTap(const FrameworkEventTap&) = delete;
    FrameworkEventTap& operator=(const FrameworkEventTap&) = delete;

    // From now on the output channels go nowhere (the application quits without further output);
    // notifications still come through.
    void muteChannels() { muted_ = true; }

  private:
    qv::Seams channels();

    EventSink& sink_;
    std::atomic<bool> muted_{false};
    qv::SeamInstallation installation_;
    qv::NotificationCenter::Token notificationToken_ = 0;
};

}  // namespace qvdevice
