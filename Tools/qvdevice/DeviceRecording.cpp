#include "DeviceRecording.h"

#include <cmath>

#include "Foundation/Platform.h"
#include "ModemConversationRecorder.h"

namespace qvdevice {

DeviceRecording::DeviceRecording(const qv::Registry& registry, DeviceRecordingOptions options)
    : options_(options),
      masker_(options.maskKey),
      timeline_(registry, options.only, options.keepIdentifiers ? nullptr : &masker_) {}

DeviceRecording::~DeviceRecording() = default;

qv::Json DeviceRecording::scenario(double seconds) {
    qv::Json options = qv::Json::object();
    // As `qvdevice run` uses the framework: the priority queue runs, the system is this one.
    options["startQueue"] = true;
    options["systemVersion"] = qv::SystemVersion::current();
    if (options_.defaultDevice) {
        options["defaultDevice"] = *options_.defaultDevice;
    }
    if (options_.genericMonitor) {
        options["monitor"] = "generic";  // the replay watches with the monitor the run had
    }
    if (!runningApplications_.empty()) {
        options["runningApplications"] = runningApplications_;
    }
    options["until"] = std::round(std::max(0.0, seconds) * 1e6) / 1e6;
    qv::Json scenario = qv::Json::object();
    scenario["options"] = std::move(options);
    scenario["timeline"] = timeline_.timeline();
    if (modems_) {
        scenario["modems"] = modems_->scriptedModems(masker());
    }
    return scenario;
}

}  // namespace qvdevice
