#include "UdevFeeder.h"

#include <glib-unix.h>
#include <libudev.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "Foundation/Logging.h"
#include "RunLoop/GLibRunLoop.h"
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

gboolean monitorReadable(gint /*fd*/, GIOCondition /*condition*/, gpointer feeder) {
    // GLib's C frames cannot carry an exception: the host loop has nobody to report it to.
    try {
        static_cast<UdevFeeder*>(feeder)->processPendingEvents();
    } catch (const std::exception& error) {
        logToSystemLog(std::string("Uncaught exception in the udev feeder: ") + error.what());
    }
    return G_SOURCE_CONTINUE;
}

// "bNumInterfaces" as sysfs shows it (" 3"): the count, or 0 when absent or malformed.
unsigned declaredInterfaces(const UdevDeviceFacts& facts) {
    auto it = facts.attributes.find("bNumInterfaces");
    if (it == facts.attributes.end()) {
        return 0;
    }
    std::string_view digits = it->second;
    while (!digits.empty() && (digits.front() == ' ' || digits.front() == '\t')) {
        digits.remove_prefix(1);
    }
    while (!digits.empty() && (digits.back() == ' ' || digits.back() == '\n')) {
        digits.remove_suffix(1);
    }
    if (digits.empty() || digits.size() > 3) {
        return 0;
    }
    unsigned count = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') {
            return 0;
        }
        count = count * 10 + static_cast<unsigned>(c - '0');
    }
    return count;
}

bool isBelow(const std::string& path, const std::string& ancestor) {
    return path.size() > ancestor.size() && path.compare(0, ancestor.size(), ancestor) == 0 &&
           path[ancestor.size()] == '/';
}

}  // namespace

UdevFeeder::UdevFeeder(Registry& registry) : registry_(registry) {}

UdevFeeder::~UdevFeeder() {
    for (auto& [path, device] : settling_) {
        if (device.timer) {
            device.timer->invalidate();
        }
    }
    if (watch_ != nullptr) {
        g_source_destroy(watch_);
        g_source_unref(watch_);
    }
    if (monitor_ != nullptr) {
        udev_monitor_unref(monitor_);
    }
    if (udev_ != nullptr) {
        udev_unref(udev_);
    }
}

void UdevFeeder::setSettleTimes(double quietTime, double longest) {
    quietTime_ = std::max(0.0, quietTime);
    longestSettle_ = std::max(quietTime_, longest);
}

bool UdevFeeder::start(bool monitor) {
    udev_ = udev_ != nullptr ? udev_ : udev_new();
    if (udev_ == nullptr) {
        return false;
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
        return false;
    }
    for (const char* subsystem : kSubsystems) {
        udev_enumerate_add_match_subsystem(enumerate, subsystem);
    }
    udev_enumerate_scan_devices(enumerate);
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
    return !monitor || monitoring;
}

bool UdevFeeder::watchOn(RunLoop& loop) {
    auto* glibLoop = dynamic_cast<GLibRunLoop*>(&loop);
    if (monitor_ == nullptr || glibLoop == nullptr || watch_ != nullptr) {
        return false;
    }
    loop_ = &loop;
    watch_ = g_unix_fd_source_new(udev_monitor_get_fd(monitor_), G_IO_IN);
    g_source_set_callback(watch_, G_SOURCE_FUNC(monitorReadable), this, nullptr);
    g_source_attach(watch_, glibLoop->context());
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
    // umockdev's testbed sends the monitor its events itself, with no daemon behind them.
    if (std::getenv("UMOCKDEV_DIR") != nullptr) {
        return true;
    }
    udev_queue* queue = udev_queue_new(udev_);
    bool active = queue != nullptr && udev_queue_get_udev_is_active(queue) != 0;
    if (queue != nullptr) {
        udev_queue_unref(queue);
    }
    return active;
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

UdevFeeder::SettlingDevice* UdevFeeder::settlingDeviceOf(const std::string& sysPath,
                                                         std::string* devicePath) {
    for (auto& [path, device] : settling_) {
        if (path == sysPath || isBelow(sysPath, path)) {
            *devicePath = path;
            return &device;
        }
    }
    return nullptr;
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
    std::string devicePath;
    if (SettlingDevice* settling = settlingDeviceOf(sysPath, &devicePath)) {
        settling->nodes[sysPath] = Node{facts, std::move(*description)};
        if (hasSettled(devicePath, *settling)) {
            publish(devicePath);
        } else {
            armSettleTimer(devicePath, *settling);
        }
        return;
    }
    // Every hot-plugged USB device settles, one behind a hub as much as one in a root port.
    if (hotPlug && loop_ != nullptr && description->className == "IOUSBDevice") {
        SettlingDevice& settling = settling_[sysPath];
        settling.declaredInterfaces = declaredInterfaces(facts);
        settling.firstEvent = loop_->now();
        settling.nodes[sysPath] = Node{facts, std::move(*description)};
        armSettleTimer(sysPath, settling);
        return;
    }
    addNow(sysPath, facts, std::move(*description));
}

bool UdevFeeder::hasSettled(const std::string& devicePath, const SettlingDevice& device) const {
    if (device.declaredInterfaces == 0) {
        return false;
    }
    unsigned bound = 0;
    for (const auto& [path, node] : device.nodes) {
        if (node.description.className != "IOUSBInterface" || parentSysPath(path) != devicePath) {
            continue;
        }
        if (node.facts.driver.empty()) {
            return false;
        }
        ++bound;
    }
    return bound >= device.declaredInterfaces;
}

void UdevFeeder::armSettleTimer(const std::string& devicePath, SettlingDevice& device) {
    if (device.timer) {
        device.timer->invalidate();
    }
    double now = loop_->now();
    double delay = std::min(quietTime_, device.firstEvent + longestSettle_ - now);
    std::weak_ptr<int> alive = lifetime_;
    device.timer =
        loop_->scheduleTimer(std::max(0.0, delay), false, [this, alive, devicePath](Timer&) {
            if (!alive.expired() && settling_.count(devicePath) != 0) {
                publish(devicePath);
            }
        });
}

void UdevFeeder::publish(const std::string& devicePath) {
    auto it = settling_.find(devicePath);
    if (it == settling_.end()) {
        return;
    }
    SettlingDevice device = std::move(it->second);
    settling_.erase(it);
    if (device.timer) {
        device.timer->invalidate();
    }
    // The map is in sysfs order: the device, then each interface followed by its functions.
    for (auto& [path, node] : device.nodes) {
        addNow(path, node.facts, std::move(node.description));
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
    std::string devicePath;
    if (SettlingDevice* settling = settlingDeviceOf(sysPath, &devicePath)) {
        // Gone before it was ever announced: nobody hears of it.
        if (devicePath == sysPath) {
            if (settling->timer) {
                settling->timer->invalidate();
            }
            settling_.erase(devicePath);
            return;
        }
        std::erase_if(settling->nodes, [&](const auto& node) {
            return node.first == sysPath || isBelow(node.first, sysPath);
        });
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
    for (auto& [path, device] : settling_) {
        if (device.timer) {
            device.timer->invalidate();
        }
    }
    settling_.clear();
    for (io_registry_entry_t device : registry_.entryChildren(registry_.root())) {
        if (paths_.count(device) != 0) {
            registry_.removeEntry(device);
        }
    }
    handles_.clear();
    paths_.clear();
}

}  // namespace qv
