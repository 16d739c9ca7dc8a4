// The device-preparation part of a `qvdevice simulate` story: the serial port enabler the
// application creates, the mounted file systems (at the start and as the timeline goes), and the
// sticks that come back in another mode once they are switched. Read from the scenario's options
// ("enabler", "mounts", "modeSwitches") and from the timeline's "mount" and "unmount" events,
// which are taken out before the registry timeline is read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Foundation/JsonValue.h"
#include "IOKit/ScriptedTimeline.h"

namespace qvdevice {

struct PreparationScenario {
    struct MountEvent {
        double at = 0.0;
        bool mount = true;  // false: unmount
        std::string disk;   // kernel name: sdb1, sr0
        std::string path;   // mount
    };
    struct ModeSwitch {
        std::int32_t vendor = 0;
        std::int32_t product = 0;
        double after = 0.0;
        qv::ScriptedTimeline::Entry becomes;
    };

    std::optional<bool> enablerEjectsSecondaryDisk;  // set: the application creates the enabler
    std::vector<std::pair<std::string, std::string>> mounts;  // at the start, kernel name -> path
    std::vector<MountEvent> mountEvents;                      // in time order
    std::vector<ModeSwitch> modeSwitches;

    bool empty() const {
        return !enablerEjectsSecondaryDisk && mounts.empty() && mountEvents.empty() &&
               modeSwitches.empty();
    }
    double endTime() const { return mountEvents.empty() ? 0.0 : mountEvents.back().at; }

    // One option of the scenario's "options" object. Answers false for a key that is not one of
    // these (nothing set, no error); true with `error` set for a bad value.
    bool readOption(const std::string& key, const qv::Json& value, std::string* error, bool* bad);
    // A timeline event that mounts or unmounts a disk.
    static bool isMountEvent(const qv::Json& event);
    // Reads one mount event (`where` names it in messages) into mountEvents, kept in time order.
    bool readMountEvent(const qv::Json& event, const std::string& where, std::string* error);

    // The kernel names a story may mount or switch: what the udev feeder gives a disk.
    static bool isDiskName(const std::string& name);
};

}  // namespace qvdevice
