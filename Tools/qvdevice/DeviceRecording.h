// qvdevice::DeviceRecording: everything one `qvdevice record` writes down while the framework runs
// live: the registry's story, the modems' answers (with --modem), the applications found running;
// and the files made from it: the scenario `qvdevice simulate` plays (docs/simulate.md), the
// modem-simulator profiles, the umockdev device description. Identifiers are masked as they are
// written unless the recording keeps them.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Foundation/JsonValue.h"
#include "IdentifierMasker.h"
#include "RegistryTimelineRecorder.h"

namespace qvdevice {

class ModemConversationRecorder;

struct DeviceRecordingOptions {
    std::optional<USBDeviceID> only;
    bool keepIdentifiers = false;
    std::uint64_t maskKey = 0;
    std::optional<int> defaultDevice;  // the application's choice, as `run --default-device`
    bool genericMonitor = false;       // unknown products of known makers too, as `run --generic`
};

class DeviceRecording {
  public:
    DeviceRecording(const qv::Registry& registry, DeviceRecordingOptions options);
    ~DeviceRecording();
    DeviceRecording(const DeviceRecording&) = delete;
    DeviceRecording& operator=(const DeviceRecording&) = delete;

    // The registry changed (or the recording begins: at 0 every device present is added).
    void registryChanged(double at) { timeline_.record(at); }
    // With --modem: where the modem library's answers are kept (owned by the recording).
    void setModems(std::shared_ptr<ModemConversationRecorder> modems) { modems_ = modems; }
    ModemConversationRecorder* modems() const { return modems_.get(); }
    void setRunningApplications(std::set<std::string> identifiers) {
        runningApplications_ = std::move(identifiers);
    }

    // The masker, or nullptr when identifiers are kept.
    IdentifierMasker* masker() { return options_.keepIdentifiers ? nullptr : &masker_; }
    const RegistryTimelineRecorder& timeline() const { return timeline_; }

    // The scenario of a recording that lasted `seconds`.
    qv::Json scenario(double seconds);

  private:
    DeviceRecordingOptions options_;
    IdentifierMasker masker_;
    RegistryTimelineRecorder timeline_;
    std::shared_ptr<ModemConversationRecorder> modems_;
    std::set<std::string> runningApplications_;
};

}  // namespace qvdevice
