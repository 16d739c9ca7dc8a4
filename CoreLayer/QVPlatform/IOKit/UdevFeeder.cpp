#include "UdevFeeder.h"

#include <libudev.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "Foundation/Logging.h"
#include "UdevMapping.h"

namespace qv {

namespace {

const char* const kSubsystems[] = {"usb", "tty", "net", "block"};

std::string text(const char* value) {
    return value == nullptr ? std::string() : value;
}

UdevDeviceFacts factsOf(udev_device* device) {
    UdevDeviceFacts facts;
    facts.subsystem = text(udev_device_get_subsystem(device));
    facts.devtype = text(udev_device_get_devtype(device));
    facts.sysname = text(udev_device_get_sysname(device));
    facts.driver = text(udev_device_get_driver(device));
    if (facts.subsystem == "usb") {
        for (const char* const* name = kUdevMappedAttributes; *name != nullptr; ++name) {
            if (const char* value = udev_device_get_sysattr_value(device, *name)) {
                facts.attributes.emplace(*name, value);
            }
        }
        return facts;
    }
    for (const char* const* name = kUdevMappedProperties; *name != nullptr; ++name) {
        if (const char* value = udev_device_get_property_value(device, *name)) {
            facts.properties.emplace(*name, value);
        }
    }
    // The parent belongs to the device; it is not released here.
    if (udev_device* interface =
            udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_interface")) {
        facts.interfaceDriver = text(udev_device_get_driver(interface));
    }
    return facts;
}

std::mutex gUdevRunningMutex;
std::function<bool()> gUdevRunningCheck;

}  // namespace

UdevFeeder::UdevFeeder(Registry& registry) : registry_(registry) {}

UdevFeeder::~UdevFeeder() {
    settle_.reset();
    watch_.reset();
    if (monitor_ != nullptr) {
        udev_monitor_unref(monitor_);
    }
    if (udev_ != nullptr) {
        udev_unref(udev_);
    }
}

const char* UdevFeeder::describe(StartResult result) {
    switch (result) {
        case StartResult::Started:
            return "";
        case StartResult::NoUdev:
            return "udev could not be opened";
        case StartResult::EnumerationFailed:
            return "the udev device enumeration failed";
        case StartResult::MonitorFailed:
            return "the udev monitor could not be opened";
    }
    return "";
}

void UdevFeeder::setSettleTimes(double quietTime, double longest) {
    quietTime_ = std::max(0.0, quietTime);
    longestSettle_ = std::max(quietTime_, longest);
    if (settle_) {
        settle_->setTimes(quietTime_, longestSettle_);
    }
}

UdevFeeder::StartResult UdevFeeder::start(bool monitor) {
    udev_ = udev_ != nullptr ? udev_ : udev_new();
    if (udev_ == nullptr) {
        return StartResult::NoUdev;
    }
    bool monitoring = false;
    if (monitor && monitor_ == nullptr) {
        monitor_ = udev_monitor_new_from_netlink(udev_, "udev");
        if (monitor_ != nullptr) {
            for (const char* subsystem : kSubsystems) {
                udev_monitor_filter_add_match_subsystem_devtype(monitor_, subsystem, nullptr);
            }
            if (udev_monitor_enable_receiving(monitor_) < 0) {
                udev_monitor_unref(monitor_);
                monitor_ = nullptr;
            }
        }
        monitoring = monitor_ != nullptr;
    }

    udev_enumerate* enumerate = udev_enumerate_new(udev_);
    if (enumerate == nullptr) {
        return StartResult::EnumerationFailed;
    }
    for (const char* subsystem : kSubsystems) {
        udev_enumerate_add_match_subsystem(enumerate, subsystem);
    }
    if (udev_enumerate_scan_devices(enumerate) < 0) {
        udev_enumerate_unref(enumerate);
        return StartResult::EnumerationFailed;
    }
    std::vector<std::string> paths;
    udev_list_entry* item = nullptr;
    udev_list_entry_foreach(item, udev_enumerate_get_list_entry(enumerate)) {
        paths.push_back(text(udev_list_entry_get_name(item)));
    }
    udev_enumerate_unref(enumerate);
    // Parents before children, interfaces in number order.
    std::sort(paths.begin(), paths.end(), sysPathOrderLess);
    for (const auto& path : paths) {
        if (udev_device* device = udev_device_new_from_syspath(udev_, path.c_str())) {
            add(device, false);
            udev_device_unref(device);
        }
    }
    return !monitor || monitoring ? StartResult::Started : StartResult::MonitorFailed;
}

bool UdevFeeder::watchOn(RunLoop& loop) {
    if (monitor_ == nullptr || watch_ != nullptr) {
        return false;
    }
    watch_ = loop.watchReadable(udev_monitor_get_fd(monitor_), [this]() {
        // The host loop has nobody to report a failure to.
        try {
            processPendingEvents();
        } catch (const std::exception& error) {
            logToSystemLog(std::string("Uncaught exception in the udev feeder: ") + error.what());
        }
    });
    if (!watch_) {
        return false;
    }
    settle_ = std::make_unique<UsbSettleRule>(
        loop, [this](std::vector<UsbSettleRule::Node> nodes) { publish(std::move(nodes)); });
    settle_->setTimes(quietTime_, longestSettle_);
    return true;
}

void UdevFeeder::processPendingEvents() {
    if (monitor_ == nullptr) {
        return;
    }
    // The monitor's socket does not block: this ends when nothing more is waiting.
    while (udev_device* device = udev_monitor_receive_device(monitor_)) {
        apply(device, text(udev_device_get_action(device)));
        udev_device_unref(device);
    }
}

bool UdevFeeder::isUdevRunning() const {
    if (udev_ == nullptr) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(gUdevRunningMutex);
        if (gUdevRunningCheck) {
            return gUdevRunningCheck();
        }
    }
    udev_queue* queue = udev_queue_new(udev_);
    bool active = queue != nullptr && udev_queue_get_udev_is_active(queue) != 0;
    if (queue != nullptr) {
        udev_queue_unref(queue);
    }
    return active;
}

void UdevFeeder::setUdevRunningCheck(std::function<bool()> check) {
    std::lock_guard<std::mutex> lock(gUdevRunningMutex);
    gUdevRunningCheck = std::move(check);
}

io_registry_entry_t UdevFeeder::handleFor(const std::string& sysPath) const {
    auto it = handles_.find(sysPath);
    return it == handles_.end() ? IO_OBJECT_NULL : it->second;
}

void UdevFeeder::apply(udev_device* device, const std::string& action) {
    if (action == "remove") {
        remove(text(udev_device_get_syspath(device)));
    } else if (action == "add" || action == "bind" || action == "change" || action == "unbind") {
        add(device, true);  // refreshes a known entry: an unbound interface loses its "Driver"
    }
}

io_registry_entry_t UdevFeeder::nearestKnownAncestor(const std::string& sysPath) const {
    for (std::string path = parentSysPath(sysPath); !path.empty(); path = parentSysPath(path)) {
        if (io_registry_entry_t handle = handleFor(path)) {
            return handle;
        }
    }
    return IO_OBJECT_NULL;
}

io_registry_entry_t UdevFeeder::siblingAfter(io_registry_entry_t parent,
                                             const std::string& sysPath) const {
    for (io_registry_entry_t child : registry_.entryChildren(parent)) {
        auto it = paths_.find(child);
        if (it != paths_.end() && sysPathOrderLess(sysPath, it->second)) {
            return child;
        }
    }
    return IO_OBJECT_NULL;
}

void UdevFeeder::makeLocationIDUnique(Value& properties) const {
    const Value& location = properties["locationID"];
    if (!location.isNumber()) {
        return;
    }
    std::set<std::int64_t> taken;
    for (io_registry_entry_t device : registry_.entryChildren(registry_.root())) {
        if (const Value* other = registry_.entryProperties(device)) {
            if ((*other)["locationID"].isNumber()) {
                taken.insert((*other)["locationID"].integerValue());
            }
        }
    }
    std::int64_t value = location.integerValue();
    // Keep the bus byte; walk the low 24 bits, skipping 0 so the result is never the bus alone.
    const std::int64_t bus = value & 0xFF000000;
    std::int64_t low = value & 0xFFFFFF;
    while (taken.count(bus | low) != 0) {
        low = (low + 1) & 0xFFFFFF;
        low = low == 0 ? 1 : low;
    }
    properties.set("locationID", Value::integer(bus | low));
}

bool UdevFeeder::refreshKnown(const std::string& sysPath, const UdevDeviceFacts& facts,
                              RegistryEntryDescription description) {
    io_registry_entry_t known = handleFor(sysPath);
    if (known == IO_OBJECT_NULL) {
        return false;
    }
    // Seen already (enumerated, then announced; or a driver bound): refresh what it shows.
    // A whole disk keeps the "Leaf" its partitions gave it; a device keeps its location.
    if (facts.subsystem == "block") {
        description.properties.asDictionary()->erase("Leaf");
    }
    if (description.className == "IOUSBDevice") {
        description.properties.asDictionary()->erase("locationID");
    }
    if (description.className == "IOUSBInterface" && facts.driver.empty()) {
        description.properties.set("Driver", Value());  // nil removes it
        description.properties.set("CFBundleIdentifier", Value());
    }
    registry_.setProperties(known, description.properties);
    return true;
}

void UdevFeeder::add(udev_device* device, bool hotPlug) {
    std::string sysPath = text(udev_device_get_syspath(device));
    UdevDeviceFacts facts = factsOf(device);
    auto description = describeUdevDevice(facts);
    if (!description) {
        return;
    }
    if (refreshKnown(sysPath, facts, *description)) {
        return;
    }
    if (settle_ && settle_->offer(sysPath, facts, hotPlug)) {
        return;
    }
    addNow(sysPath, facts, std::move(*description));
}

void UdevFeeder::publish(std::vector<UsbSettleRule::Node> nodes) {
    // The device, then each interface followed by its functions.
    for (auto& node : nodes) {
        if (auto description = describeUdevDevice(node.facts)) {
            addNow(node.sysPath, node.facts, std::move(*description));
        }
    }
}

void UdevFeeder::addNow(const std::string& sysPath, const UdevDeviceFacts& facts,
                        RegistryEntryDescription description) {
    io_registry_entry_t parent = nearestKnownAncestor(sysPath);
    // Only USB devices hang at the top; their functions only below them.
    if (parent == IO_OBJECT_NULL && description.className != "IOUSBDevice") {
        return;
    }
    if (description.className == "IOUSBDevice") {
        makeLocationIDUnique(description.properties);
    }
    io_registry_entry_t before =
        siblingAfter(parent == IO_OBJECT_NULL ? registry_.root() : parent, sysPath);
    io_registry_entry_t handle = registry_.addEntry(parent, description.className, description.name,
                                                    description.properties, before);
    if (handle == IO_OBJECT_NULL) {
        return;
    }
    handles_[sysPath] = handle;
    paths_[handle] = sysPath;
    if (facts.devtype == "partition" && description.className == "IOMedia") {
        const std::string* parentClass = registry_.entryClass(parent);
        if (parentClass != nullptr && *parentClass == "IOMedia") {
            Value leaf{Dictionary{}};
            leaf.set("Leaf", false);
            registry_.setProperties(parent, leaf);
        }
    }
    if (observer_) {
        observer_(true, handle);
    }
}

void UdevFeeder::remove(const std::string& sysPath) {
    // Gone before it was ever announced: nobody hears of it.
    if (settle_ && settle_->remove(sysPath)) {
        return;
    }
    io_registry_entry_t handle = handleFor(sysPath);
    if (handle == IO_OBJECT_NULL) {
        return;
    }
    if (observer_) {
        observer_(false, handle);
    }
    registry_.removeEntry(handle);
    // Forget every path whose entry left the tree with it.
    for (auto it = handles_.begin(); it != handles_.end();) {
        if (registry_.isAttached(it->second)) {
            ++it;
        } else {
            paths_.erase(it->second);
            it = handles_.erase(it);
        }
    }
}

void UdevFeeder::removeAll() {
    if (settle_) {
        settle_->clear();
    }
    for (io_registry_entry_t device : registry_.entryChildren(registry_.root())) {
        if (paths_.count(device) != 0) {
            registry_.removeEntry(device);
        }
    }
    handles_.clear();
    paths_.clear();
}

}  // namespace qv
