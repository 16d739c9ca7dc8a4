// QVDeviceMonitorGenericDevRecogn: a device monitor that also accepts products the built-in table
// does not list, when they come from a maker with a generic device family (Option, Huawei,
// Sierra, ZTE). The standard pipeline tries first; the generic attempt is the fallback after the
// handling time-out or when no rule speaks of the device. Same thread rules as the monitor.
#pragma once

#include <cstdint>
#include <memory>

#include "Recognition/QVDeviceMonitor.h"

class QVDeviceMonitorGenericDevRecogn : public QVDeviceMonitor {
  public:
    // The Option family is matched without AT questioning.
    static constexpr int kOptionGenericQuorvelID = 15354;
    static constexpr const char* kDriverRequestNotification = "NoteDeviceForDriverRequestDetected";

    static std::shared_ptr<QVDeviceMonitor> create();
    // The shared monitor, made as a generic recogniser when this class is asked first.
    static std::shared_ptr<QVDeviceMonitor> getInstance() {
        return getInstanceOfClass<QVDeviceMonitorGenericDevRecogn>();
    }

    void registerForDeviceNotifications() override;
    // Prohibited on this class: every USB device is watched already.
    void listenForNotificationsForVendorID(std::int32_t vendorID, std::int32_t productID) override;
    void timeoutHandlingDevice(const std::shared_ptr<QVIODevice>& ioDevice) override;
    void deviceRecognizedButNoRuleExistForIt(const std::shared_ptr<QVUSBDevice>& device,
                                             const std::shared_ptr<QVIODevice>& ioDevice) override;

    void tryToIdentifyGenericDevice(const std::shared_ptr<QVIODevice>& ioDevice);
    bool didIdentifyGenericIODevice(const std::shared_ptr<QVIODevice>& ioDevice);
    void noteRequestDriver(const std::shared_ptr<QVIODevice>& ioDevice);

  protected:
    QVDeviceMonitorGenericDevRecogn() = default;
};
