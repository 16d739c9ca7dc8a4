// What the application does at a moment of a `qvdevice simulate` story: a timeline event
// {"at": SECONDS, "app": ACTION} where ACTION is "stop", "start", "devicesChanged" or
// "startQueue", or a one-key object {"setDefaultDevice": N}, {"setAllowedDevicesRules": [...]},
// {"setAutorepeatNetInfo": BOOL}. The registry events of the same timeline go to
// qv::ScriptedTimeline; the application's are taken out first and played beside them.
#pragma once

#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "Foundation/Value.h"
#include "IOKit/ScriptedTimeline.h"
#include "PreparationScenario.h"

namespace qvdevice {

struct ApplicationAction {
    enum class Kind {
        Stop,
        Start,
        DevicesChanged,
        StartQueue,
        SetDefaultDevice,
        SetAllowedDevicesRules,
        SetAutorepeatNetInfo,
    };
    double at = 0.0;
    std::string where;  // "timeline[3]", for messages
    Kind kind = Kind::Stop;
    int index = 0;      // SetDefaultDevice
    qv::Value rules;    // SetAllowedDevicesRules: an array of dictionaries
    bool flag = false;  // SetAutorepeatNetInfo
};

// Reads a scenario's "timeline": the application actions into `actions` (in time order, file
// order within a time), mount events into `preparation`, everything else into `timeline`. An error
// names the event by its place in the file, whichever reader refused it.
bool readTimelineWithApplicationActions(const qv::Json& json, qv::ScriptedTimeline& timeline,
                                        std::vector<ApplicationAction>& actions,
                                        PreparationScenario& preparation, std::string* error);

// The time of the last action, 0 without any.
double lastApplicationActionTime(const std::vector<ApplicationAction>& actions);

}  // namespace qvdevice
