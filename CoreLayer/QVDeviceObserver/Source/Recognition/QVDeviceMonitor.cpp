#include "Recognition/QVDeviceMonitor.h"

#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Logging.h"
#include "Foundation/Platform.h"
#include "IOKit/IOKitLib.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Model/QVUSBDevice.h"
#include "Preparation/QVDriverDiskEjector.h"
#include "QVDeviceKnowledge/QVDeviceTables.h"
#include "Rules/QVAllowedDeviceRulesEntry.h"

namespace {

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
