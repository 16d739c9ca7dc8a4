#include "QVDeviceNotificationReceiver.h"

#include <algorithm>

#include "Foundation/Exception.h"
#include "Foundation/Logging.h"
#include "Foundation/Platform.h"
#include "IOKit/IOKitLib.h"
#include "QVDeviceNotificationCenter.h"

namespace {

// The same snapshot object always counts as listed, even one without a location ID (which equals
// nothing); otherwise equality decides.
bool sameDevice(const std::shared_ptr<QVIODevice>& listed,
                const std::shared_ptr<QVIODevice>& device) {
    return listed == device || listed->isEqual(*device);
}

}  // namespace

QVDeviceNotificationReceiver::~QVDeviceNotificationReceiver() {
    // No unsubscribing here: the center keeps its subscribers (and so this receiver alive) until
    // it is torn down, and a receiver may die during static destruction, after the center.
    // The timer only holds a weak reference; stop it so it does not tick for nobody.
    if (_ejectionDriver) {
        _ejectionDriver->invalidate();
    }
}

void QVDeviceNotificationReceiver::handleDevice(const std::shared_ptr<QVIODevice>&) {
    throw qv::Exception(qv::kNSInternalInconsistencyException,
                        "Need to overwrite handleDevice: to actually do something");
}

void QVDeviceNotificationReceiver::timeoutHandlingDevice(
    const std::shared_ptr<QVIODevice>& device) {
    qv::logRecognition("Timeout handling device: %@", device);
}

qv::Value QVDeviceNotificationReceiver::ioRegistryMatchingDictForVendorID(std::int32_t vendorID,
                                                                          std::int32_t productID,
                                                                          const char* ioService) {
    qv::Value matching = IOServiceMatching(ioService);
    matching.set("idVendor", qv::Value(vendorID));
    matching.set("idProduct", qv::Value(productID));
    return matching;
}

qv::Value QVDeviceNotificationReceiver::ioRegistryMatchingDictForVendorID(std::int32_t vendorID,
                                                                          std::int32_t productID) {
    return ioRegistryMatchingDictForVendorID(vendorID, productID, "IOUSBDevice");
}

void QVDeviceNotificationReceiver::listenForNotificationsForMatchingDictionary(
    const qv::Value& matchingDict) {
    _threadOwner.check(__func__);
    auto center = QVDeviceNotificationCenter::defaultDeviceNotificationCenter();
    center->addObserver(shared_from_this(), &QVDeviceNotificationObserver::devicesAdded,
                        kQVDeviceAddedNotification, matchingDict);
    center->addObserver(shared_from_this(), &QVDeviceNotificationObserver::devicesRemoved,
                        kQVDeviceRemovedNotification, matchingDict);
}

void QVDeviceNotificationReceiver::listenForNotificationsForVendorID(std::int32_t vendorID,
                                                                     std::int32_t productID,
                                                                     const char* ioService) {
    _threadOwner.check(__func__);
    listenForNotificationsForMatchingDictionary(
        ioRegistryMatchingDictForVendorID(vendorID, productID, ioService));
}

void QVDeviceNotificationReceiver::listenForNotificationsForVendorID(std::int32_t vendorID,
                                                                     std::int32_t productID) {
    _threadOwner.check(__func__);
    listenForNotificationsForMatchingDictionary(
        ioRegistryMatchingDictForVendorID(vendorID, productID));
}

void QVDeviceNotificationReceiver::devicesAdded(const QVIODeviceArray& devices) {
    _threadOwner.check(__func__);
    if (devices.empty()) {
        return;
    }
    // A device seen twice is listed twice; removal takes out every equal entry.
    _addedIODevices.insert(_addedIODevices.end(), devices.begin(), devices.end());
    scheduleDeviceExamination();
}

void QVDeviceNotificationReceiver::devicesRemoved(const QVIODeviceArray& devices) {
    _threadOwner.check(__func__);
    for (const auto& device : devices) {
        if (device && contains(device)) {
            removeDevice(device);
        }
    }
}

void QVDeviceNotificationReceiver::addDevice(const std::shared_ptr<QVIODevice>& device) {
    _threadOwner.check(__func__);
    if (!device) {
        return;
    }
    _addedIODevices.push_back(device);
    scheduleDeviceExamination();
}

bool QVDeviceNotificationReceiver::contains(const std::shared_ptr<QVIODevice>& device) const {
    return std::any_of(_addedIODevices.begin(), _addedIODevices.end(),
                       [&](const auto& listed) { return sameDevice(listed, device); });
}

void QVDeviceNotificationReceiver::removeDevice(const std::shared_ptr<QVIODevice>& device) {
    _threadOwner.check(__func__);
    if (!device) {
        return;
    }
    std::erase_if(_addedIODevices, [&](const auto& listed) { return sameDevice(listed, device); });
}

bool QVDeviceNotificationReceiver::isApplicationRunning(const std::string& bundleIdentifier) const {
    return qv::Workspace::shared().isApplicationRunning(bundleIdentifier);
}

void QVDeviceNotificationReceiver::scheduleDeviceExamination() {
    _threadOwner.check(__func__);
    if (_ejectionDriver) {
        return;
    }
    std::weak_ptr<QVDeviceNotificationReceiver> weakSelf = weak_from_this();
    _ejectionDriver = qv::RunLoop::current().scheduleTimer(1.0, true, [weakSelf](qv::Timer& timer) {
        if (auto self = weakSelf.lock()) {
            self->handleDeviceTimerCallback(timer);
        }
    });
    didStartScheduler();
}

void QVDeviceNotificationReceiver::handleDeviceTimerCallback(qv::Timer& timer) {
    _threadOwner.check(__func__);
    // The timer stops at the first tick that finds nothing to do, not at the last removal.
    if (_addedIODevices.empty()) {
        timer.invalidate();
        if (_ejectionDriver) {
            _ejectionDriver->invalidate();
            _ejectionDriver.reset();
        }
        didStopScheduler();
    }
    // handleDevice() may add and remove devices: walk what was listed when the tick began.
    QVIODeviceArray snapshot = _addedIODevices;
    const std::uint64_t epoch = _examinationEpoch;
    for (const auto& device : snapshot) {
        handleDevice(device);
        // Stopped from inside (a delegate that stops the application): the rest is not ours.
        if (wasStoppedSince(epoch)) {
            return;
        }
        if (device->timeIntervalSinceItWasAdded() > _handlingTimout) {
            timeoutHandlingDevice(device);
            // Stopped and started again from the report: the device is the new run's now.
            if (wasStoppedSince(epoch)) {
                return;
            }
            removeDevice(device);
            // One time-out per tick; the devices behind it wait for the next one.
            return;
        }
    }
}

void QVDeviceNotificationReceiver::stopExamination() {
    _threadOwner.check(__func__);
    ++_examinationEpoch;
    _addedIODevices.clear();
    if (_ejectionDriver) {
        _ejectionDriver->invalidate();
        _ejectionDriver.reset();
    }
}
