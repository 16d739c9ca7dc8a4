#include "UdevFeeder.h"

#include <glib-unix.h>
#include <libudev.h>

#include <algorithm>
#include <exception>
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

}  // namespace

UdevFeeder::UdevFeeder(Registry& registry) : registry_(registry) {}

UdevFeeder::~UdevFeeder() {
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
            add(device);
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

io_registry_entry_t UdevFeeder::handleFor(const std::string& sysPath) const {
    auto it = handles_.find(sysPath);
    return it == handles_.end() ? IO_OBJECT_NULL : it->second;
}

void UdevFeeder::apply(udev_device* device, const std::string& action) {
    if (action == "remove") {
        remove(text(udev_device_get_syspath(device)));
    } else if (action == "add" || action == "bind" || action == "change" || action == "unbind") {
        add(device);  // refreshes a known entry: an unbound interface loses its "Driver"
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

void UdevFeeder::add(udev_device* device) {
    std::string sysPath = text(udev_device_get_syspath(device));
    UdevDeviceFacts facts = factsOf(device);
    auto description = describeUdevDevice(facts);
    if (!description) {
        return;
    }
    if (io_registry_entry_t known = handleFor(sysPath)) {
        // Seen already (enumerated, then announced; or a driver bound): refresh what it shows.
        // A whole disk keeps the "Leaf" its partitions gave it.
        if (facts.subsystem == "block") {
            description->properties.asDictionary()->erase("Leaf");
        }
        if (description->className == "IOUSBInterface" && facts.driver.empty()) {
            description->properties.set("Driver", Value());  // nil removes it
        }
        registry_.setProperties(known, description->properties);
        return;
    }
    io_registry_entry_t parent = nearestKnownAncestor(sysPath);
    // Only USB devices hang at the top; their functions only below them.
    if (parent == IO_OBJECT_NULL && description->className != "IOUSBDevice") {
        return;
    }
    io_registry_entry_t handle = registry_.addEntry(parent, description->className,
                                                    description->name, description->properties);
    if (handle == IO_OBJECT_NULL) {
        return;
    }
    handles_[sysPath] = handle;
    if (facts.devtype == "partition" && description->className == "IOMedia") {
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
        it = registry_.isAttached(it->second) ? std::next(it) : handles_.erase(it);
    }
}

}  // namespace qv
