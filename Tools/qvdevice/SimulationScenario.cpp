#include "SimulationScenario.h"

#include <cmath>
#include <limits>

#include "ScenarioFields.h"

namespace qvdevice {

namespace {

constexpr std::size_t kMaxScenarioFileSize = 64u << 20;

bool readBool(const qv::Json& json, const std::string& where, bool& out, std::string* error) {
    if (!json.is_boolean()) {
        return failAt(error, where, "must be true or false");
    }
    out = json.get<bool>();
    return true;
}

bool readString(const qv::Json& json, const std::string& where, std::string& out,
                std::string* error) {
    if (!json.is_string() || json.get_ref<const std::string&>().empty()) {
        return failAt(error, where, "must be a non-empty string");
    }
    out = json.get<std::string>();
    return true;
}

bool readInt(const qv::Json& json, const std::string& where, int& out, std::string* error) {
    if (!json.is_number_integer()) {
        return failAt(error, where, "must be an integer");
    }
    long long value = json.get<long long>();
    if (value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max()) {
        return failAt(error, where, "is out of range");
    }
    out = static_cast<int>(value);
    return true;
}

bool readOptions(const qv::Json& json, SimulationOptions& options, std::string* error) {
    if (!json.is_object()) {
        return failAt(error, "options", "must be an object");
    }
    for (const auto& [key, value] : json.items()) {
        const std::string where = "options." + key;
        if (key == "database") {
            std::string path;
            if (!readString(value, where, path, error))
                return false;
            options.database = path;
        } else if (key == "rules") {
            if (!value.is_array())
                return failAt(error, where, "must be an array of dictionaries");
            for (std::size_t i = 0; i < value.size(); ++i) {
                if (!value[i].is_object()) {
                    return failAt(error, where + "[" + std::to_string(i) + "]",
                                  "must be a dictionary");
                }
            }
            std::string message;
            auto rules = qv::valueFromJson(value, where, &message);
            if (!rules)
                return failAt(error, where, message);
            options.rules = std::move(*rules);
        } else if (key == "rulesFile") {
            std::string path;
            if (!readString(value, where, path, error))
                return false;
            options.rulesFile = path;
        } else if (key == "monitor") {
            std::string kind;
            if (!readString(value, where, kind, error))
                return false;
            if (kind != "standard" && kind != "generic") {
                return failAt(error, where, "must be \"standard\" or \"generic\"");
            }
            options.genericMonitor = kind == "generic";
        } else if (key == "systemVersion") {
            if (!readInt(value, where, options.systemVersion, error))
                return false;
        } else if (key == "acceptNotAllowedDevices") {
            bool flag = false;
            if (!readBool(value, where, flag, error))
                return false;
            options.acceptNotAllowedDevices = flag;
        } else if (key == "defaultDevice") {
            int index = 0;
            if (!readInt(value, where, index, error))
                return false;
            options.defaultDevice = index;
        } else if (key == "startQueue") {
            if (!readBool(value, where, options.startQueue, error))
                return false;
        } else if (key == "autorepeatNetInfo") {
            bool flag = false;
            if (!readBool(value, where, flag, error))
                return false;
            options.autorepeatNetInfo = flag;
        } else if (key == "runningApplications") {
            if (!value.is_array())
                return failAt(error, where, "must be an array of strings");
            for (std::size_t i = 0; i < value.size(); ++i) {
                std::string id;
                if (!readString(value[i], where + "[" + std::to_string(i) + "]", id, error)) {
                    return false;
                }
                options.runningApplications.insert(id);
            }
        } else if (key == "until") {
            double until = 0.0;
            if (!readScenarioSeconds(value, where, until, error))
                return false;
            options.until = until;
        } else if (bool bad = false; options.preparation.readOption(key, value, error, &bad)) {
            if (bad)
                return false;
        } else {
            return failAt(error, "options", "unknown key \"" + key + "\"");
        }
    }
    if (options.rules && options.rulesFile) {
        return failAt(error, "options", "give either \"rules\" or \"rulesFile\", not both");
    }
    return true;
}

}  // namespace

std::optional<SimulationScenario> SimulationScenario::fromJson(const qv::Json& json,
                                                               std::string* error) {
    if (!json.is_object()) {
        failAt(error, "scenario", "must be an object with \"timeline\"");
        return std::nullopt;
    }
    SimulationScenario scenario;
    bool hasTimeline = false;
    for (const auto& [key, value] : json.items()) {
        if (key == "options") {
            if (!readOptions(value, scenario.options, error))
                return std::nullopt;
        } else if (key == "timeline") {
            if (!readTimelineWithApplicationActions(value, scenario.timeline,
                                                    scenario.applicationActions,
                                                    scenario.options.preparation, error))
                return std::nullopt;
            hasTimeline = true;
        } else if (key == "modems") {
            if (!value.is_object()) {
                failAt(error, "modems", "must be an object keyed by port path");
                return std::nullopt;
            }
            std::string message;
            auto modems = qv::valueFromJson(value, "modems", &message);
            if (!modems) {
                failAt(error, "modems", message);
                return std::nullopt;
            }
            scenario.modems = std::move(*modems);
        } else {
            failAt(error, "scenario", "unknown key \"" + key + "\"");
            return std::nullopt;
        }
    }
    if (!hasTimeline) {
        failAt(error, "scenario", "has no \"timeline\"");
        return std::nullopt;
    }
    return scenario;
}

std::optional<SimulationScenario> SimulationScenario::fromFile(const std::string& path,
                                                               std::string* error) {
    auto json = qv::readJsonFile(path, kMaxScenarioFileSize, error);
    if (!json) {
        return std::nullopt;
    }
    return fromJson(*json, error);
}

}  // namespace qvdevice
