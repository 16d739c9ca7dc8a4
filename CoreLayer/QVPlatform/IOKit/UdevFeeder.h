// qv::UdevFeeder: feeds a registry from this machine's devices through libudev. It adds the
// devices present at start, then follows the udev monitor ("udev" netlink events, after the rules
// ran) on a GLib run loop, adding, changing and removing entries as UdevMapping describes them.
// Like every feeder it only adds, changes and removes entries; the registry's notification ports
// deliver what that causes.
//
// Owned by the thread whose run loop it monitors on.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "Registry.h"
#include "RunLoop/RunLoop.h"

struct udev;
struct udev_device;
struct udev_monitor;
typedef struct _GSource GSource;

namespace qv {

class UdevFeeder {
  public:
    // Called after an entry was added (added = true) and just before one is removed.
    using EventObserver = std::function<void(bool added, io_registry_entry_t entry)>;

    explicit UdevFeeder(Registry& registry);
    ~UdevFeeder();
    UdevFeeder(const UdevFeeder&) = delete;
    UdevFeeder& operator=(const UdevFeeder&) = delete;

    // Opens the monitor first (so nothing plugged in meanwhile is lost), then adds every device
    // present now. With `monitor` false only the enumeration happens. False when udev or its
    // monitor is unavailable; the enumeration still happens when only the monitor failed.
    bool start(bool monitor = true);
    // Watches the monitor on `loop`, which must be a GLib run loop (the virtual one has no file
    // descriptors). False when there is no monitor or the loop is not a GLib one.
    bool watchOn(RunLoop& loop);
    // Applies every event waiting on the monitor now (what the loop's watch calls).
    void processPendingEvents();
    void setEventObserver(EventObserver observer) { observer_ = std::move(observer); }

    // The entry of a sysfs path, or IO_OBJECT_NULL while it is not present.
    io_registry_entry_t handleFor(const std::string& sysPath) const;

  private:
    void apply(udev_device* device, const std::string& action);
    void add(udev_device* device);
    void remove(const std::string& sysPath);
    io_registry_entry_t nearestKnownAncestor(const std::string& sysPath) const;

    Registry& registry_;
    struct udev* udev_ = nullptr;
    udev_monitor* monitor_ = nullptr;
    GSource* watch_ = nullptr;
    std::map<std::string, io_registry_entry_t> handles_;
    EventObserver observer_;
};

}  // namespace qv
