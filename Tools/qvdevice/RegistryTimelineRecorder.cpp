#include "RegistryTimelineRecorder.h"

#include <algorithm>
#include <cmath>

#include "IOKit/UdevMapping.h"
#include "IdentifierMasker.h"

namespace qvdevice {

namespace {

// Times to the microsecond, as the tools print them.
double roundedSeconds(double seconds) {
    return std::round(std::max(0.0, seconds) * 1e6) / 1e6;
}

}  // namespace

std::optional<USBDeviceID> USBDeviceID::parse(const std::string& text) {
    std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    auto vendor = qv::parseSysfsHex(std::string_view(text).substr(0, colon), 4);
    auto product = qv::parseSysfsHex(std::string_view(text).substr(colon + 1), 4);
    if (!vendor || !product) {
        return std::nullopt;
    }
    return USBDeviceID{*vendor, *product};
}

RegistryTimelineRecorder::RegistryTimelineRecorder(const qv::Registry& registry,
                                                   std::optional<USBDeviceID> only,
                                                   IdentifierMasker* masker)
    : registry_(registry), only_(only), masker_(masker) {}

bool RegistryTimelineRecorder::wanted(const View& device) const {
    if (device.className != "IOUSBDevice") {
        return false;
    }
    if (!only_) {
        return true;
    }
    const qv::Value& vendor = device.properties["idVendor"];
    const qv::Value& product = device.properties["idProduct"];
    return vendor.isInteger() && product.isInteger() &&
           vendor.integerValue() == static_cast<std::int64_t>(only_->vendor) &&
           product.integerValue() == static_cast<std::int64_t>(only_->product);
}

qv::Json RegistryTimelineRecorder::propertiesJson(const qv::Value& properties) {
    if (!properties.isDictionary()) {
        return qv::Json::object();
    }
    return qv::jsonFromValue(masker_ != nullptr ? masker_->maskValue(properties) : properties);
}

qv::Json RegistryTimelineRecorder::entryJson(const View& view, const std::string& id) {
    Known& known = known_[view.handle];
    known.id = id;
    known.className = view.className;
    known.properties = view.properties;
    known.children.clear();
    qv::Json entry = qv::Json::object();
    entry["id"] = id;
    entry["class"] = view.className;
    if (view.name != view.className) {
        entry["name"] = masker_ != nullptr ? masker_->maskText(view.name) : view.name;
    }
    entry["properties"] = propertiesJson(view.properties);
    if (!view.children.empty()) {
        qv::Json children = qv::Json::array();
        for (const View& child : view.children) {
            std::string childId = id + "." + std::to_string(known.nextChildNumber++);
            known.children.push_back(child.handle);
            // A std::map keeps `known` in place while the recursion adds entries.
            children.push_back(entryJson(child, childId));
        }
        entry["children"] = std::move(children);
    }
    return entry;
}

void RegistryTimelineRecorder::forget(io_registry_entry_t handle) {
    auto it = known_.find(handle);
    if (it == known_.end()) {
        return;
    }
    std::vector<io_registry_entry_t> children = std::move(it->second.children);
    known_.erase(it);
    for (io_registry_entry_t child : children) {
        forget(child);
    }
}

void RegistryTimelineRecorder::addEvent(double at, const char* kind, qv::Json body) {
    qv::Json event = qv::Json::object();
    event["at"] = roundedSeconds(at);
    event[kind] = std::move(body);
    timeline_.push_back(std::move(event));
}

void RegistryTimelineRecorder::compare(const View& view, double at) {
    Known& known = known_[view.handle];
    const std::string id = known.id;

    // Properties: what is new or different, and as null what disappeared (a driver unbound).
    qv::Value changed{qv::Dictionary{}};
    const qv::Dictionary* now = view.properties.asDictionary();
    if (now != nullptr) {
        for (const auto& [key, value] : *now) {
            const qv::Value& before = known.properties[key];
            if (!(before == value)) {
                changed.set(key, value);
            }
        }
    }
    if (const qv::Dictionary* before = known.properties.asDictionary()) {
        for (const auto& [key, value] : *before) {
            if (!value.isNil() && (now == nullptr || !now->contains(key))) {
                changed.set(key, qv::Value());
            }
        }
    }
    known.properties = view.properties;
    if (changed.count() > 0) {
        qv::Json body = qv::Json::object();
        body["id"] = id;
        body["properties"] = propertiesJson(changed);
        addEvent(at, "set", std::move(body));
    }

    std::vector<io_registry_entry_t> present;
    for (const View& child : view.children) {
        present.push_back(child.handle);
    }
    std::vector<io_registry_entry_t> children = known.children;
    std::vector<io_registry_entry_t> kept;
    for (io_registry_entry_t child : children) {
        if (std::find(present.begin(), present.end(), child) == present.end()) {
            addEvent(at, "remove", known_[child].id);
            forget(child);
        } else {
            kept.push_back(child);
        }
    }
    known_[view.handle].children = kept;
    for (const View& child : view.children) {
        if (known_.count(child.handle) != 0) {
            compare(child, at);
            continue;
        }
        Known& parent = known_[view.handle];
        std::string childId = id + "." + std::to_string(parent.nextChildNumber++);
        parent.children.push_back(child.handle);
        qv::Json body = qv::Json::object();
        body["parent"] = id;
        body["entry"] = entryJson(child, childId);
        addEvent(at, "add", std::move(body));
    }
}

void RegistryTimelineRecorder::record(double at) {
    View root = registry_.tree();
    std::vector<const View*> devices;
    for (const View& device : root.children) {
        if (wanted(device)) {
            devices.push_back(&device);
        }
    }
    // Gone first, so that a stick unplugged and plugged again reads in that order.
    for (auto it = top_.begin(); it != top_.end();) {
        bool present = std::any_of(devices.begin(), devices.end(),
                                   [&](const View* device) { return device->handle == *it; });
        if (present) {
            ++it;
            continue;
        }
        addEvent(at, "remove", known_[*it].id);
        forget(*it);
        it = top_.erase(it);
    }
    for (const View* device : devices) {
        if (known_.count(device->handle) != 0) {
            compare(*device, at);
            continue;
        }
        top_.push_back(device->handle);
        qv::Json body = qv::Json::object();
        body["parent"] = nullptr;
        body["entry"] = entryJson(*device, "usb" + std::to_string(nextDeviceNumber_++));
        addEvent(at, "add", std::move(body));
    }
}

std::map<std::string, std::string> RegistryTimelineRecorder::presentKernelNames() const {
    std::map<std::string, std::string> names;
    for (const auto& [handle, known] : known_) {
        for (const char* key : {"BSD Name", "IOTTYDevice"}) {
            if (const std::string* name = known.properties[key].asString()) {
                names[*name] = known.className;
            }
        }
    }
    return names;
}

}  // namespace qvdevice
