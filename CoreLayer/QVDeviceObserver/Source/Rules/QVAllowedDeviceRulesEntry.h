// QVAllowedDeviceRulesEntry: one rule of an allowed-device rules file, kept by the device record
// that the rule allowed, for the per-device settings it carries (display name, preferred data
// interface, whether to ask the device for its name).
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Foundation/Object.h"
#include "Foundation/Value.h"

class QVAllowedDeviceRulesEntry : public qv::Object {
  public:
    // initWithDict: / entryWithDict:
    explicit QVAllowedDeviceRulesEntry(qv::Value dict) : _dict(std::move(dict)) {}
    static std::shared_ptr<QVAllowedDeviceRulesEntry> entryWithDict(qv::Value dict);

    // "DeviceName" and "PreferredDataTransportInterfaceType" when they are strings; a value of
    // another type from a hand-written file is not a name and reads as nil.
    std::optional<std::string> deviceName() const;
    std::optional<std::string> preferredDataTransportInterfaceTypeStr() const;
    // YES when "FetchDeviceNameUsingCGMM" is present with a non-zero integer value.
    bool shouldFetchDeviceNameUsingCGMM() const;

    const qv::Value& dict() const { return _dict; }
    std::string description() const override { return _dict.description(); }

  private:
    qv::Value _dict;
};
