#include "ApplicationAction.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "ScenarioFields.h"
#include "SimulationScenario.h"

namespace qvdevice {

namespace {

bool isApplicationEvent(const qv::Json& event) {
    return event.is_object() && event.contains("app");
}

bool readPlainAction(const std::string& name, const std::string& where, ApplicationAction& action,
                     std::string* error) {
    if (name == "stop") {
        action.kind = ApplicationAction::Kind::Stop;
    } else if (name == "start") {
        action.kind = ApplicationAction::Kind::Start;
    } else if (name == "devicesChanged") {
        action.kind = ApplicationAction::Kind::DevicesChanged;
    } else if (name == "startQueue") {
        action.kind = ApplicationAction::Kind::StartQueue;
    } else {
        return failAt(error, where, "unknown application action \"" + name + "\"");
    }
    return true;
}

bool readRules(const qv::Json& json, const std::string& where, qv::Value& out, std::string* error) {
    if (!json.is_array()) {
        return failAt(error, where, "must be an array of dictionaries");
    }
    for (std::size_t i = 0; i < json.size(); ++i) {
        if (!json[i].is_object()) {
            return failAt(error, where + "[" + std::to_string(i) + "]", "must be a dictionary");
        }
    }
    std::string message;
    auto rules = qv::valueFromJson(json, where, &message);
    if (!rules) {
        return failAt(error, where, message);
    }
    out = std::move(*rules);
    return true;
}

bool readActionWithArgument(const qv::Json& json, const std::string& where,
                            ApplicationAction& action, std::string* error) {
    if (json.size() != 1) {
        return failAt(error, where, "must name one action");
    }
    const auto only = json.begin();
    const std::string name = only.key();
    const qv::Json& value = only.value();
    const std::string place = where + "." + name;
    if (name == "setDefaultDevice") {
        if (!value.is_number_integer()) {
            return failAt(error, place, "must be an integer");
        }
        const long long index = value.get<long long>();
        if (index < std::numeric_limits<int>::min() || index > std::numeric_limits<int>::max()) {
            return failAt(error, place, "is out of range");
        }
        action.kind = ApplicationAction::Kind::SetDefaultDevice;
        action.index = static_cast<int>(index);
        return true;
    }
    if (name == "setAllowedDevicesRules") {
        action.kind = ApplicationAction::Kind::SetAllowedDevicesRules;
        return readRules(value, place, action.rules, error);
    }
    if (name == "setAutorepeatNetInfo") {
        if (!value.is_boolean()) {
            return failAt(error, place, "must be true or false");
        }
        action.kind = ApplicationAction::Kind::SetAutorepeatNetInfo;
        action.flag = value.get<bool>();
        return true;
    }
    return failAt(error, where, "unknown application action \"" + name + "\"");
}

bool readAction(const qv::Json& event, const std::string& where, ApplicationAction& action,
                std::string* error) {
    action.where = where;
    bool hasAt = false;
    for (const auto& [key, value] : event.items()) {
        if (key == "at") {
            if (!readScenarioSeconds(value, where + ".at", action.at, error)) {
                return false;
            }
            hasAt = true;
        } else if (key == "app") {
            const std::string place = where + ".app";
            if (value.is_string()) {
                if (!readPlainAction(value.get<std::string>(), place, action, error)) {
                    return false;
                }
            } else if (value.is_object()) {
                if (!readActionWithArgument(value, place, action, error)) {
                    return false;
                }
            } else {
                return failAt(error, place, "must be an action name or a one-key object");
            }
        } else {
            return failAt(error, where, "unknown key \"" + key + "\" beside \"app\"");
        }
    }
    if (!hasAt) {
        return failAt(error, where, "has no \"at\"");
    }
    return true;
}

// The registry reader numbers the events it saw; put the file's numbers back.
std::string renumbered(const std::string& message, const std::vector<std::size_t>& places) {
    const std::string prefix = "timeline[";
    if (!message.starts_with(prefix)) {
        return message;
    }
    const std::size_t close = message.find(']', prefix.size());
    if (close == std::string::npos) {
        return message;
    }
    std::size_t index = 0;
    for (std::size_t i = prefix.size(); i < close; ++i) {
        if (message[i] < '0' || message[i] > '9' || index > places.size()) {
            return message;
        }
        index = index * 10 + static_cast<std::size_t>(message[i] - '0');
    }
    if (index >= places.size()) {
        return message;
    }
    return prefix + std::to_string(places[index]) + message.substr(close);
}

}  // namespace

bool readTimelineWithApplicationActions(const qv::Json& json, qv::ScriptedTimeline& timeline,
                                        std::vector<ApplicationAction>& actions,
                                        PreparationScenario& preparation, std::string* error) {
    if (!json.is_array()) {
        // Not a list: the registry reader says what it expects.
        auto registryOnly = qv::ScriptedTimeline::fromJson(json, error);
        if (!registryOnly) {
            return false;
        }
        timeline = std::move(*registryOnly);
        return true;
    }
    qv::Json registryEvents = qv::Json::array();
    std::vector<std::size_t> places;
    std::vector<ApplicationAction> read;
    for (std::size_t i = 0; i < json.size(); ++i) {
        const std::string where = "timeline[" + std::to_string(i) + "]";
        if (PreparationScenario::isMountEvent(json[i])) {
            if (!preparation.readMountEvent(json[i], where, error)) {
                return false;
            }
            continue;
        }
        if (!isApplicationEvent(json[i])) {
            registryEvents.push_back(json[i]);
            places.push_back(i);
            continue;
        }
        ApplicationAction action;
        if (!readAction(json[i], where, action, error)) {
            return false;
        }
        read.push_back(std::move(action));
    }
    std::string message;
    auto registryTimeline = qv::ScriptedTimeline::fromJson(registryEvents, &message);
    if (!registryTimeline) {
        if (error != nullptr) {
            *error = renumbered(message, places);
        }
        return false;
    }
    std::stable_sort(read.begin(), read.end(),
                     [](const auto& a, const auto& b) { return a.at < b.at; });
    timeline = std::move(*registryTimeline);
    actions = std::move(read);
    return true;
}

double lastApplicationActionTime(const std::vector<ApplicationAction>& actions) {
    return actions.empty() ? 0.0 : actions.back().at;
}

}  // namespace qvdevice
