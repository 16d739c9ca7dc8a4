// The identification pipeline of the device monitor: one attempt per examination tick, from the
// table lookup or AT questioning through the database match and the allowed-device rules to the
// announcement; the generic recogniser reuses its match and announce steps.
#include "Recognition/QVDeviceMonitor.h"

#include "Foundation/Logging.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Model/QVSerialInterface.h"
#include "Model/QVUSBDevice.h"
#include "Preparation/QVDriverDiskEjector.h"
#include "QVDeviceKnowledge/QVDeviceTableLookups.h"
#include "Rules/QVAllowedDeviceRulesEntry.h"
#include "Rules/QVDeviceFilter.h"
#include "RunLoop/RunLoop.h"

namespace {

constexpr double kPowerUpSleepStep = 0.5;

}  // namespace

QVDeviceFilterSubject QVDeviceMonitor::filterSubjectOf(const QVUSBDevice& device) {
    QVDeviceFilterSubject subject;
    subject.quorvelID = device.quorvelID();
    subject.vendorID = device.vendorID();
    subject.productID = device.productID();
    subject.productName = device.productName();
    subject.record = &device;
    return subject;
}

void QVDeviceMonitor::handleDevice(const std::shared_ptr<QVIODevice>& ioDevice) {
    tryToIdentifyDevice(ioDevice);
}

void QVDeviceMonitor::tryToIdentifyDevice(const std::shared_ptr<QVIODevice>& ioDevice) {
    // Devices of makers the table does not know are dropped without a word.
    if (ioDevice->vendorID() != 0 && !isKnownVendor(ioDevice->vendorID())) {
        removeDevice(ioDevice);
        return;
    }
    if (didIdentifyIODevice(ioDevice)) {
        removeDevice(ioDevice);
    }
}

std::int32_t QVDeviceMonitor::PowerUpDelayFromIODevice(const QVIODevice& ioDevice) const {
    return QVDeviceTableLookups::powerUpDelayForVendorID(
        static_cast<std::uint32_t>(ioDevice.vendorID()),
        static_cast<std::uint32_t>(ioDevice.productID()));
}

std::uint32_t QVDeviceMonitor::quorvelIDFromIODevice(const QVIODevice& ioDevice) const {
    return static_cast<std::uint32_t>(QVDeviceTableLookups::quorvelIDFromUSBVid(
        static_cast<std::uint32_t>(ioDevice.vendorID()) & 0xFFFFu,
        static_cast<std::uint32_t>(ioDevice.productID()) & 0xFFFFu));
}

bool QVDeviceMonitor::validateSerialPortsAvailability(
    const QVIODevice& ioDevice, const std::shared_ptr<QVDeviceDatabaseEntry>& entry) const {
    if (ioDevice.hasSerialPorts()) {
        return true;
    }
    return !(entry && entry->deviceShouldHaveSerialPorts());
}

void QVDeviceMonitor::waitForPowerUp(const QVIODevice& ioDevice, std::int32_t delay,
                                     bool logSteps) const {
    while (ioDevice.timeIntervalSinceItWasAdded() < static_cast<double>(delay)) {
        if (logSteps) {
            qv::logRecognition("PowerUpDelayFromIODevice waiting  before portAccess %d seconds\n",
                               delay);
        }
        qv::RunLoop::current().sleep(kPowerUpSleepStep);
    }
}

void QVDeviceMonitor::addIdentifiedDevice(const std::shared_ptr<QVDevice>& device) {
    if (!_identifiedDevices) {
        _identifiedDevices.emplace();
    }
    _identifiedDevices->push_back(device);
}

void QVDeviceMonitor::pushDevice(const std::shared_ptr<QVUSBDevice>& device) {
    const auto& uuid = device->getUUID();
    const auto& name = device->productName();
    qv::logRecognition("Pushing device %@, with UUID %X", name ? qv::Value(*name) : qv::Value(),
                       static_cast<unsigned>(uuid ? uuid->intValue() : 0));
}

bool QVDeviceMonitor::didIdentifyIODevice(const std::shared_ptr<QVIODevice>& ioDevice) {
    ioDevice->updateFromIORegistry();
    if (ioDevice->isMissingSerialAndEthernetInterfaces()) {
        return false;
    }
    auto device = QVUSBDevice::device();
    std::shared_ptr<QVDeviceDatabaseEntry> entry;
    unsigned approach = kApproachNoTableID;
    if (canDecideQuorvelIDFromIODevice(*ioDevice)) {
        device->setQuorvelID(static_cast<std::int32_t>(quorvelIDFromIODevice(*ioDevice)));
        // A database without the model's entry answers nil here rather than raising on every
        // examination tick; the match below then throws the device away with its log line.
        const auto id = static_cast<std::uint32_t>(device->quorvelID());
        if (_deviceDatabase && _deviceDatabase->hasEntryForQuorvelID(id)) {
            entry = _deviceDatabase->entryForQuorvelID(id);
        }
        approach = kApproachTable;
    }
    device->initializeFromIODevice(*ioDevice);
    if (!validateSerialPortsAvailability(*ioDevice, entry)) {
        return false;
    }
    // The delegate may stop the monitor from any of its calls; whatever follows is then dropped.
    const std::uint64_t epoch = examinationEpoch();
    if (_delegate) {
        _delegate->noteStartedIdentifyingDevice(device);
    }
    if (wasStoppedSince(epoch)) {
        return false;
    }
    const std::int32_t delay = PowerUpDelayFromIODevice(*ioDevice);
    if (device->isMissingQuorvelID() || device->alwaysIdentifyWithATCommands()) {
        waitForPowerUp(*ioDevice, delay, true);
        device->couldIdentifyWithATCommandsFromIODevice(*ioDevice);
        approach = kApproachATCommands;
    }
    const MatchCode match = tryToMatchDeviceDatabaseEntryForQVDevice(device, ioDevice, approach);
    if (wasStoppedSince(epoch)) {
        return false;
    }
    switch (match) {
        case kMatchNoRule:
            qv::logRecognition("Device is recognized but no rule could be found for it");
            deviceRecognizedButNoRuleExistForIt(device, ioDevice);
            return false;
        case kMatchAllowed:
            // Announced no earlier than the power-up delay after arrival; a monitor torn down
            // meanwhile starts a new list for it.
            return announceIdentifiedDevice(device, ioDevice, epoch,
                                            {.notBeforeAge = delay, .startsIdentifiedList = true});
        case kMatchRejected:
            reportCouldNotIdentify(device);
            if (!wasStoppedSince(epoch)) {
                removeDevice(ioDevice);
            }
            return false;
        case kMatchUndecided:
            return false;
    }
    return false;
}

bool QVDeviceMonitor::announceIdentifiedDevice(const std::shared_ptr<QVUSBDevice>& device,
                                               const std::shared_ptr<QVIODevice>& ioDevice,
                                               std::uint64_t epoch, const Announcement& how) {
    const auto& entry = device->databaseEntry();
    if (entry && entry->shouldSupressDisk()) {
        _diskSupressor->addDevice(ioDevice);
    }
    renameDeviceIfNeccessary(device);
    if (how.startsIdentifiedList) {
        addIdentifiedDevice(device);
    } else if (auto* identified = identifiedDevicesArray()) {
        identified->push_back(device);
    }
    pushDevice(device);
    if (how.notBeforeAge) {
        waitForPowerUp(*ioDevice, *how.notBeforeAge, false);
    }
    if (_delegate) {
        _delegate->noteDeviceBecameAvailable(device);
    }
    // A delegate that stopped (and maybe started again) has handed the device to the new run:
    // this one must not take it out of the list.
    return !wasStoppedSince(epoch);
}

void QVDeviceMonitor::reportCouldNotIdentify(const std::shared_ptr<QVUSBDevice>& device) {
    if (_delegate) {
        _delegate->noteCouldNotIdentifyDevice(device);
    }
}

QVDeviceMonitor::MatchCode QVDeviceMonitor::tryToMatchDeviceDatabaseEntryForQVDevice(
    const std::shared_ptr<QVUSBDevice>& device, const std::shared_ptr<QVIODevice>& ioDevice,
    unsigned approach) {
    if (!QVDevice::isValidQuorvelID(device->quorvelID())) {
        return kMatchUndecided;
    }
    const auto id = static_cast<std::uint32_t>(device->quorvelID());
    if (!_deviceDatabase || !_deviceDatabase->hasEntryForQuorvelID(id)) {
        qv::logRecognition("Device is recognized, but not in database. Throwing it away!");
        return kMatchRejected;
    }
    auto entry = _deviceDatabase->entryForQuorvelID(id);
    if (!validateSerialPortsAvailability(*ioDevice, entry)) {
        qv::logRecognition(
            "Device is recognized does not have any port mappings. Throwing it away!");
        return kMatchRejected;
    }
    const MatchCode allowed =
        isAllowedDevice(device, approach != kApproachATCommands ? ioDevice : nullptr);
    if (allowed == kMatchRejected) {
        qv::logRecognition("Device is recognized but not allowed. Throwing it away!");
        return kMatchRejected;
    }
    device->setDatabaseEntry(entry);
    device->setAllowedDeviceRulesEntry(
        allowedDeviceRulesEntryForQuorvelID(static_cast<std::uint32_t>(device->quorvelID())));
    if (device->couldClassifyPortsFromIODevice(*ioDevice, entry->deviceShouldHaveSerialPorts())) {
        return allowed;
    }
    return kMatchUndecided;
}

QVDeviceMonitor::MatchCode QVDeviceMonitor::isAllowedDevice(
    const std::shared_ptr<QVUSBDevice>& device, const std::shared_ptr<QVIODevice>& ioDeviceOrNull) {
    QVDeviceFilter filter(_allowedDevicesRules);
    filter.setAcceptNotAllowedDevices(_acceptNotAllowedDevices);
    const QVDeviceFilterSubject subject = filterSubjectOf(*device);
    qv::Value details;
    if (filter.hasRuleWithDeviceDetails(subject)) {
        // The format's missing conversion letter is kept as the log has always shown it.
        qv::logRecognition("Device rules needs device details for %ll", device->quorvelID());
        if (ioDeviceOrNull) {
            details = device->getDeviceDetails(*ioDeviceOrNull);
        } else {
            // Without the IO device there are no ports to ask.
            qv::logRecognition("Device info died");
        }
    }
    switch (filter.isAllowedDevice(subject, details)) {
        case QVDeviceFilter::kNotNamed:
            return kMatchNoRule;
        case QVDeviceFilter::kAllowed:
            return kMatchAllowed;
        default:
            // kNotAllowed, and any verdict the filter may grow later: not admitted.
            return kMatchRejected;
    }
}

namespace {

bool isEmptyName(const std::optional<std::string>& name) {
    return !name || name->empty();
}

}  // namespace

void QVDeviceMonitor::renameDeviceIfNeccessary(const std::shared_ptr<QVUSBDevice>& device) {
    const auto& rules = device->allowedDeviceRulesEntry();
    std::optional<std::string> name;
    if (rules) {
        if (rules->shouldFetchDeviceNameUsingCGMM()) {
            name = device->fetchDeviceNameUsingCGMMFromSuitablePort();
            if (isEmptyName(name)) {
                name = rules->deviceName();
            }
        } else {
            name = rules->deviceName();
        }
    }
    if (!isEmptyName(name)) {
        device->setProductName(name);
    }
}

void QVDeviceMonitor::deviceRecognizedButNoRuleExistForIt(
    const std::shared_ptr<QVUSBDevice>& device, const std::shared_ptr<QVIODevice>& ioDevice) {
    const std::uint64_t epoch = examinationEpoch();
    reportCouldNotIdentify(device);
    if (!wasStoppedSince(epoch)) {
        removeDevice(ioDevice);
    }
}

void QVDeviceMonitor::timeoutHandlingDevice(const std::shared_ptr<QVIODevice>& ioDevice) {
    qv::logRecognition("Timout trying to recognize device: %@", ioDevice);
    deviceCouldNotBeRecognized(ioDevice);
}

void QVDeviceMonitor::deviceCouldNotBeRecognized(const std::shared_ptr<QVIODevice>& ioDevice) {
    qv::logRecognition("Dumping Device for analysis...");
    const std::uint64_t epoch = examinationEpoch();
    notifyApplicationOfUnidentifiableDevice(ioDevice);
    if (!wasStoppedSince(epoch)) {
        ioDevice->dumpUnderlyingIOKitEntryToConsole();
    }
}

void QVDeviceMonitor::notifyApplicationOfUnidentifiableDevice(
    const std::shared_ptr<QVIODevice>& ioDevice) {
    auto device = QVUSBDevice::device();
    ioDevice->updateFromIORegistry();
    if (canDecideQuorvelIDFromIODevice(*ioDevice)) {
        device->setQuorvelID(static_cast<std::int32_t>(quorvelIDFromIODevice(*ioDevice)));
    }
    device->initializeFromIODevice(*ioDevice);
    for (const auto& path : ioDevice->portPaths()) {
        device->addInterface(QVSerialInterface::portWithCapabilities(QVCapabilitySet(), path));
    }
    if (_delegate) {
        _delegate->noteCouldNotIdentifyDevice(device);
    }
}
