#include "Rules/QVDeviceFilter.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "Foundation/BoundedFileReader.h"
#include "Foundation/Logging.h"
#include "Foundation/PropertyList.h"
#include "Foundation/Regex.h"
#include "Foundation/StringCompare.h"
#include "Model/QVDevice.h"
#include "Model/QVUSBDevice.h"
#include "Rules/Decryptor.h"
#include "Rules/NSData_Cipher.h"

namespace {

// Calls `visit` with each rule dictionary in order until it returns true; answers whether one did.
template <class Visit>
bool anyRule(const qv::Value& rules, Visit visit) {
    const qv::Array* list = rules.asArray();
    if (list == nullptr) {
        return false;
    }
    for (const qv::Value& rule : *list) {
        if (rule.isDictionary() && visit(rule)) {
            return true;
        }
    }
    return false;
}

// A key counts as given only with a present value: nil, "" or an empty collection is as good as
// no key at all ("QuorvelID": "" names every device, "Allowed": "" does not forbid).
bool has(const qv::Value& rule, const char* key) {
    return rule[key].isPresent();
}

std::int32_t intFor(const qv::Value& rule, const char* key) {
    return rule[key].intValue();
}

// A detail the device did not report compares as equal to anything.
bool detailEquals(const qv::Value& detail, const qv::Value& ruleValue) {
    return detail.isNil() ||
           qv::caseInsensitiveEqual(detail.stringValue(), ruleValue.stringValue());
}

// The whole file, or nothing when it cannot be read or is larger than any rules file the
// property-list reader would accept, enciphered or not. Only a regular file: a FIFO dropped
// among the rules must not stall the host's run loop.
std::optional<qv::Data> contentsOfFile(const std::string& path) {
    const std::optional<std::string> bytes =
        qv::readFileUpTo(path, encipheredSizeForLength(qv::kMaxPropertyListSize),
                         qv::FileKinds::RegularOnly, nullptr);
    if (!bytes) {
        return std::nullopt;
    }
    return qv::Data(bytes->begin(), bytes->end());
}

// The last path component less its extension ("/rules/com.example.Connect.plist" gives
// "com.example.Connect").
std::string identifierForPath(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return std::filesystem::path(path).filename().stem().string();
}

bool isReadableRegularFile(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::is_regular_file(path, error) && ::access(path.c_str(), R_OK) == 0;
}

}  // namespace

QVDeviceFilter::QVDeviceFilter(qv::Value rules,
                               std::optional<std::string> identifierOfApplicationToLaunch)
    : _allowedDevicesRules(std::move(rules)),
      _identifierOfApplicationToLaunch(std::move(identifierOfApplicationToLaunch)) {}

std::shared_ptr<QVDeviceFilter> QVDeviceFilter::filterWithRules(
    qv::Value rules, std::optional<std::string> targetIdentifier) {
    return std::make_shared<QVDeviceFilter>(std::move(rules), std::move(targetIdentifier));
}

std::shared_ptr<QVDeviceFilter> QVDeviceFilter::filterWithPathToAllowedDeviceRules(
    const std::string& path) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        return nullptr;
    }
    return std::make_shared<QVDeviceFilter>(tryToGetPropertyListFromContentsOfFile(path),
                                            identifierForPath(path));
}

std::optional<QVDeviceFilter::FilterList> QVDeviceFilter::filtersWithAllowedDeviceRulesInDirectory(
    const std::string& directory) {
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error)) {
        return std::nullopt;
    }
    FilterList filters;
    // Directory order, as the file system lists it. A directory that cannot be listed has no
    // rules files.
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::filesystem::path& path = entry->path();
        if (!isPlist(path.string()) || !isReadableRegularFile(path)) {
            continue;
        }
        if (auto filter = filterWithPathToAllowedDeviceRules(path.string())) {
            filters.push_back(std::move(filter));
        }
    }
    return filters;
}

bool QVDeviceFilter::isPlist(const std::string& path) {
    return std::filesystem::path(path).extension() == ".plist";
}

qv::Value QVDeviceFilter::tryToGetPropertyListFromContentsOfFile(const std::string& path) {
    std::optional<qv::Data> contents = contentsOfFile(path);
    qv::Value rules;
    if (contents.has_value()) {
        rules =
            Decryptor::decryptor()->decryptDataIfNeededAndGetPropList(*contents, kRulesPassPhrase);
    }
    if (rules.isNil()) {
        qv::logRecognition("Error: Could not convert rules file into property list: %@", path);
    }
    return rules;
}

QVDeviceFilterSubject QVDeviceFilter::subjectForDevice(const QVDevice& device) {
    QVDeviceFilterSubject subject;
    subject.quorvelID = device.quorvelID();
    if (const auto* usb = dynamic_cast<const QVUSBDevice*>(&device)) {
        subject.vendorID = usb->vendorID();
        subject.productID = usb->productID();
    }
    subject.productName = device.productName();
    subject.record = &device;
    return subject;
}

std::int32_t QVDeviceFilter::isAllowedDevice(const QVDeviceFilterSubject& device) const {
    if (_allowedDevicesRules.isAbsent()) {
        return kAllowed;
    }
    bool named = false;
    bool allowed = anyRule(_allowedDevicesRules, [&](const qv::Value& rule) {
        bool matches = !has(rule, "QuorvelID") || device.quorvelID == intFor(rule, "QuorvelID");
        if (has(rule, "VendorID")) {
            matches = matches && device.vendorID == intFor(rule, "VendorID");
        }
        if (has(rule, "ProductID")) {
            matches = matches && device.productID == intFor(rule, "ProductID");
        }
        named = named || matches;
        if (!_acceptNotAllowedDevices && has(rule, "Allowed") && intFor(rule, "Allowed") == 0) {
            matches = false;
        }
        return matches;
    });
    if (allowed) {
        return kAllowed;
    }
    return named ? kNotAllowed : kNotNamed;
}

std::int32_t QVDeviceFilter::isAllowedDevice(const QVDeviceFilterSubject& device,
                                             const qv::Value& details) const {
    if (_allowedDevicesRules.isAbsent()) {
        return kAllowed;
    }
    std::int32_t verdict = isAllowedDevice(device);
    if (verdict != kAllowed || details.isAbsent()) {
        return verdict;
    }
    bool ok = true;
    anyRule(_allowedDevicesRules, [&](const qv::Value& rule) {
        if (intFor(rule, "QuorvelID") != device.quorvelID) {
            return false;
        }
        if (has(rule, "GTCode")) {
            ok = ok && detailEquals(details["GTCode"], rule["GTCode"]);
        }
        if (has(rule, "ProductMarketingName")) {
            ok = ok && detailEquals(details["ProductMarketingName"], rule["ProductMarketingName"]);
        }
        if (has(rule, "ExcludedProductMarketingName")) {
            ok = ok && !detailEquals(details["ProductMarketingName"],
                                     rule["ExcludedProductMarketingName"]);
        }
        return false;
    });
    return ok ? kAllowed : kNotAllowed;
}

bool QVDeviceFilter::hasRuleWithDeviceDetails(const QVDeviceFilterSubject& device) const {
    return anyRule(_allowedDevicesRules, [&](const qv::Value& rule) {
        for (const char* key : {"ProductMarketingName", "ExcludedProductMarketingName", "GTCode"}) {
            if (has(rule, key) && intFor(rule, "QuorvelID") == device.quorvelID) {
                return true;
            }
        }
        return false;
    });
}

std::int32_t QVDeviceFilter::isExcludedGenericDevice(const QVDeviceFilterSubject& device) const {
    if (_allowedDevicesRules.isAbsent()) {
        return kAllowed;
    }
    bool ok = true;
    anyRule(_allowedDevicesRules, [&](const qv::Value& rule) {
        if (intFor(rule, "VendorID") != device.vendorID || !has(rule, "ExcludedModelNamePattern")) {
            return false;
        }
        const std::string* pattern = rule["ExcludedModelNamePattern"].asString();
        if (pattern == nullptr) {
            qv::logSystem("isExcludedDevice: the pattern %@ is not a string; it excludes nothing",
                          rule["ExcludedModelNamePattern"]);
            return false;
        }
        ok = ok && !isExcludedDevice(device, *pattern);
        return false;
    });
    return ok ? kAllowed : kNotAllowed;
}

bool QVDeviceFilter::isExcludedDevice(const QVDeviceFilterSubject& device,
                                      const std::string& pattern) const {
    bool matches = false;
    std::string error;
    auto regex = qv::Regex::compileCached(pattern, false, &error);
    if (!regex) {
        qv::logSystem("isExcludedDevice: the pattern %@ does not compile (%@); it excludes nothing",
                      pattern, error);
    } else if (device.productName.has_value()) {
        qv::Regex::Result result = regex->matchesWhole(*device.productName);
        if (result == qv::Regex::Result::Error) {
            // An exclusion that cannot be decided excludes: a name made to outlast the time
            // limit must not let through a device the rule is there to keep out.
            qv::logSystem(
                "isExcludedDevice: the pattern %@ could not be matched against %@ (time limit or "
                "invalid text); the device is excluded",
                pattern, *device.productName);
        }
        matches = result != qv::Regex::Result::NoMatch;
    }
    qv::logSystem(" isExcludedDevice: %@ dueToPattern: %@ matches %d", device.record, pattern,
                  matches ? 1 : 0);
    return matches;
}

bool QVDeviceFilter::allowesDriverRequest(std::int32_t vendorID) const {
    bool allowed = false;
    anyRule(_allowedDevicesRules, [&](const qv::Value& rule) {
        const std::string* request = rule["AllowesDriverRequest"].asString();
        if (intFor(rule, "VendorID") == vendorID && request != nullptr &&
            qv::caseInsensitiveEqual(*request, "YES")) {
            allowed = true;
        }
        return false;
    });
    return allowed;
}

std::vector<std::string> QVDeviceFilter::applicationsToLaunchForDevice(
    const QVDeviceFilterSubject& device, const FilterList& filters) {
    std::vector<std::string> identifiers;
    for (const auto& filter : filters) {
        if (filter && filter->identifierOfApplicationToLaunch().has_value() &&
            filter->isAllowedDevice(device) == kAllowed) {
            identifiers.push_back(*filter->identifierOfApplicationToLaunch());
        }
    }
    return identifiers;
}
