#include "IOCFPlugIn.h"

#include <cstring>

#include "IOKitLib.h"
#include "USBDeviceAccess.h"

namespace {

bool sameID(CFUUIDRef a, CFUUIDRef b) {
    return a != nullptr && b != nullptr && std::strcmp(a, b) == 0;
}

}  // namespace

HRESULT IOCFPlugInInterface::QueryInterface(
    CFUUIDRef interfaceID, std::shared_ptr<IOUSBDeviceInterface>* interface) const {
    if (interface == nullptr || !sameID(interfaceID, kIOUSBDeviceInterfaceID) || !device_) {
        return E_NOINTERFACE;
    }
    *interface = device_;
    return S_OK;
}

kern_return_t IOCreatePlugInInterfaceForService(io_service_t service, CFUUIDRef pluginType,
                                                CFUUIDRef interfaceType,
                                                std::shared_ptr<IOCFPlugInInterface>* theInterface,
                                                std::int32_t* theScore) {
    if (theInterface == nullptr || theScore == nullptr) {
        return kIOReturnBadArgument;
    }
    io_name_t className;
    if (IOObjectGetClass(service, className) != KERN_SUCCESS) {
        return kIOReturnBadArgument;
    }
    if (!sameID(pluginType, kIOUSBDeviceUserClientTypeID) ||
        !sameID(interfaceType, kIOCFPlugInInterfaceID) ||
        !IOObjectConformsTo(service, "IOUSBDevice")) {
        return kIOReturnUnsupported;
    }
    qv::USBDeviceDescription description;
    description.service = service;
    IORegistryEntryCreateCFProperties(service, &description.properties);
    IOReturn status = kIOReturnError;
    std::shared_ptr<IOUSBDeviceInterface> device =
        qv::USBDeviceAccess::shared().deviceInterface(description, &status);
    if (!device) {
        return status != kIOReturnSuccess ? status : kIOReturnError;
    }
    *theInterface = std::make_shared<IOCFPlugInInterface>(std::move(device));
    *theScore = 0;
    return kIOReturnSuccess;
}

kern_return_t IODestroyPlugInInterface(std::shared_ptr<IOCFPlugInInterface>& interface) {
    interface.reset();
    return kIOReturnSuccess;
}
