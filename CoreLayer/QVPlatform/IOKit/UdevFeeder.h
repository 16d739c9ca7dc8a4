// qv::UdevFeeder: feeds a registry from this machine's devices through libudev. It adds the
// devices present at start, then follows the udev monitor ("udev" netlink events, after the rules
// ran) on a GLib run loop, adding, changing and removing entries as UdevMapping describes them.
// Like every feeder it only adds, changes and removes entries; the registry's notification ports
// deliver what that causes.
//
// Settling. udev handles the interfaces of a new USB device in parallel, so their events come in
// any order and over some milliseconds. A snapshot taken in between would show a partial port list
// with later ports shifted into earlier positions, and "ByPortNumber" picks ports by position. So
// a hot-plugged USB device is held back, with everything that appears below it, until it has
// settled: every interface it declares ("bNumInterfaces") is present and bound to a driver, or no
// event touched it for the quiet time, or the longest wait ran out. Then the device and its
// functions enter the registry at once, in interface-number order, and the device's matching
// notification follows. Devices present at start are complete already and enter at once.
// Whatever appears later below a published device is inserted at its place in that order.
//
// Owned by the thread whose run loop it monitors on.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Registry.h"
#include "RunLoop/RunLoop.h"
#include "UdevMapping.h"

struct udev;
struct udev_device;
struct udev_monitor;
typedef struct _GSource GSource;

namespace qv {

class UdevFeeder {
  public:
    // Called after an entry was added (added = true) and just before one is removed.
    using EventObserver = std::function<void(bool added, io_registry_entry_t entry)>;

    // Seconds without an event after which a device that is not fully bound counts as settled,
    // and the longest a device is ever held back.
    static constexpr double kDefaultQuietTime = 0.25;
    static constexpr double kDefaultLongestSettle = 3.0;

    explicit UdevFeeder(Registry& registry);
    ~UdevFeeder();
    UdevFeeder(const UdevFeeder&) = delete;
    UdevFeeder& operator=(const UdevFeeder&) = delete;

    // Opens the monitor first (so nothing plugged in meanwhile is lost), then adds every device
    // present now. With `monitor` false only the enumeration happens. False when udev or its
    // monitor is unavailable; the enumeration still happens when only the monitor failed.
    bool start(bool monitor = true);
    // Watches the monitor on `loop`, which must be a GLib run loop (the virtual one has no file
    // descriptors); the settle timers run there too. False when there is no monitor or the loop
    // is not a GLib one.
    bool watchOn(RunLoop& loop);
    // Applies every event waiting on the monitor now (what the loop's watch calls). Without a
    // loop to time the quiet period on, devices are published as soon as they appear.
    void processPendingEvents();
    void setEventObserver(EventObserver observer) { observer_ = std::move(observer); }
    void setSettleTimes(double quietTime, double longest);

    // Removes every entry the feeder added and forgets devices still settling, so that a later
    // feeder on the same registry starts from a clean tree.
    void removeAll();

    // The entry of a sysfs path, or IO_OBJECT_NULL while it is not present (or still settling).
    io_registry_entry_t handleFor(const std::string& sysPath) const;
    // Whether libudev could be opened at all (start() says whether hot-plug is followed).
    bool hasUdev() const { return udev_ != nullptr; }
    // Whether the udev daemon runs: without it the monitor opens but never hears an event.
    bool isUdevRunning() const;
    // Hot-plugged USB devices not published yet.
    std::size_t settlingDeviceCount() const { return settling_.size(); }

  private:
    struct Node {
        UdevDeviceFacts facts;
        RegistryEntryDescription description;
    };
    struct SysPathLess {
        bool operator()(const std::string& a, const std::string& b) const {
            return sysPathOrderLess(a, b);
        }
    };
    struct SettlingDevice {
        std::map<std::string, Node, SysPathLess> nodes;  // the device itself and what is below
        unsigned declaredInterfaces = 0;                 // 0: the device did not say
        double firstEvent = 0.0;
        std::shared_ptr<Timer> timer;
    };

    void apply(udev_device* device, const std::string& action);
    void add(udev_device* device, bool hotPlug);
    void addNow(const std::string& sysPath, const UdevDeviceFacts& facts,
                RegistryEntryDescription description);
    void remove(const std::string& sysPath);
    bool refreshKnown(const std::string& sysPath, const UdevDeviceFacts& facts,
                      RegistryEntryDescription description);
    SettlingDevice* settlingDeviceOf(const std::string& sysPath, std::string* devicePath);
    bool hasSettled(const std::string& devicePath, const SettlingDevice& device) const;
    void armSettleTimer(const std::string& devicePath, SettlingDevice& device);
    void publish(const std::string& devicePath);
    io_registry_entry_t nearestKnownAncestor(const std::string& sysPath) const;
    io_registry_entry_t siblingAfter(io_registry_entry_t parent, const std::string& sysPath) const;
    void makeLocationIDUnique(Value& properties) const;

    Registry& registry_;
    struct udev* udev_ = nullptr;
    udev_monitor* monitor_ = nullptr;
    GSource* watch_ = nullptr;
    RunLoop* loop_ = nullptr;
    double quietTime_ = kDefaultQuietTime;
    double longestSettle_ = kDefaultLongestSettle;
    std::map<std::string, io_registry_entry_t> handles_;
    std::map<io_registry_entry_t, std::string> paths_;
    std::map<std::string, SettlingDevice, SysPathLess> settling_;
    EventObserver observer_;
    std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
};

}  // namespace qv
