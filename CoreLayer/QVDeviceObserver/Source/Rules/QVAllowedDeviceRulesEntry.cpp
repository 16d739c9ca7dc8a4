#include "Rules/QVAllowedDeviceRulesEntry.h"

namespace {

std::optional<std::string> stringForKey(const qv::Value& dict, const char* key) {
    const std::string* text = dict[key].asString();
    if (text == nullptr) {
        return std::nullopt;
    }
    return *text;
}

}  // namespace

std::shared_ptr<QVAllowedDeviceRulesEntry> QVAllowedDeviceRulesEntry::entryWithDict(
    qv::Value dict) {
    return std::make_shared<QVAllowedDeviceRulesEntry>(std::move(dict));
}

std::optional<std::string> QVAllowedDeviceRulesEntry::deviceName() const {
    return stringForKey(_dict, "DeviceName");
}

std::optional<std::string> QVAllowedDeviceRulesEntry::preferredDataTransportInterfaceTypeStr()
    const {
    return stringForKey(_dict, "PreferredDataTransportInterfaceType");
}

bool QVAllowedDeviceRulesEntry::shouldFetchDeviceNameUsingCGMM() const {
    const qv::Value& fetch = _dict["FetchDeviceNameUsingCGMM"];
    return !fetch.isNil() && fetch.intValue() != 0;
}
