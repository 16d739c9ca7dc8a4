#include "LibusbUSBDeviceAccess.h"

#include <libusb.h>

#include <string>

#include "UdevMapping.h"

namespace qv {

namespace {

IOReturn statusFromLibusb(int error) {
    switch (error) {
        case LIBUSB_SUCCESS:
            return kIOReturnSuccess;
        case LIBUSB_ERROR_ACCESS:
            return kIOReturnNotPrivileged;
        case LIBUSB_ERROR_BUSY:
            return kIOReturnExclusiveAccess;
        case LIBUSB_ERROR_NO_DEVICE:
        case LIBUSB_ERROR_NOT_FOUND:
            return kIOReturnNoDevice;
        case LIBUSB_ERROR_NOT_SUPPORTED:
            return kIOReturnUnsupported;
        case LIBUSB_ERROR_NO_MEM:
            return kIOReturnNoMemory;
        default:
            return kIOReturnError;
    }
}

class LibusbDeviceInterface : public IOUSBDeviceInterface {
  public:
    LibusbDeviceInterface(std::shared_ptr<libusb_context> context, libusb_device* device)
        : context_(std::move(context)), device_(libusb_ref_device(device)) {}
    ~LibusbDeviceInterface() override {
        // Releasing the interface gives the usbfs handle back; a device that re-enumerated is
        // gone from under it anyway.
        if (handle_ != nullptr) {
            libusb_close(handle_);
        }
        libusb_unref_device(device_);
    }
    LibusbDeviceInterface(const LibusbDeviceInterface&) = delete;
    LibusbDeviceInterface& operator=(const LibusbDeviceInterface&) = delete;

    IOReturn USBDeviceOpen() override {
        if (handle_ != nullptr) {
            return kIOReturnExclusiveAccess;
        }
        return statusFromLibusb(libusb_open(device_, &handle_));
    }
    IOReturn USBDeviceClose() override {
        if (handle_ == nullptr) {
            return kIOReturnNotOpen;
        }
        libusb_close(handle_);
        handle_ = nullptr;
        return kIOReturnSuccess;
    }
    IOReturn USBDeviceReEnumerate(std::uint32_t) override {
        if (handle_ == nullptr) {
            return kIOReturnNotOpen;
        }
        int result = libusb_reset_device(handle_);
        // NOT_FOUND: the device came back as another one (its descriptors changed), which is what
        // a re-enumeration is for.
        return result == LIBUSB_ERROR_NOT_FOUND ? kIOReturnSuccess : statusFromLibusb(result);
    }

  private:
    std::shared_ptr<libusb_context> context_;
    libusb_device* device_;
    libusb_device_handle* handle_ = nullptr;
};

}  // namespace

LibusbUSBDeviceAccess::LibusbUSBDeviceAccess() {
    libusb_context* context = nullptr;
    if (libusb_init(&context) == LIBUSB_SUCCESS) {
        context_ = std::shared_ptr<libusb_context>(context, libusb_exit);
    }
}

LibusbUSBDeviceAccess::~LibusbUSBDeviceAccess() = default;

std::uint32_t LibusbUSBDeviceAccess::locationID(unsigned bus, const std::uint8_t* ports,
                                                int portCount) {
    // Appended piece by piece: GCC 12 at -O3 warns falsely about "x" + std::string.
    std::string name = std::to_string(bus);
    name += '-';
    for (int i = 0; i < portCount; ++i) {
        if (i > 0) {
            name += '.';
        }
        name += std::to_string(ports[i]);
    }
    return locationIDFromUSBName(name).value_or(0);
}

std::shared_ptr<IOUSBDeviceInterface> LibusbUSBDeviceAccess::deviceInterface(
    const USBDeviceDescription& description, IOReturn* status) {
    auto answer = [status](IOReturn value) {
        if (status != nullptr) {
            *status = value;
        }
    };
    const Value& vendor = description.properties["idVendor"];
    const Value& product = description.properties["idProduct"];
    if (!vendor.isNumber() || !product.isNumber()) {
        answer(kIOReturnBadArgument);
        return nullptr;
    }
    if (!context_) {
        answer(kIOReturnUnsupported);
        return nullptr;
    }
    const Value& location = description.properties["locationID"];
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(context_.get(), &list);
    if (count < 0) {
        answer(statusFromLibusb(static_cast<int>(count)));
        return nullptr;
    }
    std::shared_ptr<IOUSBDeviceInterface> found;
    for (ssize_t i = 0; i < count && !found; ++i) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(list[i], &descriptor) != LIBUSB_SUCCESS ||
            descriptor.idVendor != vendor.intValue() ||
            descriptor.idProduct != product.intValue()) {
            continue;
        }
        if (location.isNumber()) {
            std::uint8_t ports[8];
            int depth = libusb_get_port_numbers(list[i], ports, sizeof ports);
            if (depth < 0 || locationID(libusb_get_bus_number(list[i]), ports, depth) !=
                                 static_cast<std::uint32_t>(location.integerValue())) {
                continue;
            }
        }
        found = std::make_shared<LibusbDeviceInterface>(context_, list[i]);
    }
    libusb_free_device_list(list, 1);
    answer(found ? kIOReturnSuccess : kIOReturnNotFound);
    return found;
}

}  // namespace qv
