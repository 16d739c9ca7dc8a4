// qv::USBDeviceAccess: the seam behind the USB device user client.
// IOCreatePlugInInterfaceForService (IOCFPlugIn.h) asks the process's backend for a device
// interface to a registry entry of class IOUSBDevice. By default that is the libusb backend
// (LibusbUSBDeviceAccess.h); tests and the simulator install a recording one
// (RecordingUSBDeviceAccess.h), and the unsupported one below reaches no device.
//
// Contract of deviceInterface(): called on the thread that creates the plug-in; answers a new
// interface, or nullptr with a non-zero status. It must not block for long (no device I/O: opening
// happens in USBDeviceOpen). The registry entry may be gone by the time the interface is used, so
// the description carries the entry's properties as they were at creation.
#pragma once

#include <memory>

#include "Foundation/Value.h"
#include "IOKitTypes.h"
#include "IOUSBDeviceInterface.h"

namespace qv {

struct USBDeviceDescription {
    io_service_t service = IO_OBJECT_NULL;
    Value properties;  // the entry's properties ("idVendor", "idProduct", "locationID", ...)
};

class USBDeviceAccess {
  public:
    virtual ~USBDeviceAccess() = default;
    virtual std::shared_ptr<IOUSBDeviceInterface> deviceInterface(
        const USBDeviceDescription& device, IOReturn* status) = 0;

    static USBDeviceAccess& shared();
    // nullptr restores the default (libusb) backend.
    static void setShared(std::shared_ptr<USBDeviceAccess> access);
    // The one set now, or the default once made; nullptr before either (to put back later).
    static std::shared_ptr<USBDeviceAccess> installed();
};

// The do-nothing backend: no device can be reached.
class UnsupportedUSBDeviceAccess : public USBDeviceAccess {
  public:
    std::shared_ptr<IOUSBDeviceInterface> deviceInterface(const USBDeviceDescription&,
                                                          IOReturn* status) override {
        if (status != nullptr) {
            *status = kIOReturnUnsupported;
        }
        return nullptr;
    }
};

}  // namespace qv
