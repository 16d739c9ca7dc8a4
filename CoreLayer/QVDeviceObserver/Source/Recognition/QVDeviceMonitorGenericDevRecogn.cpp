#include "Recognition/QVDeviceMonitorGenericDevRecogn.h"

#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Assertion.h"
#include "Foundation/Logging.h"
#include "Foundation/NotificationCenter.h"
#include "IOKit/IOKitLib.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Model/QVUSBDevice.h"
#include "Preparation/QVDriverDiskEjector.h"
#include "QVDeviceKnowledge/QVDeviceTableLookups.h"
#include "QVDeviceKnowledge/QVDeviceVendors.h"
#include "Rules/QVDeviceFilter.h"

std::shared_ptr<QVDeviceMonitor> QVDeviceMonitorGenericDevRecogn::create() {
    return std::shared_ptr<QVDeviceMonitor>(new QVDeviceMonitorGenericDevRecogn());
}

void QVDeviceMonitorGenericDevRecogn::registerForDeviceNotifications() {
    // One subscription for every USB device; the known-vendor gate still drops strangers.
    listenForNotificationsForMatchingDictionary(IOServiceMatching("IOUSBDevice"));
}

void QVDeviceMonitorGenericDevRecogn::listenForNotificationsForVendorID(std::int32_t vendorID,
                                                                        std::int32_t productID) {
    (void)vendorID;
    (void)productID;
    qv::raiseAssertion("Use of this method is prohibited!",
                       "CoreLayer/QVDeviceObserver/Source/QVDeviceMonitorGenericDevRecogn", 211);
}

void QVDeviceMonitorGenericDevRecogn::timeoutHandlingDevice(
    const std::shared_ptr<QVIODevice>& ioDevice) {
    qv::logRecognition("Standard recognition timed out: %@", ioDevice);
    tryToIdentifyGenericDevice(ioDevice);
}

void QVDeviceMonitorGenericDevRecogn::deviceRecognizedButNoRuleExistForIt(
    const std::shared_ptr<QVUSBDevice>& device, const std::shared_ptr<QVIODevice>& ioDevice) {
    const std::uint64_t epoch = examinationEpoch();
    QVDeviceMonitor::deviceRecognizedButNoRuleExistForIt(device, ioDevice);
    // A delegate that stopped the monitor on hearing of the device wants no second attempt.
    if (!wasStoppedSince(epoch)) {
        tryToIdentifyGenericDevice(ioDevice);
    }
}

void QVDeviceMonitorGenericDevRecogn::tryToIdentifyGenericDevice(
    const std::shared_ptr<QVIODevice>& ioDevice) {
    qv::logRecognition("Try to recognize generic device: %@", ioDevice);
    const std::uint64_t epoch = examinationEpoch();
    if (didIdentifyGenericIODevice(ioDevice) || wasStoppedSince(epoch)) {
        return;
    }
    qv::logRecognition("Generic device could not be recognized");
    deviceCouldNotBeRecognized(ioDevice);
}

bool QVDeviceMonitorGenericDevRecogn::didIdentifyGenericIODevice(
    const std::shared_ptr<QVIODevice>& ioDevice) {
    ioDevice->updateFromIORegistry();
    const std::int32_t genericID = QVDeviceTableLookups::genericDeviceQVIDForVendorID(
        static_cast<std::uint32_t>(ioDevice->vendorID()));
    if (static_cast<std::uint32_t>(ioDevice->vendorID()) == kHuaweiVendorID) {
        _diskSupressor->addDevice(ioDevice);
    }
    // The monitor's accept flag is deliberately not handed to this filter.
    QVDeviceFilter filter(_allowedDevicesRules);
    if (ioDevice->isMissingSerialAndEthernetInterfaces()) {
        if (filter.allowesDriverRequest(*ioDevice)) {
            noteRequestDriver(ioDevice);
        }
        return false;
    }
    auto device = QVUSBDevice::device();
    device->setQuorvelID(genericID);
    if (device->isMissingQuorvelID()) {
        return false;
    }
    device->initializeFromIODevice(*ioDevice);
    if (!ioDevice->hasSerialPorts()) {
        return false;
    }
    const std::uint64_t epoch = examinationEpoch();
    if (_delegate) {
        _delegate->noteStartedIdentifyingDevice(device);
    }
    if (wasStoppedSince(epoch)) {
        return false;
    }
    const MatchCode match =
        tryToMatchDeviceDatabaseEntryForQVDevice(device, ioDevice, kApproachTable);
    if (wasStoppedSince(epoch)) {
        return false;
    }
    // Unlike the table pipeline, a rejected device stays listed here: the caller ends it.
    switch (match) {
        case kMatchNoRule:
            qv::logRecognition("Device is recognized but no rule could be found for it");
            reportCouldNotIdentify(device);
            return false;
        case kMatchRejected:
            qv::logRecognition("Device is recognized but not allowed. Throwing it away!");
            reportCouldNotIdentify(device);
            return false;
        case kMatchAllowed:
            // Questioned only now that it matched, and never for the Option family.
            if (genericID != kOptionGenericQuorvelID) {
                device->couldIdentifyWithATCommandsFromIODevice(*ioDevice);
            }
            if (filter.isExcludedGenericDevice(filterSubjectOf(*device)) ==
                QVDeviceFilter::kNotAllowed) {
                qv::logRecognition(
                    "Device is rcognized but excluded (generic exclusion pattern). Throwing it "
                    "away!");
                reportCouldNotIdentify(device);
                return false;
            }
            // No power-up wait; after a teardown there is no list to add the record to.
            return announceIdentifiedDevice(
                device, ioDevice, epoch,
                {.notBeforeAge = std::nullopt, .startsIdentifiedList = false});
        case kMatchUndecided:
            return false;
    }
    return false;
}

void QVDeviceMonitorGenericDevRecogn::noteRequestDriver(
    const std::shared_ptr<QVIODevice>& ioDevice) {
    qv::NotificationCenter::defaultCenter().post(kDriverRequestNotification, ioDevice);
    qv::logSystem("Notify that a driver request is allowed for %@.", ioDevice);
}
