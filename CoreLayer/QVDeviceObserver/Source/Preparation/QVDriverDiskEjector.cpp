#include "QVDriverDiskEjector.h"

#include <algorithm>

#include "Foundation/Logging.h"
#include "Foundation/Platform.h"
#include "Foundation/Task.h"
#include "RunLoop/RunLoop.h"

void QVDriverDiskEjector::handleDevice(const std::shared_ptr<QVIODevice>& device) {
    device->updateFromIORegistry();
    // Until its ports or its network interface exist the modem still needs its CD.
    if (device->isMissingSerialAndEthernetInterfaces()) {
        return;
    }
    // Without a CD the device stays listed: the volume may still show up.
    if (!device->hasDriverVolume()) {
        return;
    }
    // Weak: the ejector keeps its pending timers, and a timer must not keep the ejector.
    std::weak_ptr<QVDriverDiskEjector> weakSelf =
        std::static_pointer_cast<QVDriverDiskEjector>(shared_from_this());
    std::erase_if(_pendingUnmounts, [](const auto& timer) { return !timer->isValid(); });
    _pendingUnmounts.push_back(qv::RunLoop::current().performAfterDelay(1.0, [weakSelf, device]() {
        if (auto self = weakSelf.lock()) {
            self->unmountDriverVolumeForIODevice(device);
        }
    }));
    removeDevice(device);
}

void QVDriverDiskEjector::timeoutHandlingDevice(const std::shared_ptr<QVIODevice>& device) {
    qv::logRecognition("Timeout ejecting driver discs for device: %@", device);
}

void QVDriverDiskEjector::stopExamination() {
    QVDeviceNotificationReceiver::stopExamination();
    for (const auto& timer : _pendingUnmounts) {
        timer->invalidate();
    }
    _pendingUnmounts.clear();
}

std::size_t QVDriverDiskEjector::pendingUnmountCountForTesting() const {
    return static_cast<std::size_t>(
        std::count_if(_pendingUnmounts.begin(), _pendingUnmounts.end(),
                      [](const auto& timer) { return timer->isValid(); }));
}

void QVDriverDiskEjector::unmountDriverVolumeForIODevice(
    const std::shared_ptr<QVIODevice>& device) {
    qv::logRecognition("Now removing driver volume '%@'", device->driverDiskName());
    // The snapshot may have been refreshed meanwhile and the CD found gone: nothing to unmount.
    const std::string* bsdName = device->driverDiskName().asString();
    if (bsdName == nullptr) {
        return;
    }
    // Not waited for, and its outcome is not examined: a disk already gone is no failure.
    qv::TaskLauncher::shared().launch(diskUtilityPath(), {"unmountDisk", *bsdName});
}

std::string QVDriverDiskEjector::diskUtilityPath() const {
    return _diskUtilityPath ? *_diskUtilityPath : qv::Bundle::pathForHelperTool(kDiskUtilityName);
}
