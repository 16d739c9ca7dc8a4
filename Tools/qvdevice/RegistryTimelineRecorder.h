// qvdevice::RegistryTimelineRecorder: writes down what happens to the device registry as a
// registry timeline (docs/registry-timeline.md) that the scripted feeder plays back: each USB
// device as an "add" with its whole subtree, later changes below it as "add", "set" and "remove"
// events, each at the time it was seen. It compares the registry with what it recorded last,
// so it needs no help from the feeder; its owner calls record() whenever the registry changed.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "IOKit/Registry.h"

namespace qvdevice {

class IdentifierMasker;

// The --device filter: a USB vendor and product ID.
struct USBDeviceID {
    std::uint32_t vendor = 0;
    std::uint32_t product = 0;

    // "12d1:1406" (hex, 1 to 4 digits each); nullopt for anything else.
    static std::optional<USBDeviceID> parse(const std::string& text);
};

class RegistryTimelineRecorder {
  public:
    // Only USB devices with `only`'s IDs are recorded when it is given. With a masker, every
    // property value is masked as it is written.
    RegistryTimelineRecorder(const qv::Registry& registry, std::optional<USBDeviceID> only,
                             IdentifierMasker* masker);

    // Compares the registry with what was recorded so far and adds the difference at `at`
    // (seconds since the recording began).
    void record(double at);

    // The events so far, in time order.
    const qv::Json& timeline() const { return timeline_; }
    // Kernel names ("BSD Name", "IOTTYDevice") of the recorded entries present now, with the
    // class of their entry.
    std::map<std::string, std::string> presentKernelNames() const;
    // Registry handles of the USB devices recorded and present now.
    std::vector<io_registry_entry_t> presentDevices() const { return top_; }

  private:
    struct Known {
        std::string id;
        std::string className;
        qv::Value properties;
        std::vector<io_registry_entry_t> children;
        int nextChildNumber = 0;
    };
    using View = qv::Registry::EntryView;

    bool wanted(const View& device) const;
    qv::Json entryJson(const View& view, const std::string& id);
    qv::Json propertiesJson(const qv::Value& properties);
    void forget(io_registry_entry_t handle);
    void compare(const View& view, double at);
    void addEvent(double at, const char* kind, qv::Json body);

    const qv::Registry& registry_;
    std::optional<USBDeviceID> only_;
    IdentifierMasker* masker_;
    std::map<io_registry_entry_t, Known> known_;
    std::vector<io_registry_entry_t> top_;
    int nextDeviceNumber_ = 1;
    qv::Json timeline_ = qv::Json::array();
};

}  // namespace qvdevice
