#include "RegistryMatchingIndex.h"

#include <algorithm>
#include <cmath>

#include "Registry.h"
#include "RegistryNotificationPort.h"

namespace qv {

namespace {

constexpr const char* kVendorKey = "idVendor";
constexpr const char* kProductKey = "idProduct";

// Numbers match across integer, real and boolean by value; the key is that value when it is a
// whole number that a double holds exactly. Anything else has no key.
std::optional<long long> numberKey(const Value& value) {
    if (!value.isNumber()) {
        return std::nullopt;
    }
    if (!value.isReal()) {
        return static_cast<long long>(value.integerValue());
    }
    const double d = value.doubleValue();
    if (!(std::fabs(d) < 9.0e15) || d != std::trunc(d)) {
        return std::nullopt;
    }
    return static_cast<long long>(d);
}

}  // namespace

std::optional<RegistryMatchingIndex::ProductKey> RegistryMatchingIndex::productKeyOfMatching(
    const Value& matching) {
    const Dictionary* dict = matching.asDictionary();
    if (dict == nullptr) {
        return std::nullopt;
    }
    const Value* vendor = dict->find(kVendorKey);
    const Value* product = dict->find(kProductKey);
    if (vendor == nullptr || product == nullptr) {
        return std::nullopt;
    }
    auto v = numberKey(*vendor);
    auto p = numberKey(*product);
    if (!v || !p) {
        return std::nullopt;
    }
    return ProductKey{*v, *p};
}

RegistryMatchingIndex::EntryProductKey RegistryMatchingIndex::productKeyOfEntry(
    const Value& properties) {
    const Dictionary* dict = properties.asDictionary();
    const Value* vendor = dict ? dict->find(kVendorKey) : nullptr;
    const Value* product = dict ? dict->find(kProductKey) : nullptr;
    // Without both it equals no wanted pair of numbers.
    if (vendor == nullptr || product == nullptr || vendor->isNil() || product->isNil()) {
        return {};
    }
    auto v = numberKey(*vendor);
    auto p = numberKey(*product);
    if (!v || !p) {
        return {EntryProduct::Odd, {}};
    }
    return {EntryProduct::Keyed, {*v, *p}};
}

const std::string* RegistryMatchingIndex::nameOfMatching(const Value& matching) {
    const Dictionary* dict = matching.asDictionary();
    const Value* name = dict ? dict->find(kIONameMatchKey) : nullptr;
    return name ? name->asString() : nullptr;
}

const std::string* RegistryMatchingIndex::classOfMatching(const Value& matching) {
    const Dictionary* dict = matching.asDictionary();
    const Value* cls = dict ? dict->find(kIOProviderClassKey) : nullptr;
    return cls ? cls->asString() : nullptr;
}

// ---- entries ----

void RegistryMatchingIndex::addEntry(io_registry_entry_t entry, const std::string& className,
                                     const std::string& name, const Value& properties) {
    EntryProductKey product = productKeyOfEntry(properties);
    if (product.kind == EntryProduct::Keyed) {
        entriesByProduct_[product.key].insert(entry);
    } else if (product.kind == EntryProduct::Odd) {
        entriesWithOddProduct_.insert(entry);
    }
    entriesByName_[name].insert(entry);
    entriesByClass_[className].insert(entry);
}

void RegistryMatchingIndex::removeEntry(io_registry_entry_t entry, const std::string& className,
                                        const std::string& name, const Value& properties) {
    EntryProductKey product = productKeyOfEntry(properties);
    if (product.kind == EntryProduct::Keyed) {
        auto it = entriesByProduct_.find(product.key);
        if (it != entriesByProduct_.end() && it->second.erase(entry) > 0 && it->second.empty()) {
            entriesByProduct_.erase(it);
        }
    } else if (product.kind == EntryProduct::Odd) {
        entriesWithOddProduct_.erase(entry);
    }
    if (auto it = entriesByName_.find(name); it != entriesByName_.end()) {
        it->second.erase(entry);
        if (it->second.empty()) {
            entriesByName_.erase(it);
        }
    }
    if (auto it = entriesByClass_.find(className); it != entriesByClass_.end()) {
        it->second.erase(entry);
        if (it->second.empty()) {
            entriesByClass_.erase(it);
        }
    }
}

std::optional<std::vector<io_registry_entry_t>> RegistryMatchingIndex::entryCandidates(
    const Value& matching) const {
    std::vector<io_registry_entry_t> out;
    if (auto key = productKeyOfMatching(matching)) {
        if (auto it = entriesByProduct_.find(*key); it != entriesByProduct_.end()) {
            out.assign(it->second.begin(), it->second.end());
        }
        out.insert(out.end(), entriesWithOddProduct_.begin(), entriesWithOddProduct_.end());
        return out;
    }
    if (const std::string* name = nameOfMatching(matching)) {
        if (auto it = entriesByName_.find(*name); it != entriesByName_.end()) {
            out.assign(it->second.begin(), it->second.end());
        }
        return out;
    }
    if (const std::string* cls = classOfMatching(matching)) {
        for (const auto& [className, entries] : entriesByClass_) {
            if (registry_.classConformsTo(className, *cls)) {
                out.insert(out.end(), entries.begin(), entries.end());
            }
        }
        return out;
    }
    return std::nullopt;
}

// ---- notifications ----

void RegistryMatchingIndex::addNotification(qvRegistryNotification* notification) {
    const Value& matching = notification->matching;
    if (auto key = productKeyOfMatching(matching)) {
        notificationsByProduct_[*key].push_back(notification);
    } else if (const std::string* name = nameOfMatching(matching)) {
        notificationsByName_[*name].push_back(notification);
    } else if (const std::string* cls = classOfMatching(matching)) {
        notificationsByClass_[*cls].push_back(notification);
    } else {
        generalNotifications_.push_back(notification);
    }
}

template <class Map>
void RegistryMatchingIndex::eraseFrom(Map& map, const typename Map::key_type& key,
                                      qvRegistryNotification* notification) {
    auto it = map.find(key);
    if (it == map.end()) {
        return;
    }
    std::erase(it->second, notification);
    if (it->second.empty()) {
        map.erase(it);
    }
}

void RegistryMatchingIndex::removeNotification(qvRegistryNotification* notification) {
    const Value& matching = notification->matching;
    if (auto key = productKeyOfMatching(matching)) {
        eraseFrom(notificationsByProduct_, *key, notification);
    } else if (const std::string* name = nameOfMatching(matching)) {
        eraseFrom(notificationsByName_, *name, notification);
    } else if (const std::string* cls = classOfMatching(matching)) {
        eraseFrom(notificationsByClass_, *cls, notification);
    } else {
        std::erase(generalNotifications_, notification);
    }
}

void RegistryMatchingIndex::notificationCandidates(
    const std::string& className, const std::string& name, const Value& properties,
    std::vector<qvRegistryNotification*>& out) const {
    EntryProductKey product = productKeyOfEntry(properties);
    if (product.kind == EntryProduct::Keyed) {
        if (auto it = notificationsByProduct_.find(product.key);
            it != notificationsByProduct_.end()) {
            out.insert(out.end(), it->second.begin(), it->second.end());
        }
    } else if (product.kind == EntryProduct::Odd) {
        for (const auto& [key, list] : notificationsByProduct_) {
            out.insert(out.end(), list.begin(), list.end());
        }
    }
    if (auto it = notificationsByName_.find(name); it != notificationsByName_.end()) {
        out.insert(out.end(), it->second.begin(), it->second.end());
    }
    for (const auto& [cls, list] : notificationsByClass_) {
        if (registry_.classConformsTo(className, cls)) {
            out.insert(out.end(), list.begin(), list.end());
        }
    }
    out.insert(out.end(), generalNotifications_.begin(), generalNotifications_.end());
}

}  // namespace qv
