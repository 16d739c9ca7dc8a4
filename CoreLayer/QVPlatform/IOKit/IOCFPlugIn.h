// The plug-in path to a USB device's user client, as the framework walks it to re-enumerate a
// device: IOCreatePlugInInterfaceForService, QueryInterface for the device interface,
// IODestroyPlugInInterface. Plug-ins and interfaces are reference-counted objects
// (std::shared_ptr); Release is dropping the reference.
#pragma once

#include <cstdint>
#include <memory>

#include "IOKitTypes.h"
#include "IOUSBDeviceInterface.h"

// Type and interface identifiers, compared by content.
using CFUUIDRef = const char*;
inline constexpr CFUUIDRef kIOUSBDeviceUserClientTypeID = "IOUSBDeviceUserClientType";
inline constexpr CFUUIDRef kIOCFPlugInInterfaceID = "IOCFPlugInInterface";
inline constexpr CFUUIDRef kIOUSBDeviceInterfaceID = "IOUSBDeviceInterface";

using HRESULT = std::int32_t;
inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80000004);

class IOCFPlugInInterface {
  public:
    explicit IOCFPlugInInterface(std::shared_ptr<IOUSBDeviceInterface> device)
        : device_(std::move(device)) {}

    // kIOUSBDeviceInterfaceID gives the device interface (S_OK); anything else E_NOINTERFACE and
    // leaves `interface` untouched.
    HRESULT QueryInterface(CFUUIDRef interfaceID,
                           std::shared_ptr<IOUSBDeviceInterface>* interface) const;

  private:
    std::shared_ptr<IOUSBDeviceInterface> device_;
};

// For a registry entry of class IOUSBDevice (or a subclass), with the USB device user-client type
// and the plug-in interface type: a plug-in on the device, from the process's USBDeviceAccess
// backend. kIOReturnBadArgument for a handle that is no registry entry or null out-parameters,
// kIOReturnUnsupported for other types or classes, the backend's status when it has no interface
// to give. `theInterface` is set only on success; the caller's reference to `service` is its own.
kern_return_t IOCreatePlugInInterfaceForService(io_service_t service, CFUUIDRef pluginType,
                                                CFUUIDRef interfaceType,
                                                std::shared_ptr<IOCFPlugInInterface>* theInterface,
                                                std::int32_t* theScore);
kern_return_t IODestroyPlugInInterface(std::shared_ptr<IOCFPlugInInterface>& interface);
