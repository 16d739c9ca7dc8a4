// qv::RecordingUSBDeviceAccess: a USB device backend for tests and the simulator. It reaches every
// IOUSBDevice entry, records each call made on its interfaces (with the device's IDs, so a story
// can be checked without handles), and answers the statuses it was told to.
// Owned by the thread that uses the registry; interfaces may outlive the recorder (their calls then
// go unrecorded).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "USBDeviceAccess.h"

namespace qv {

class RecordingUSBDeviceAccess : public USBDeviceAccess {
  public:
    struct Call {
        io_service_t service = IO_OBJECT_NULL;
        std::int32_t vendorID = 0;
        std::int32_t productID = 0;
        std::int64_t locationID = 0;
        // "create", "USBDeviceOpen", "USBDeviceClose", "USBDeviceReEnumerate" or "Release" (the
        // interface's last reference dropped).
        std::string operation;
        std::uint32_t options = 0;
        IOReturn status = kIOReturnSuccess;  // what the call answered
    };

    RecordingUSBDeviceAccess();

    std::shared_ptr<IOUSBDeviceInterface> deviceInterface(const USBDeviceDescription& device,
                                                          IOReturn* status) override;

    // What "create" (no interface unless success) and USBDeviceOpen answer for a service.
    void setCreateStatus(io_service_t service, IOReturn status);
    void setOpenStatus(io_service_t service, IOReturn status);
    // Backs a service with a device node: USBDeviceOpen then answers as libusb's open of a usbfs
    // node does, from the calling thread's credentials (not privileged when it may not read and
    // write the node, no device when the node is gone). A status set above still wins.
    void setDeviceNode(io_service_t service, std::string path);
    // Called after each call is recorded (the simulator prints it).
    void setObserver(std::function<void(const Call&)> observer);

    const std::vector<Call>& calls() const;
    // The operations in order, "operation" or "operation(options)" for re-enumeration.
    std::vector<std::string> operations() const;

    struct Log;

  private:
    std::shared_ptr<Log> log_;
};

}  // namespace qv
