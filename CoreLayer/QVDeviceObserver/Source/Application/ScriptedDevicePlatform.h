// qv::ScriptedDevicePlatform: the registry fed by a script instead of udev, for tests and
// `qvdevice simulate`. Starting it schedules the timeline on the starting thread's run loop
// (normally a virtual one), counted from `origin` on that loop's clock; an empty timeline feeds
// nothing, for tests that fill the registry themselves. The story is the world's, not the
// observer's: it is scheduled once, at the first start, and keeps playing across stops and starts
// of observers until the platform is destroyed.
#pragma once

#include <memory>

#include "DevicePlatform.h"
#include "IOKit/ScriptedTimeline.h"

namespace qv {

class ScriptedFeeder;

class ScriptedDevicePlatform : public DevicePlatform {
  public:
    ScriptedDevicePlatform();
    ScriptedDevicePlatform(ScriptedTimeline timeline, double origin);
    ~ScriptedDevicePlatform() override;

    void start() override;
    void stop() override;

    // The feeder once started (the simulator reports its events and adds switched sticks through
    // it), or nullptr before the first start.
    ScriptedFeeder* feeder() const { return feeder_.get(); }

  private:
    ScriptedTimeline timeline_;
    double origin_ = 0.0;
    std::unique_ptr<ScriptedFeeder> feeder_;
};

}  // namespace qv
