// qv::LiveDevicePlatform: the framework on this machine's devices. Starting it installs the
// default modem library (when nobody installed one), adds every device present through the udev
// feeder and then follows hot-plug on the starting thread's run loop. A machine without udev, or
// whose udev enumeration or monitor fails, gets a clear log line naming what failed and no
// hot-plug (or no devices present at start), never a crash.
#pragma once

#include <memory>

#include "DevicePlatform.h"

namespace qv {

class GsmBackend;
class Registry;
class UdevFeeder;

class LiveDevicePlatform : public DevicePlatform {
  public:
    LiveDevicePlatform();
    ~LiveDevicePlatform() override;

    void start() override;
    void stop() override;

  private:
    Registry* registry_ = nullptr;
    std::unique_ptr<UdevFeeder> feeder_;
    std::shared_ptr<GsmBackend> installedBackend_;
};

}  // namespace qv
