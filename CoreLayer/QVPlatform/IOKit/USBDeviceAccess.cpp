#include "USBDeviceAccess.h"

#include "LibusbUSBDeviceAccess.h"

#include <mutex>
#include <utility>

namespace qv {

namespace {
std::mutex gAccessMutex;
std::shared_ptr<USBDeviceAccess> gAccess;
}  // namespace

USBDeviceAccess& USBDeviceAccess::shared() {
    std::lock_guard<std::mutex> lock(gAccessMutex);
    if (!gAccess) {
        gAccess = std::make_shared<LibusbUSBDeviceAccess>();
    }
    return *gAccess;
}

void USBDeviceAccess::setShared(std::shared_ptr<USBDeviceAccess> access) {
    std::lock_guard<std::mutex> lock(gAccessMutex);
    gAccess = std::move(access);
}

std::shared_ptr<USBDeviceAccess> USBDeviceAccess::installed() {
    std::lock_guard<std::mutex> lock(gAccessMutex);
    return gAccess;
}

}  // namespace qv
