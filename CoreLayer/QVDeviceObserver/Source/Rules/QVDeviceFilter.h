// QVDeviceFilter: the rules of one allowed-device rules file and the questions the recognition
// code asks about a device: is it allowed (0 no rule names it, 1 named but not allowed or
// excluded, 2 allowed), do its rules need the device's reported details, is a generic device of
// the vendor excluded by a product-name pattern, may the vendor request a driver, and which
// applications to launch for it. Used on the framework's thread only.
//
// Rules are a property-list array of dictionaries, tested in order. Numbers in rules are read by
// integer value, so numeric strings work. A root that is not an array has no rules to walk, and
// members that are not dictionaries are passed over; nil, "" or an empty list means no rules at
// all, which allows every device.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Events/QVIODevice.h"
#include "Foundation/Object.h"
#include "Foundation/Value.h"
#include "Rules/QVDeviceFilterSubject.h"

class QVDevice;

class QVDeviceFilter : public qv::Object {
  public:
    using FilterList = std::vector<std::shared_ptr<QVDeviceFilter>>;

    static constexpr std::int32_t kNotNamed = 0;
    static constexpr std::int32_t kNotAllowed = 1;
    static constexpr std::int32_t kAllowed = 2;

    // The pass phrase of enciphered rules files.
    static constexpr const char* kRulesPassPhrase = "FrimbleJonks";

    // initWithAllowedDeviceRules:identifierOfApplicationToLaunch: / initWithAllowedDeviceRules:
    explicit QVDeviceFilter(qv::Value rules,
                            std::optional<std::string> identifierOfApplicationToLaunch = {});
    static std::shared_ptr<QVDeviceFilter> filterWithRules(
        qv::Value rules, std::optional<std::string> targetIdentifier);
    // initWithPathToAllowedDeviceRules: nullptr when nothing exists at the path; otherwise a
    // filter with the file's rules (nil when unreadable) named after the file less its extension.
    static std::shared_ptr<QVDeviceFilter> filterWithPathToAllowedDeviceRules(
        const std::string& path);
    // One filter per readable regular file whose extension is exactly "plist", in the order
    // the directory lists them; nothing when the path is not a directory.
    static std::optional<FilterList> filtersWithAllowedDeviceRulesInDirectory(
        const std::string& directory);
    static bool isPlist(const std::string& path);
    // The file's rules, deciphered when needed, or nil after logging the error line.
    static qv::Value tryToGetPropertyListFromContentsOfFile(const std::string& path);

    const qv::Value& allowedDeviceRules() const { return _allowedDevicesRules; }
    void setAllowedDeviceRules(qv::Value rules) { _allowedDevicesRules = std::move(rules); }
    const std::optional<std::string>& identifierOfApplicationToLaunch() const {
        return _identifierOfApplicationToLaunch;
    }
    bool acceptNotAllowedDevices() const { return _acceptNotAllowedDevices; }
    void setAcceptNotAllowedDevices(bool accept) { _acceptNotAllowedDevices = accept; }

    // What the tests read from a device record: the vendor and product IDs of a USB record, 0
    // for any other.
    static QVDeviceFilterSubject subjectForDevice(const QVDevice& device);

    // Each test takes the device record, or the few values it reads from one.
    std::int32_t isAllowedDevice(const QVDevice& device) const {
        return isAllowedDevice(subjectForDevice(device));
    }
    std::int32_t isAllowedDevice(const QVDevice& device, const qv::Value& details) const {
        return isAllowedDevice(subjectForDevice(device), details);
    }
    bool hasRuleWithDeviceDetails(const QVDevice& device) const {
        return hasRuleWithDeviceDetails(subjectForDevice(device));
    }
    std::int32_t isExcludedGenericDevice(const QVDevice& device) const {
        return isExcludedGenericDevice(subjectForDevice(device));
    }
    bool isExcludedDevice(const QVDevice& device, const std::string& pattern) const {
        return isExcludedDevice(subjectForDevice(device), pattern);
    }
    static std::vector<std::string> applicationsToLaunchForDevice(const QVDevice& device,
                                                                  const FilterList& filters) {
        return applicationsToLaunchForDevice(subjectForDevice(device), filters);
    }

    // The first rule that names and allows the device wins; a forbidding rule only stops a
    // later allowing rule from being needed.
    std::int32_t isAllowedDevice(const QVDeviceFilterSubject& device) const;
    // The same, then the reported "GTCode" and "ProductMarketingName" against every rule of the
    // device's model. A detail the device did not report compares as equal.
    std::int32_t isAllowedDevice(const QVDeviceFilterSubject& device,
                                 const qv::Value& details) const;
    bool hasRuleWithDeviceDetails(const QVDeviceFilterSubject& device) const;
    // 1 when a rule of the device's vendor has an "ExcludedModelNamePattern" matching its whole
    // product name, otherwise 2.
    std::int32_t isExcludedGenericDevice(const QVDeviceFilterSubject& device) const;
    // Whole-name, case-sensitive match; traced to the system log. A pattern that does not
    // compile, or whose match runs out of time, excludes nothing and is logged.
    bool isExcludedDevice(const QVDeviceFilterSubject& device, const std::string& pattern) const;
    bool allowesDriverRequest(std::int32_t vendorID) const;
    bool allowesDriverRequest(const QVIODevice& device) const {
        return allowesDriverRequest(device.vendorID());
    }

    // The identifiers of the filters that allow the device, in filter order. A filter made
    // without a file name has no identifier to give and adds nothing.
    static std::vector<std::string> applicationsToLaunchForDevice(
        const QVDeviceFilterSubject& device, const FilterList& filters);

  private:
    qv::Value _allowedDevicesRules;
    std::optional<std::string> _identifierOfApplicationToLaunch;
    bool _acceptNotAllowedDevices = false;
};
