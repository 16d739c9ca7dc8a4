// One hot-plug story for `qvdevice simulate`: the registry timeline, the modems behind the serial
// ports, and how the application uses the framework. Read from JSON and checked whole before
// anything runs; the format is described in docs/simulate.md.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ApplicationAction.h"
#include "Foundation/JsonValue.h"
#include "Foundation/Value.h"
#include "IOKit/ScriptedTimeline.h"
#include "PreparationScenario.h"

namespace qvdevice {

// The longest virtual time a scenario or the command line may ask to play: about 115 days.
inline constexpr double kMaxVirtualSeconds = qv::ScriptedTimeline::kMaxEventTime;

struct SimulationOptions {
    std::optional<std::string> database;  // path; the shipped database when absent
    std::optional<qv::Value> rules;       // an array of rule dictionaries
    std::optional<std::string> rulesFile;
    bool genericMonitor = false;  // "monitor": "generic"
    int systemVersion = 0x1050;
    std::optional<bool> acceptNotAllowedDevices;
    std::optional<int> defaultDevice;
    bool startQueue = false;
    std::optional<bool> autorepeatNetInfo;
    std::set<std::string> runningApplications;
    std::optional<double> until;
    PreparationScenario preparation;  // "enabler", "mounts", "modeSwitches"; mount events
};

struct SimulationScenario {
    SimulationOptions options;
    qv::ScriptedTimeline timeline;
    qv::Value modems;  // dictionary: port path -> modem description (may be nil)
    std::vector<ApplicationAction> applicationActions;  // the timeline's "app" events

    // nullopt and one line naming the place on any error.
    static std::optional<SimulationScenario> fromJson(const qv::Json& json, std::string* error);
    static std::optional<SimulationScenario> fromFile(const std::string& path, std::string* error);
};

}  // namespace qvdevice
