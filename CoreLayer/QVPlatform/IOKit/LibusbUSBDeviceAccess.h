// qv::LibusbUSBDeviceAccess: the Linux backend of the USB device user client, on libusb-1.0.
// A registry entry is found on the bus by its "idVendor" and "idProduct" and, when it has one,
// by its "locationID" (bus and hub ports, as the udev feeder encodes them), so that of two
// identical sticks only the one in that socket is reached. USBDeviceOpen opens the device
// (usbfs: root or a udev rule that grants access), USBDeviceReEnumerate resets its port: the
// kernel unbinds every driver of the device and binds them again, so its serial ports and disks
// disappear and come back.
#pragma once

#include <memory>

#include "USBDeviceAccess.h"

struct libusb_context;

namespace qv {

class LibusbUSBDeviceAccess : public USBDeviceAccess {
  public:
    LibusbUSBDeviceAccess();
    ~LibusbUSBDeviceAccess() override;
    LibusbUSBDeviceAccess(const LibusbUSBDeviceAccess&) = delete;
    LibusbUSBDeviceAccess& operator=(const LibusbUSBDeviceAccess&) = delete;

    // kIOReturnNotFound when no attached device fits the description, kIOReturnUnsupported when
    // libusb cannot be used here (no usbfs), kIOReturnBadArgument for a description without IDs.
    std::shared_ptr<IOUSBDeviceInterface> deviceInterface(const USBDeviceDescription& device,
                                                          IOReturn* status) override;

    // The location ID of a device at `bus` behind the hub ports `ports` (outermost first), as
    // the registry carries it; 0 when it cannot be encoded.
    static std::uint32_t locationID(unsigned bus, const std::uint8_t* ports, int portCount);

  private:
    // Shared with the interfaces handed out, which may outlive the backend.
    std::shared_ptr<libusb_context> context_;
};

}  // namespace qv
