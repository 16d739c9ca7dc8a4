// qv::UsbSettleRule: when a hot-plugged USB device and what appears below it may enter the
// registry. udev handles the interfaces of a new USB device in parallel, so their events come in
// any order and over some milliseconds. A snapshot taken in between would show a partial port list
// with later ports shifted into earlier positions, and "ByPortNumber" picks ports by position. So a
// new USB device is held back, with everything that appears below it, until it has settled: every
// interface it declares ("bNumInterfaces") is present and bound to a driver, or no event touched
// it for the quiet time, or the longest wait since its first event ran out. Then the device and
// its functions are published at once, in sysfs order (the device, then each interface in number
// order followed by its functions).
//
// Plain data in (device facts by sysfs path) and the run loop's timers for time: no libudev. The
// caller offers only devices the registry shows (those UdevMapping describes). Belongs to the
// thread of its run loop.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "RunLoop/RunLoop.h"
#include "UdevMapping.h"

namespace qv {

class UsbSettleRule {
  public:
    struct Node {
        std::string sysPath;
        UdevDeviceFacts facts;
    };
    // Receives a settled device: the device first, then what is below it in sysfs order.
    using Publish = std::function<void(std::vector<Node> nodes)>;

    // Seconds without an event after which a device that is not fully bound counts as settled,
    // and the longest a device is ever held back.
    static constexpr double kDefaultQuietTime = 0.25;
    static constexpr double kDefaultLongestSettle = 3.0;

    UsbSettleRule(RunLoop& loop, Publish publish);
    ~UsbSettleRule();
    UsbSettleRule(const UsbSettleRule&) = delete;
    UsbSettleRule& operator=(const UsbSettleRule&) = delete;

    // Negative quiet times count as 0; the longest wait is at least the quiet time. Applies to
    // the timers armed from now on.
    void setTimes(double quietTime, double longest);

    // An added or changed device. A hot-plugged USB device ("usb_device") starts settling; a
    // device at or below a settling one joins it (a later event for the same path replaces its
    // facts), re-arms the quiet time and may complete it, which publishes it before this returns.
    // One found by enumeration (`hotPlugged` false) may join but starts nothing. True when the
    // device was taken; false when the caller adds it at once.
    bool offer(const std::string& sysPath, const UdevDeviceFacts& facts, bool hotPlugged = true);
    // A removed device. A settling device goes without ever being published; a device below one
    // leaves it with everything below itself. True when the path concerned a settling device.
    bool remove(const std::string& sysPath);
    // Forgets every settling device without publishing it.
    void clear();

    std::size_t settlingCount() const { return settling_.size(); }

  private:
    struct SysPathLess {
        bool operator()(const std::string& a, const std::string& b) const {
            return sysPathOrderLess(a, b);
        }
    };
    struct SettlingDevice {
        std::map<std::string, UdevDeviceFacts, SysPathLess> nodes;  // the device and its functions
        unsigned declaredInterfaces = 0;                            // 0: the device did not say
        double firstEvent = 0.0;
        std::shared_ptr<Timer> timer;
    };
    using SettlingMap = std::map<std::string, SettlingDevice, SysPathLess>;

    SettlingMap::iterator settlingDeviceOf(const std::string& sysPath);
    bool hasSettled(const std::string& devicePath, const SettlingDevice& device) const;
    void armTimer(const std::string& devicePath, SettlingDevice& device);
    void publish(const std::string& devicePath);

    RunLoop& loop_;
    Publish publish_;
    double quietTime_ = kDefaultQuietTime;
    double longestSettle_ = kDefaultLongestSettle;
    SettlingMap settling_;
    std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
};

// "bNumInterfaces" as sysfs shows it (" 3"): the count, or 0 when absent or malformed.
unsigned declaredInterfaceCount(const UdevDeviceFacts& facts);

}  // namespace qv
