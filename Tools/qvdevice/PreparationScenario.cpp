#include "PreparationScenario.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "ScenarioFields.h"
#include "SimulationScenario.h"

namespace qvdevice {

namespace {

bool readID(const qv::Json& json, const std::string& where, std::int32_t* out, std::string* error) {
    if (!json.is_number_integer() || json.get<long long>() < 0 || json.get<long long>() > 0xFFFF) {
        return failAt(error, where, "must be a USB ID from 0 to 65535");
    }
    *out = static_cast<std::int32_t>(json.get<long long>());
    return true;
}

bool readDiskName(const qv::Json& json, const std::string& where, std::string* out,
                  std::string* error) {
    if (!json.is_string() || !PreparationScenario::isDiskName(json.get<std::string>())) {
        return failAt(error, where, "must be a kernel disk name such as \"sdb1\" or \"sr0\"");
    }
    *out = json.get<std::string>();
    return true;
}

bool readMountPoint(const qv::Json& json, const std::string& where, std::string* out,
                    std::string* error) {
    if (!json.is_string() || json.get_ref<const std::string&>().empty() ||
        json.get_ref<const std::string&>().front() != '/' ||
        json.get_ref<const std::string&>().find('\0') != std::string::npos) {
        return failAt(error, where, "must be an absolute path");
    }
    *out = json.get<std::string>();
    return true;
}

// An entry in the registry timeline's form, checked by the timeline's own reader.
bool readEntry(const qv::Json& json, const std::string& where, qv::ScriptedTimeline::Entry* out,
               std::string* error) {
    qv::Json timeline = qv::Json::array();
    timeline.push_back({{"at", 0}, {"add", {{"parent", nullptr}, {"entry", json}}}});
    std::string message;
    auto parsed = qv::ScriptedTimeline::fromJson(timeline, &message);
    if (!parsed) {
        const std::string prefix = "timeline[0].add.entry";
        if (message.rfind(prefix, 0) == 0) {
            message = message.substr(prefix.size());
            if (message.rfind(": ", 0) == 0) {
                message = message.substr(2);
            }
        }
        return failAt(error, where, message);
    }
    *out = parsed->events().front().entry;
    if (out->className != "IOUSBDevice") {
        return failAt(error, where, "must be an IOUSBDevice entry");
    }
    return true;
}

bool readModeSwitch(const qv::Json& json, const std::string& where,
                    PreparationScenario::ModeSwitch* out, std::string* error) {
    if (!json.is_object()) {
        return failAt(error, where, "must be an object with vendor, product, after and becomes");
    }
    bool haveVendor = false;
    bool haveProduct = false;
    bool haveBecomes = false;
    for (const auto& [key, value] : json.items()) {
        const std::string place = where + "." + key;
        if (key == "vendor") {
            haveVendor = readID(value, place, &out->vendor, error);
            if (!haveVendor)
                return false;
        } else if (key == "product") {
            haveProduct = readID(value, place, &out->product, error);
            if (!haveProduct)
                return false;
        } else if (key == "after") {
            if (!readScenarioSeconds(value, place, out->after, error))
                return false;
        } else if (key == "becomes") {
            haveBecomes = readEntry(value, place, &out->becomes, error);
            if (!haveBecomes)
                return false;
        } else {
            return failAt(error, where, "unknown key \"" + key + "\"");
        }
    }
    if (!haveVendor || !haveProduct || !haveBecomes) {
        return failAt(error, where, "needs vendor, product and becomes");
    }
    return true;
}

}  // namespace

bool PreparationScenario::isDiskName(const std::string& name) {
    if (name.empty() || name.size() > 31 || name.front() == '-' || name.front() == '.' ||
        name.find("..") != std::string::npos) {
        return false;
    }
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '-' || c == '.';
    });
}

bool PreparationScenario::readOption(const std::string& key, const qv::Json& value,
                                     std::string* error, bool* bad) {
    const std::string where = "options." + key;
    *bad = true;
    if (key == "enabler") {
        if (!value.is_object()) {
            failAt(error, where, "must be an object such as {\"ejectSecondaryDisk\": false}");
            return true;
        }
        bool eject = false;
        for (const auto& [name, flag] : value.items()) {
            if (name != "ejectSecondaryDisk") {
                failAt(error, where, "unknown key \"" + name + "\"");
                return true;
            }
            if (!flag.is_boolean()) {
                failAt(error, where + "." + name, "must be true or false");
                return true;
            }
            eject = flag.get<bool>();
        }
        enablerEjectsSecondaryDisk = eject;
    } else if (key == "mounts") {
        if (!value.is_object()) {
            failAt(error, where, "must be an object of kernel disk names and mount points");
            return true;
        }
        for (const auto& [name, path] : value.items()) {
            std::string disk;
            std::string mountPoint;
            if (!readDiskName(name, where, &disk, error) ||
                !readMountPoint(path, where + "." + name, &mountPoint, error)) {
                return true;
            }
            mounts.emplace_back(disk, mountPoint);
        }
    } else if (key == "modeSwitches") {
        if (!value.is_array()) {
            failAt(error, where, "must be an array of mode switches");
            return true;
        }
        for (std::size_t i = 0; i < value.size(); ++i) {
            ModeSwitch modeSwitch;
            if (!readModeSwitch(value[i], where + "[" + std::to_string(i) + "]", &modeSwitch,
                                error)) {
                return true;
            }
            modeSwitches.push_back(std::move(modeSwitch));
        }
    } else {
        *bad = false;
        return false;
    }
    *bad = false;
    return true;
}

bool PreparationScenario::isMountEvent(const qv::Json& event) {
    return event.is_object() && (event.contains("mount") || event.contains("unmount"));
}

bool PreparationScenario::readMountEvent(const qv::Json& event, const std::string& where,
                                         std::string* error) {
    MountEvent mountEvent;
    if (event.size() != 2 || !event.contains("at")) {
        failAt(error, where, "a mount event has \"at\" and one of \"mount\" or \"unmount\"");
        return false;
    }
    if (!readScenarioSeconds(event["at"], where + ".at", mountEvent.at, error)) {
        return false;
    }
    if (event.contains("unmount")) {
        mountEvent.mount = false;
        if (!readDiskName(event["unmount"], where + ".unmount", &mountEvent.disk, error)) {
            return false;
        }
    } else {
        const qv::Json& mount = event["mount"];
        if (!mount.is_object() || mount.size() != 2 || !mount.contains("disk") ||
            !mount.contains("path")) {
            failAt(error, where + ".mount", "must be {\"disk\": NAME, \"path\": PATH}");
            return false;
        }
        if (!readDiskName(mount["disk"], where + ".mount.disk", &mountEvent.disk, error) ||
            !readMountPoint(mount["path"], where + ".mount.path", &mountEvent.path, error)) {
            return false;
        }
    }
    // Later events of the same time stay after earlier ones.
    auto place = std::upper_bound(mountEvents.begin(), mountEvents.end(), mountEvent.at,
                                  [](double at, const MountEvent& other) { return at < other.at; });
    mountEvents.insert(place, std::move(mountEvent));
    return true;
}

}  // namespace qvdevice
