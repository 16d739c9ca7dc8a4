#include "RecordingUSBDeviceAccess.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace qv {

struct RecordingUSBDeviceAccess::Log {
    std::vector<Call> calls;
    std::map<io_service_t, IOReturn> createStatus;
    std::map<io_service_t, IOReturn> openStatus;
    std::map<io_service_t, std::string> deviceNodes;
    std::function<void(const Call&)> observer;

    IOReturn record(Call call) {
        calls.push_back(call);
        if (observer) {
            observer(call);
        }
        return call.status;
    }
};

namespace {

// What libusb's open of a usbfs node answers (it opens the node read-write), checked against the
// real uid of the calling thread as the kernel would check the open.
IOReturn openStatusOfNode(const std::string& path) {
    if (::access(path.c_str(), R_OK | W_OK) == 0) {
        return kIOReturnSuccess;
    }
    switch (errno) {
        case EACCES:
        case EPERM:
        case EROFS:
            return kIOReturnNotPrivileged;  // LIBUSB_ERROR_ACCESS
        case ENOENT:
            return kIOReturnNoDevice;  // LIBUSB_ERROR_NO_DEVICE
        default:
            return kIOReturnError;
    }
}

class RecordingDeviceInterface : public IOUSBDeviceInterface {
  public:
    RecordingDeviceInterface(std::weak_ptr<RecordingUSBDeviceAccess::Log> log,
                             RecordingUSBDeviceAccess::Call identity)
        : log_(std::move(log)), identity_(std::move(identity)) {}
    ~RecordingDeviceInterface() override { record("Release", kIOReturnSuccess); }

    IOReturn USBDeviceOpen() override {
        IOReturn status = kIOReturnSuccess;
        if (auto log = log_.lock()) {
            auto it = log->openStatus.find(identity_.service);
            if (it != log->openStatus.end()) {
                status = it->second;
            } else if (auto node = log->deviceNodes.find(identity_.service);
                       node != log->deviceNodes.end()) {
                status = openStatusOfNode(node->second);
            }
        }
        if (status == kIOReturnSuccess) {
            open_ = true;
        }
        return record("USBDeviceOpen", status);
    }
    IOReturn USBDeviceClose() override {
        IOReturn status = open_ ? kIOReturnSuccess : kIOReturnNotOpen;
        open_ = false;
        return record("USBDeviceClose", status);
    }
    IOReturn USBDeviceReEnumerate(std::uint32_t options) override {
        return record("USBDeviceReEnumerate", open_ ? kIOReturnSuccess : kIOReturnNotOpen, options);
    }

  private:
    IOReturn record(const char* operation, IOReturn status, std::uint32_t options = 0) {
        RecordingUSBDeviceAccess::Call call = identity_;
        call.operation = operation;
        call.status = status;
        call.options = options;
        if (auto log = log_.lock()) {
            log->record(std::move(call));
        }
        return status;
    }

    std::weak_ptr<RecordingUSBDeviceAccess::Log> log_;
    RecordingUSBDeviceAccess::Call identity_;
    bool open_ = false;
};

}  // namespace

RecordingUSBDeviceAccess::RecordingUSBDeviceAccess() : log_(std::make_shared<Log>()) {}

std::shared_ptr<IOUSBDeviceInterface> RecordingUSBDeviceAccess::deviceInterface(
    const USBDeviceDescription& device, IOReturn* status) {
    Call call;
    call.service = device.service;
    call.vendorID = device.properties["idVendor"].intValue();
    call.productID = device.properties["idProduct"].intValue();
    call.locationID = device.properties["locationID"].integerValue();
    call.operation = "create";
    auto it = log_->createStatus.find(device.service);
    call.status = it != log_->createStatus.end() ? it->second : kIOReturnSuccess;
    Call identity = call;
    IOReturn result = log_->record(std::move(call));
    if (status != nullptr) {
        *status = result;
    }
    if (result != kIOReturnSuccess) {
        return nullptr;
    }
    return std::make_shared<RecordingDeviceInterface>(log_, identity);
}

void RecordingUSBDeviceAccess::setCreateStatus(io_service_t service, IOReturn status) {
    log_->createStatus[service] = status;
}

void RecordingUSBDeviceAccess::setOpenStatus(io_service_t service, IOReturn status) {
    log_->openStatus[service] = status;
}

void RecordingUSBDeviceAccess::setDeviceNode(io_service_t service, std::string path) {
    log_->deviceNodes[service] = std::move(path);
}

void RecordingUSBDeviceAccess::setObserver(std::function<void(const Call&)> observer) {
    log_->observer = std::move(observer);
}

const std::vector<RecordingUSBDeviceAccess::Call>& RecordingUSBDeviceAccess::calls() const {
    return log_->calls;
}

std::vector<std::string> RecordingUSBDeviceAccess::operations() const {
    std::vector<std::string> operations;
    for (const Call& call : log_->calls) {
        operations.push_back(call.operation == "USBDeviceReEnumerate"
                                 ? call.operation + "(" + std::to_string(call.options) + ")"
                                 : call.operation);
    }
    return operations;
}

}  // namespace qv
