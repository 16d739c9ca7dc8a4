// QVZTESerialPortsEnabler: switches a fixed set of modem sticks that start as a driver CD (and
// sometimes a memory-card disk) into modem mode. Created by the host application, which sets
// setEjectSecondaryDisk() as it wishes and calls startEnableSerialPortsForDevices(); from then on
// every subscribed stick is examined each second (QVDeviceNotificationReceiver) until its driver
// CD is mounted, and then:
// - the Huawei quick-start models get the mode-switch tool CardPrepTool ("/pid=,1f15"), started
//   and not waited for;
// - every other model gets the disk utility, one run after another and each waited for:
//   "unmountDisk force" and "eject" on the CD, the same on the secondary disk when asked for and
//   mounted, and the one Option model that still shows no ports afterwards is re-enumerated on
//   the USB bus.
// A stick whose CD never shows as mounted ends with the base class's time-out line.
//
// The enabler needs no observer: from startEnableSerialPortsForDevices() on it keeps the
// registry's feed running (udev on a live machine) and stays subscribed while observers stop and
// start, until stopEnableSerialPortsForDevices() or its destruction.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Events/QVDeviceNotificationReceiver.h"

class QVZTESerialPortsEnabler : public QVDeviceNotificationReceiver {
  public:
    static constexpr const char* kCardPrepToolName = "CardPrepTool";

    struct Model {
        std::int32_t vendorID;
        std::int32_t productID;
    };
    // The sticks it subscribes to, in subscription order (QVSerialPortPreparationTable).
    static const std::vector<Model>& subscribedModels();

    QVZTESerialPortsEnabler() = default;
    ~QVZTESerialPortsEnabler() override;

    // Subscribes to every model of the table, in table order; sticks already attached are queued
    // during the call.
    void startEnableSerialPortsForDevices();
    // Ends the subscriptions and forgets the sticks still waiting; the feed is let go.
    void stopEnableSerialPortsForDevices();

    bool ejectSecondaryDisk() const { return _ejectSecondaryDisk; }
    void setEjectSecondaryDisk(bool eject) { _ejectSecondaryDisk = eject; }

    void handleDevice(const std::shared_ptr<QVIODevice>& device) override;

    // The Huawei models that CardPrepTool switches.
    bool needsHuaweiQuickStartSwitcher(const std::shared_ptr<QVIODevice>& device) const;
    // Starts CardPrepTool with "/pid=,<product ID in lower-case hex>", not waited for.
    void ejectHuaweiQS(const std::shared_ptr<QVIODevice>& device);
    // Whether anything of the disk is mounted (volumeNameForBSD finds a mount point).
    bool isVolumeMounted(const std::string& bsdName) const;
    // Re-enumerates the model when `device` is of it and has no TTY ports.
    void reEnumerateIfNoPorts(const std::shared_ptr<QVIODevice>& device, std::int32_t theVendor,
                              std::int32_t prod);
    // Makes every attached USB device of the model leave the bus and come back; what happens is
    // printed to standard output.
    void doReEnumerate_vid(std::int32_t vid, std::int32_t prod);

    // The programs started; by default the disk utility and CardPrepTool of the bundle.
    std::string diskUtilityPath() const;
    void setDiskUtilityPath(std::optional<std::string> path) { _diskUtilityPath = std::move(path); }
    std::string cardPrepToolPath() const;
    void setCardPrepToolPath(std::optional<std::string> path) {
        _cardPrepToolPath = std::move(path);
    }

  private:
    // Runs the disk utility with `arguments` and waits; its outcome is not examined.
    void runDiskUtility(std::vector<std::string> arguments) const;

    void releaseRegistryFeed();

    bool _ejectSecondaryDisk = false;
    bool _usesRegistryFeed = false;
    std::optional<std::string> _diskUtilityPath;
    std::optional<std::string> _cardPrepToolPath;
};
