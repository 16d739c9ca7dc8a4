#include "ScriptedDevicePlatform.h"

#include <utility>

#include "IOKit/Registry.h"
#include "IOKit/ScriptedFeeder.h"
#include "RunLoop/RunLoop.h"

namespace qv {

ScriptedDevicePlatform::ScriptedDevicePlatform() = default;

ScriptedDevicePlatform::ScriptedDevicePlatform(ScriptedTimeline timeline, double origin)
    : timeline_(std::move(timeline)), origin_(origin) {}

ScriptedDevicePlatform::~ScriptedDevicePlatform() = default;

void ScriptedDevicePlatform::start() {
    if (feeder_) {
        return;
    }
    feeder_ = std::make_unique<ScriptedFeeder>(Registry::shared(), timeline_);
    feeder_->schedule(RunLoop::current(), origin_);
}

void ScriptedDevicePlatform::stop() {}

}  // namespace qv
