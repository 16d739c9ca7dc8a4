// qv::UdevFeeder: feeds a registry from this machine's devices through libudev. It adds the
// devices present at start, then follows the udev monitor ("udev" netlink events, after the rules
// ran) on a GLib run loop, adding, changing and removing entries as UdevMapping describes them.
// Like every feeder it only adds, changes and removes entries; the registry's notification ports
// deliver what that causes.
//
// A hot-plugged USB device is held back with everything that appears below it until it has
// settled (UsbSettleRule says when), then enters the registry at once, in interface-number order,
// and the device's matching notification follows. Devices present at start are complete already
// and enter at once. Whatever appears later below a published device is inserted at its place in
// that order.
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
#include "UsbSettleRule.h"

struct udev;
struct udev_device;
struct udev_monitor;

namespace qv {

class UdevFeeder {
  public:
    // Called after an entry was added (added = true) and just before one is removed.
    using EventObserver = std::function<void(bool added, io_registry_entry_t entry)>;

    static constexpr double kDefaultQuietTime = UsbSettleRule::kDefaultQuietTime;
    static constexpr double kDefaultLongestSettle = UsbSettleRule::kDefaultLongestSettle;

    // What start() managed. On EnumerationFailed the monitor, when asked for, may still be open
    // (watchOn() says); on MonitorFailed the devices present now were added.
    enum class StartResult { Started, NoUdev, EnumerationFailed, MonitorFailed };
    // The failure in words ("the udev monitor could not be opened"); empty for Started.
    static const char* describe(StartResult result);

    explicit UdevFeeder(Registry& registry);
    ~UdevFeeder();
    UdevFeeder(const UdevFeeder&) = delete;
    UdevFeeder& operator=(const UdevFeeder&) = delete;

    // Opens the monitor first (so nothing plugged in meanwhile is lost), then adds every device
    // present now. With `monitor` false only the enumeration happens.
    StartResult start(bool monitor = true);
    // Watches the monitor's descriptor on `loop`; the settle timers run there too. False when
    // there is no monitor or it is watched already.
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
    // Whether the udev daemon runs: without it the monitor opens but never hears an event. Asks
    // udev's queue (whether the daemon's control socket exists) unless a check is installed.
    bool isUdevRunning() const;
    // Installs a process-wide answer for isUdevRunning(): tests on a fake sysfs, where umockdev
    // sends the monitor its events itself with no daemon behind them. Empty restores udev's own.
    static void setUdevRunningCheck(std::function<bool()> check);
    // Hot-plugged USB devices not published yet.
    std::size_t settlingDeviceCount() const { return settle_ ? settle_->settlingCount() : 0; }

  private:
    void apply(udev_device* device, const std::string& action);
    void add(udev_device* device, bool hotPlug);
    void addNow(const std::string& sysPath, const UdevDeviceFacts& facts,
                RegistryEntryDescription description);
    void publish(std::vector<UsbSettleRule::Node> nodes);
    void remove(const std::string& sysPath);
    bool refreshKnown(const std::string& sysPath, const UdevDeviceFacts& facts,
                      RegistryEntryDescription description);
    io_registry_entry_t nearestKnownAncestor(const std::string& sysPath) const;
    io_registry_entry_t siblingAfter(io_registry_entry_t parent, const std::string& sysPath) const;
    void makeLocationIDUnique(Value& properties) const;

    Registry& registry_;
    struct udev* udev_ = nullptr;
    udev_monitor* monitor_ = nullptr;
    double quietTime_ = kDefaultQuietTime;
    double longestSettle_ = kDefaultLongestSettle;
    std::unique_ptr<UsbSettleRule> settle_;  // made by watchOn(): settling needs a loop's timers
    std::unique_ptr<FileDescriptorWatch> watch_;
    std::map<std::string, io_registry_entry_t> handles_;
    std::map<io_registry_entry_t, std::string> paths_;
    EventObserver observer_;
};

}  // namespace qv
