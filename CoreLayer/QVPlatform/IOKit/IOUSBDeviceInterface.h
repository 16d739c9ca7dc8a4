// IOUSBDeviceInterface: the USB device user client's interface, as far as the framework uses it
// (opening a device and re-enumerating it on the bus). A backend (USBDeviceAccess.h) hands these
// out; Release is dropping the last reference, which does not close the device first.
#pragma once

#include <cstdint>

#include "IOKitTypes.h"

class IOUSBDeviceInterface {
  public:
    virtual ~IOUSBDeviceInterface() = default;
    // Opens the device for exclusive use; kIOReturnExclusiveAccess when someone else has it.
    virtual IOReturn USBDeviceOpen() = 0;
    virtual IOReturn USBDeviceClose() = 0;
    // Makes the device leave the bus and come back, as if unplugged and plugged in again. Needs an
    // open device (kIOReturnNotOpen otherwise). `options` is 0.
    virtual IOReturn USBDeviceReEnumerate(std::uint32_t options) = 0;
};
