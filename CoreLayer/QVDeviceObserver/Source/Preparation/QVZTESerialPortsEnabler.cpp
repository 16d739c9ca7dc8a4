#include "QVZTESerialPortsEnabler.h"

#include "Events/QVDeviceNotificationCenter.h"
#include "Events/RegistryFeedUsers.h"
#include "Foundation/Logging.h"
#include "Foundation/Platform.h"
#include "Foundation/Task.h"
#include "IOKit/IOCFPlugIn.h"
#include "IOKit/IOKitLib.h"
#include "Preparation/QVDriverDiskEjector.h"
#include "Preparation/QVSystemHelper.h"
#include "QVDeviceKnowledge/QVSerialPortPreparationTable.h"

namespace {

std::uint32_t hex(std::int64_t value) {
    return static_cast<std::uint32_t>(value);
}

// The enabler's row for the device's model, null for a stick it does not look after.
const SerialPortPreparationMatch* preparationRowOf(const QVIODevice& device) {
    return QVSerialPortPreparationTable::rowForVendorID(hex(device.vendorID()),
                                                        hex(device.productID()));
}

}  // namespace

const std::vector<QVZTESerialPortsEnabler::Model>& QVZTESerialPortsEnabler::subscribedModels() {
    static const std::vector<Model> models = [] {
        std::vector<Model> list;
        for (const SerialPortPreparationMatch& row : QVSerialPortPreparationTable::rows()) {
            list.push_back({static_cast<std::int32_t>(row.vendorID),
                            static_cast<std::int32_t>(row.productID)});
        }
        return list;
    }();
    return models;
}

QVZTESerialPortsEnabler::~QVZTESerialPortsEnabler() {
    releaseRegistryFeed();
}

void QVZTESerialPortsEnabler::startEnableSerialPortsForDevices() {
    // First the feed, so that the sticks already attached are in the registry when subscribing.
    if (!_usesRegistryFeed) {
        _usesRegistryFeed = true;
        qv::registryFeedUserStarted();
    }
    for (const Model& model : subscribedModels()) {
        listenForNotificationsForVendorID(model.vendorID, model.productID);
    }
}

void QVZTESerialPortsEnabler::stopEnableSerialPortsForDevices() {
    QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->removeAllNotificationsOfObserver(
        this);
    stopExamination();
    releaseRegistryFeed();
}

void QVZTESerialPortsEnabler::releaseRegistryFeed() {
    if (_usesRegistryFeed) {
        _usesRegistryFeed = false;
        qv::registryFeedUserStopped();
    }
}

void QVZTESerialPortsEnabler::handleDevice(const std::shared_ptr<QVIODevice>& device) {
    device->updateFromIORegistry();
    // Until its CD is mounted the stick has not finished coming up in storage mode.
    const std::string* driverDisk = device->driverDiskName().asString();
    if (!device->hasDriverVolume() || driverDisk == nullptr || !isVolumeMounted(*driverDisk)) {
        return;
    }
    qv::logRecognition("Enabling SerialPorts for device: %@", device);
    if (needsHuaweiQuickStartSwitcher(device)) {
        ejectHuaweiQS(device);
        removeDevice(device);
        return;
    }
    // Copied: the device may be refreshed by someone else while the programs run.
    const std::string cd = *driverDisk;
    runDiskUtility({"unmountDisk", "force", cd});
    runDiskUtility({"eject", cd});
    const std::string* secondary = device->secondaryDiskName().asString();
    if (_ejectSecondaryDisk && device->hasSecondaryVolume() && secondary != nullptr &&
        isVolumeMounted(*secondary)) {
        const std::string disk = *secondary;
        qv::logRecognition("Eject secondary disk for device: %@", device);
        runDiskUtility({"unmountDisk", "force", disk});
        runDiskUtility({"eject", disk});
    }
    const SerialPortPreparationMatch* row = preparationRowOf(*device);
    if (row != nullptr &&
        row->preparation == QVSerialPortPreparation::kEjectDriverDiskThenReEnumerateIfPortless) {
        reEnumerateIfNoPorts(device, static_cast<std::int32_t>(row->vendorID),
                             static_cast<std::int32_t>(row->productID));
    }
    removeDevice(device);
}

bool QVZTESerialPortsEnabler::needsHuaweiQuickStartSwitcher(
    const std::shared_ptr<QVIODevice>& device) const {
    if (!device) {
        return false;
    }
    const SerialPortPreparationMatch* row = preparationRowOf(*device);
    return row != nullptr && row->preparation == QVSerialPortPreparation::kQuickStartSwitch;
}

void QVZTESerialPortsEnabler::ejectHuaweiQS(const std::shared_ptr<QVIODevice>& device) {
    if (!device) {
        return;
    }
    std::string argument = qv::format("/pid=,%x", hex(device->productID()));
    qv::TaskLauncher::shared().launch(cardPrepToolPath(), {argument});
}

bool QVZTESerialPortsEnabler::isVolumeMounted(const std::string& bsdName) const {
    return !volumeNameForBSD(bsdName).isNil();
}

void QVZTESerialPortsEnabler::reEnumerateIfNoPorts(const std::shared_ptr<QVIODevice>& device,
                                                   std::int32_t theVendor, std::int32_t prod) {
    if (!device || device->vendorID() != theVendor || device->productID() != prod) {
        return;
    }
    // The TTY names decide here, not the callout paths.
    if (device->ports().empty()) {
        doReEnumerate_vid(theVendor, prod);
    }
}

void QVZTESerialPortsEnabler::doReEnumerate_vid(std::int32_t vid, std::int32_t prod) {
    mach_port_t masterPort = MACH_PORT_NULL;
    if (IOMasterPort(bootstrap_port, &masterPort) != KERN_SUCCESS) {
        return;
    }
    CFMutableDictionaryRef matching = IOServiceMatching("IOUSBDevice");
    if (!matching.isDictionary()) {
        return;
    }
    matching.set("idVendor", vid);
    matching.set("idProduct", prod);
    io_iterator_t iterator = IO_OBJECT_NULL;
    IOServiceGetMatchingServices(masterPort, matching, &iterator);
    while (io_service_t service = IOIteratorNext(iterator)) {
        qv::writeToStandardOutput(qv::format("Found device for reEnumerate 0x%x", hex(service)));
        std::shared_ptr<IOCFPlugInInterface> plugIn;
        std::int32_t score = 0;
        IOCreatePlugInInterfaceForService(service, kIOUSBDeviceUserClientTypeID,
                                          kIOCFPlugInInterfaceID, &plugIn, &score);
        kern_return_t released = IOObjectRelease(service);
        if (released != KERN_SUCCESS || !plugIn) {
            qv::writeToStandardOutput(
                qv::format("unable to create a plugin (%08x)", hex(released)));
            continue;
        }
        std::shared_ptr<IOUSBDeviceInterface> deviceInterface;
        HRESULT queried = plugIn->QueryInterface(kIOUSBDeviceInterfaceID, &deviceInterface);
        IODestroyPlugInInterface(plugIn);
        if (queried != S_OK || !deviceInterface) {
            qv::writeToStandardOutput(
                qv::format("couldn't create a device interface (%08x)", hex(queried)));
            continue;
        }
        IOReturn opened = deviceInterface->USBDeviceOpen();
        if (opened == kIOReturnSuccess) {
            deviceInterface->USBDeviceReEnumerate(0);
        } else {
            qv::writeToStandardOutput(qv::format("unable to open interface err:%08x", hex(opened)));
            if (opened == kIOReturnNotPrivileged) {
                qv::logRecognition(
                    "No permission to reset USB device %04x:%04x: this user cannot write its "
                    "node under /dev/bus/usb. The udev rule installed with the framework gives "
                    "the user at the seat access to known sticks; otherwise only root may.",
                    hex(vid), hex(prod));
            }
        }
        // Released without closing: the re-enumeration makes the device leave and come back.
        deviceInterface.reset();
    }
    IOObjectRelease(iterator);
    mach_port_deallocate(mach_task_self(), masterPort);
}

std::string QVZTESerialPortsEnabler::diskUtilityPath() const {
    return _diskUtilityPath ? *_diskUtilityPath
                            : qv::Bundle::pathForHelperTool(QVDriverDiskEjector::kDiskUtilityName);
}

std::string QVZTESerialPortsEnabler::cardPrepToolPath() const {
    return _cardPrepToolPath ? *_cardPrepToolPath
                             : qv::Bundle::pathForHelperTool(kCardPrepToolName);
}

void QVZTESerialPortsEnabler::runDiskUtility(std::vector<std::string> arguments) const {
    qv::TaskLauncher::shared().run(diskUtilityPath(), arguments);
}
