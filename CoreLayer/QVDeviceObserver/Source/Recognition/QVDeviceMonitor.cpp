#include "Recognition/QVDeviceMonitor.h"

#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Logging.h"
#include "Foundation/Platform.h"
#include "IOKit/IOKitLib.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Model/QVSerialInterface.h"
#include "Model/QVUSBDevice.h"
#include "Preparation/QVDriverDiskEjector.h"
#include "QVDeviceKnowledge/QVDeviceTableLookups.h"
#include "QVDeviceKnowledge/QVDeviceTables.h"
#include "Rules/QVAllowedDeviceRulesEntry.h"
#include "Rules/QVDeviceFilter.h"
#include "RunLoop/RunLoop.h"

namespace {

constexpr double kPowerUpSleepStep = 0.5;
constexpr std::int32_t kLastSystemAcceptingNotAllowedDevices = 0x104F;

bool isUSBDeviceRow(const DevPropertyMatch& row) {
    return (row.vendorID != 0 || row.productID != 0) &&
           std::string_view(row.ioKitClass ? row.ioKitClass : "") == "IOUSBDevice";
}

}  // namespace

std::shared_ptr<QVDeviceMonitor>& QVDeviceMonitor::sharedSlot() {
    static std::shared_ptr<QVDeviceMonitor> shared;
    return shared;
}

std::shared_ptr<QVDeviceMonitor> QVDeviceMonitor::getInstance() {
    return getInstanceOfClass<QVDeviceMonitor>();
}

void QVDeviceMonitor::resetSharedForTesting() {
    sharedSlot().reset();
}

std::shared_ptr<QVDeviceMonitor> QVDeviceMonitor::create() {
    return std::shared_ptr<QVDeviceMonitor>(new QVDeviceMonitor());
}

QVDeviceMonitor::QVDeviceMonitor() {
    _identifiedDevices.emplace();
    _deviceDatabase = QVDeviceDatabase::databaseFromBundle();
    _diskSupressor = std::make_shared<QVDriverDiskEjector>();
    // Systems before 10.5 accepted devices the rules did not allow; that leniency is kept.
    _acceptNotAllowedDevices = false;
    std::int32_t systemVersion = 0;
    if (qv::Gestalt(qv::gestaltSystemVersion, &systemVersion) == qv::noErr &&
        systemVersion <= kLastSystemAcceptingNotAllowedDevices) {
        _acceptNotAllowedDevices = true;
    }
    _started = false;
    updateKnownVendors();
}

QVDeviceMonitor::~QVDeviceMonitor() = default;

void QVDeviceMonitor::start() {
    if (_started) {
        return;
    }
    _started = true;
    registerForDeviceNotifications();
}

void QVDeviceMonitor::updateKnownVendors() {
    std::set<int> vendors;
    for (const DevPropertyMatch* row = devicesInfo; row->productID != kDevicesInfoEndMarker;
         ++row) {
        if (isUSBDeviceRow(*row)) {
            vendors.insert(static_cast<int>(row->vendorID));
        }
    }
    _knownVendors = std::move(vendors);
}

void QVDeviceMonitor::registerForDeviceNotifications() {
    qv::logRecognition("Registering for device notifications");
    _identifiedDevices.emplace();
    for (const DevPropertyMatch* row = devicesInfo; row->productID != kDevicesInfoEndMarker;
         ++row) {
        if (isUSBDeviceRow(*row)) {
            listenForNotificationsForTableEntry(*row);
        }
    }
}

std::string QVDeviceMonitor::ioUniqueIdentifierFromDevicePropMatch(const DevPropertyMatch& row) {
    return qv::format("%i_%i_%s", static_cast<int>(row.vendorID), static_cast<int>(row.productID),
                      row.ioKitClass ? row.ioKitClass : "");
}

qv::Value QVDeviceMonitor::ioRegistryMatchingDictForTableEntry(const DevPropertyMatch& row) {
    qv::Value matching = IOServiceMatching(row.ioKitClass);
    matching.set("idVendor", qv::Value(static_cast<long long>(row.vendorID)));
    matching.set("idProduct", qv::Value(static_cast<long long>(row.productID)));
    return matching;
}

void QVDeviceMonitor::listenForNotificationsForTableEntry(const DevPropertyMatch& row) {
    std::string key = ioUniqueIdentifierFromDevicePropMatch(row);
    for (const auto& registered : _registeredDevices) {
        if (registered == key) {
            return;
        }
    }
    listenForNotificationsForMatchingDictionary(ioRegistryMatchingDictForTableEntry(row));
    _registeredDevices.push_back(std::move(key));
}

std::optional<std::vector<std::shared_ptr<QVDevice>>> QVDeviceMonitor::identifiedDevices() const {
    return _identifiedDevices;
}

std::shared_ptr<QVAllowedDeviceRulesEntry> QVDeviceMonitor::allowedDeviceRulesEntryForQuorvelID(
    std::uint32_t quorvelID) const {
    // A member that is not a dictionary reads as one without keys instead of raising.
    for (std::size_t i = 0; i < _allowedDevicesRules.count(); ++i) {
        const qv::Value& rule = _allowedDevicesRules.at(i);
        if (static_cast<std::uint32_t>(rule["QuorvelID"].intValue()) == quorvelID) {
            return QVAllowedDeviceRulesEntry::entryWithDict(rule);
        }
    }
    return nullptr;
}

void QVDeviceMonitor::devicesRemoved(const QVIODeviceArray& devices) {
    QVDeviceNotificationReceiver::devicesRemoved(devices);
    for (auto it = devices.rbegin(); it != devices.rend(); ++it) {
        _diskSupressor->removeDevice(*it);
        removeRecognizedDeviceForIODevice(*it);
    }
}

std::shared_ptr<QVDevice> QVDeviceMonitor::identifiedDeviceForIODevice(
    const std::shared_ptr<QVIODevice>& ioDevice) const {
    if (!_identifiedDevices || !ioDevice) {
        return nullptr;
    }
    for (const auto& device : *_identifiedDevices) {
        const auto& uuid = device->getUUID();
        if (uuid && *uuid == ioDevice->locationId()) {
            return device;
        }
    }
    return nullptr;
}

void QVDeviceMonitor::removeRecognizedDeviceForIODevice(
    const std::shared_ptr<QVIODevice>& ioDevice) {
    std::shared_ptr<QVDevice> device = identifiedDeviceForIODevice(ioDevice);
    if (!device) {
        return;
    }
    device->setAvailable(false);
    if (_delegate) {
        _delegate->noteDeviceBecameMissing(device);
    }
    if (_identifiedDevices) {
        auto& list = *_identifiedDevices;
        for (auto it = list.begin(); it != list.end(); ++it) {
            if (*it == device) {
                list.erase(it);
                break;
            }
        }
    }
}

void QVDeviceMonitor::teardown() {
    qv::logRecognition("QVDeviceMonitor: teardown");
    // Nothing pending is examined again, and no unmount starts: a stop ends all work.
    stopExamination();
    _diskSupressor->stopExamination();
    std::vector<std::shared_ptr<QVDevice>> leaving;
    if (_identifiedDevices) {
        leaving = *_identifiedDevices;
        _identifiedDevices->clear();
    }
    for (const auto& device : leaving) {
        auto* usb = dynamic_cast<QVUSBDevice*>(device.get());
        qv::logRecognition(
            "QVDeviceMonitor: notify delegate that device became missing: VID:%i, PID: %i",
            usb ? usb->vendorID() : 0, usb ? usb->productID() : 0);
        if (_delegate) {
            _delegate->noteDeviceBecameMissing(device);
        }
    }
    // Only this monitor's subscriptions: other monitors and an enabler may share the center.
    QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->removeAllNotificationsOfObserver(
        this);
    _identifiedDevices.reset();
    _registeredDevices.clear();
    _started = false;
}

void QVDeviceMonitor::dumpAllowedDevices() const {
    std::string list;
    for (std::size_t i = 0; i < _allowedDevicesRules.count(); ++i) {
        const qv::Value& rule = _allowedDevicesRules.at(i);
        if (!rule["QuorvelID"].isNil()) {
            list += qv::format("\n%@= %@ ", rule["QuorvelID"], rule["DeviceName"]);
        }
    }
    qv::logRecognition("\n ==== List of allowed devices from (dumpAllowedDevices): ===== %@ ",
                       qv::Value(list));
}

void QVDeviceMonitor::didStartScheduler() {
    qv::logRecognition("Starting Identifier");
    if (_delegate) {
        _delegate->noteDeviceIdentificationStarted();
    }
}

void QVDeviceMonitor::didStopScheduler() {
    qv::logRecognition("Stopping Identifier");
    if (_delegate) {
        _delegate->noteDeviceIdentificationStopped();
    }
}

// ---- identification ----

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
    const int match = tryToMatchDeviceDatabaseEntryForQVDevice(device, ioDevice, approach);
    if (wasStoppedSince(epoch)) {
        return false;
    }
    switch (match) {
        case kMatchNoRule:
            qv::logRecognition("Device is recognized but no rule could be found for it");
            deviceRecognizedButNoRuleExistForIt(device, ioDevice);
            return false;
        case kMatchAllowed: {
            const auto& matched = device->databaseEntry();
            if (matched && matched->shouldSupressDisk()) {
                _diskSupressor->addDevice(ioDevice);
            }
            renameDeviceIfNeccessary(device);
            addIdentifiedDevice(device);
            pushDevice(device);
            // Announced no earlier than the power-up delay after arrival.
            waitForPowerUp(*ioDevice, delay, false);
            if (_delegate) {
                _delegate->noteDeviceBecameAvailable(device);
            }
            // A delegate that stopped (and maybe started again) has handed the device to the new
            // run: this one must not take it out of the list.
            return !wasStoppedSince(epoch);
        }
        case kMatchRejected:
            if (_delegate) {
                _delegate->noteCouldNotIdentifyDevice(device);
            }
            if (!wasStoppedSince(epoch)) {
                removeDevice(ioDevice);
            }
            return false;
        default:
            return false;
    }
}

int QVDeviceMonitor::tryToMatchDeviceDatabaseEntryForQVDevice(
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
    int allowed = isAllowedDevice(device, approach != kApproachATCommands ? ioDevice : nullptr);
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

int QVDeviceMonitor::isAllowedDevice(const std::shared_ptr<QVUSBDevice>& device,
                                     const std::shared_ptr<QVIODevice>& ioDeviceOrNull) {
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
        case 0:
            return kMatchNoRule;
        case 2:
            return kMatchAllowed;
        default:
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
    if (_delegate) {
        _delegate->noteCouldNotIdentifyDevice(device);
    }
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
