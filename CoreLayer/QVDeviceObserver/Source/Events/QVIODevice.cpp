#include "QVIODevice.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <typeinfo>

#include "Foundation/Format.h"
#include "Foundation/Logging.h"
#include "IOKit/IOKitLib.h"
#include "IOKit/UdevMapping.h"
#include "RunLoop/RunLoop.h"

namespace {

constexpr std::int32_t kSonyEricssonVendorID = 4046;
constexpr std::string_view kAppleBundlePrefix = "com.apple.";

// Registry texts come from devices: anything that is not a string counts as missing.
qv::Value stringOrNil(qv::Value value) {
    return value.isString() ? std::move(value) : qv::Value();
}

bool isAppleBundle(const qv::Value& identifier) {
    const std::string* text = identifier.asString();
    return text != nullptr && text->starts_with(kAppleBundlePrefix);
}

qv::Value arrayOf(const std::vector<std::string>& items) {
    qv::Array array;
    array.reserve(items.size());
    for (const std::string& item : items) {
        array.emplace_back(item);
    }
    return qv::Value(std::move(array));
}

// The "CFBundleIdentifier" of the nearest ancestor that has one (nil when none does), following
// the first provider of each entry.
qv::Value nearestAncestorBundle(io_registry_entry_t entry) {
    io_registry_entry_t current = entry;
    bool ownsCurrent = false;
    qv::Value identifier;
    while (identifier.isNil()) {
        io_iterator_t parents = IO_OBJECT_NULL;
        if (IORegistryEntryGetParentIterator(current, kIOServicePlane, &parents) != KERN_SUCCESS) {
            break;
        }
        io_registry_entry_t parent = IOIteratorNext(parents);
        IOObjectRelease(parents);
        if (ownsCurrent) {
            IOObjectRelease(current);
            ownsCurrent = false;
        }
        if (parent == IO_OBJECT_NULL) {
            break;
        }
        current = parent;
        ownsCurrent = true;
        identifier = IORegistryEntryCreateCFProperty(current, "CFBundleIdentifier");
    }
    if (ownsCurrent) {
        IOObjectRelease(current);
    }
    return identifier;
}

}  // namespace

std::shared_ptr<QVIODevice> QVIODevice::deviceWithServiceEntry(io_registry_entry_t entry) {
    return std::make_shared<QVIODevice>(entry);
}

QVIODevice::QVIODevice(io_registry_entry_t entry)
    : _representedEntry(entry), _timeItWasAdded(qv::RunLoop::current().currentDate()) {
    IOObjectRetain(_representedEntry);
    updateFromIORegistry();
}

QVIODevice::~QVIODevice() {
    IOObjectRelease(_representedEntry);
    _representedEntry = IO_OBJECT_NULL;
}

bool QVIODevice::hasSerialPorts() const {
    return !_portsPaths.empty();
}

bool QVIODevice::isMissingSerialAndEthernetInterfaces() const {
    return _portsPaths.empty() && _ethernetInterfaceName.isNil();
}

bool QVIODevice::hasDriverVolume() const {
    return !_driverDiskName.isNil();
}

bool QVIODevice::hasSecondaryVolume() const {
    return !_secondaryDiskName.isNil();
}

double QVIODevice::timeIntervalSinceItWasAdded() const {
    qv::Date now = qv::RunLoop::current().currentDate();
    return std::fabs(now.secondsSinceReferenceDate - _timeItWasAdded.secondsSinceReferenceDate);
}

qv::Value QVIODevice::propertyWithName(const std::string& key) const {
    return IORegistryEntryCreateCFProperty(_representedEntry, key);
}

void QVIODevice::readOwnProperties() {
    _name = stringOrNil(IORegistryEntryCreateCFProperty(_representedEntry, "USB Product Name"));
    _vendor = stringOrNil(IORegistryEntryCreateCFProperty(_representedEntry, "USB Vendor Name"));
    _locationId = IORegistryEntryCreateCFProperty(_representedEntry, "locationID");
    _vendorID = IORegistryEntryCreateCFProperty(_representedEntry, "idVendor").intValue();
    _productID = IORegistryEntryCreateCFProperty(_representedEntry, "idProduct").intValue();
}

void QVIODevice::updateFromIORegistry() {
    // What is read below depends on the registry alone: when nothing the entry can see has
    // changed since the last read, the walk would find the same again. The preparation ticks
    // refresh every listed device each second, most of them unchanged.
    const std::uint64_t stamp = qvRegistryEntryGetChangeStamp(_representedEntry);
    if (stamp != 0 && stamp == _registryStamp) {
        return;
    }
    _registryStamp = stamp;
    // A CD that has gone must not be unmounted later; the other names survive a refresh.
    _driverDiskName = qv::Value();
    readOwnProperties();

    io_iterator_t below = IO_OBJECT_NULL;
    if (IORegistryEntryCreateIterator(_representedEntry, kIOServicePlane,
                                      kIORegistryIterateRecursively, &below) != KERN_SUCCESS) {
        return;
    }
    _ports.clear();
    _portsPaths.clear();
    _portsNotForAT.clear();
    _portFunctions.clear();
    while (io_registry_entry_t entry = IOIteratorNext(below)) {
        examineDescendant(entry);
        IOObjectRelease(entry);
    }
    IOObjectRelease(below);
}

void QVIODevice::examineDescendant(io_registry_entry_t entry) {
    io_name_t name{};
    if (IORegistryEntryGetName(entry, name) != KERN_SUCCESS) {
        return;
    }
    if (std::strcmp(name, "IOSerialBSDClient") == 0) {
        qv::Value tty = IORegistryEntryCreateCFProperty(entry, "IOTTYDevice");
        if (const std::string* text = tty.asString()) {
            _ports.push_back(*text);
        }
        qv::Value callout = IORegistryEntryCreateCFProperty(entry, "IOCalloutDevice");
        if (const std::string* text = callout.asString()) {
            _portsPaths.push_back(*text);
            qv::Value function = IORegistryEntryCreateCFProperty(entry, qv::kPortFunctionKey);
            if (const std::string* mark = function.asString()) {
                _portFunctions.emplace_back(*text, *mark);
                if (!qv::isPortFunctionForAT(*mark)) {
                    _portsNotForAT.push_back(*text);
                }
            }
        }
    }
    if (_driverBundle.isNil()) {
        findDriverBundleAt(entry);
    }
    io_name_t className{};
    if (IOObjectGetClass(entry, className) != KERN_SUCCESS) {
        className[0] = '\0';
    }
    if (std::strcmp(className, "IOCDMedia") == 0) {
        _driverDiskName = stringOrNil(IORegistryEntryCreateCFProperty(entry, "BSD Name"));
    }
    if (std::strcmp(name, "IOEthernetInterface") == 0 ||
        std::strcmp(className, "IOEthernetInterface") == 0) {
        // Sony Ericsson phones publish an Ethernet interface the framework must not use.
        if (_vendorID != kSonyEricssonVendorID) {
            _ethernetInterfaceName =
                stringOrNil(IORegistryEntryCreateCFProperty(entry, "BSD Name"));
        }
    }
    // Exactly IOMedia: a CD medium is an IOMedia subclass and is not a secondary disk.
    if (std::strcmp(className, "IOMedia") == 0) {
        qv::Value bsdName = IORegistryEntryCreateCFProperty(entry, "BSD Name");
        qv::Value leaf = IORegistryEntryCreateCFProperty(entry, "Leaf");
        if (leaf.isBoolean() && !leaf.boolValue()) {
            _secondaryDiskName = stringOrNil(std::move(bsdName));
        }
    }
}

void QVIODevice::findDriverBundleAt(io_registry_entry_t entry) {
    // The device's own driver is the first non-Apple driver attached directly to an entry whose
    // provider chain is Apple's.
    // The children are looked at first: most entries have no driver below them, and then the
    // climb to the ancestors (every tick, for every entry) is not needed.
    io_iterator_t children = IO_OBJECT_NULL;
    if (IORegistryEntryGetChildIterator(entry, kIOServicePlane, &children) != KERN_SUCCESS) {
        return;
    }
    qv::Value candidate;
    while (io_registry_entry_t child = IOIteratorNext(children)) {
        qv::Value identifier = IORegistryEntryCreateCFProperty(child, "CFBundleIdentifier");
        IOObjectRelease(child);
        if (candidate.isNil() && identifier.isString() && !isAppleBundle(identifier)) {
            candidate = std::move(identifier);
        }
    }
    IOObjectRelease(children);
    if (!candidate.isNil() && isAppleBundle(nearestAncestorBundle(entry))) {
        _driverBundle = std::move(candidate);
    }
}

bool QVIODevice::isPortForATCommands(const std::string& path) const {
    return std::find(_portsNotForAT.begin(), _portsNotForAT.end(), path) == _portsNotForAT.end();
}

std::string QVIODevice::portFunction(const std::string& path) const {
    for (const auto& [portPath, mark] : _portFunctions) {
        if (portPath == path) {
            return mark;
        }
    }
    return "";
}

bool QVIODevice::isEqual(const qv::Object& other) const {
    if (typeid(other) != typeid(*this)) {
        return false;
    }
    const auto& device = static_cast<const QVIODevice&>(other);
    return device._productID == _productID && device._vendorID == _vendorID &&
           !device._locationId.isNil() && !_locationId.isNil() && device._locationId == _locationId;
}

std::string QVIODevice::description() const {
    return qv::format(
        "Represented IOKit Object: %d\nName: %@\tVendor: %@\nVendorID: %d\tProductID: "
        "%d\t locationID: %@\nPorts: %@\nPortPaths: %@\nEthernetInterfaceName: "
        "%@\nDriverBundle: %@",
        static_cast<int>(_representedEntry), _name, _vendor, _vendorID, _productID, _locationId,
        arrayOf(_ports), arrayOf(_portsPaths), _ethernetInterfaceName, _driverBundle);
}

void QVIODevice::dumpUnderlyingIOKitEntryToConsole() const {
    io_string_t path{};
    if (IORegistryEntryGetPath(_representedEntry, kIOServicePlane, path) == KERN_SUCCESS) {
        qv::logRecognition("[ %s ]", path);
    }
    qv::Value tree = ioPropertiesForIOEntry(_representedEntry);
    qv::logRecognition("%@\n", tree);
}

qv::Value QVIODevice::ioPropertiesForIOEntry(io_registry_entry_t entry) {
    qv::Value properties;
    if (IORegistryEntryCreateCFProperties(entry, &properties) != KERN_SUCCESS ||
        !properties.isDictionary()) {
        qv::logRecognition("couldn't get properties from entry");
        return {};
    }
    io_iterator_t children = IO_OBJECT_NULL;
    if (IORegistryEntryGetChildIterator(entry, kIOServicePlane, &children) != KERN_SUCCESS) {
        qv::logRecognition("couldn't create iterator");
        return {};
    }
    int counter = 0;
    while (io_registry_entry_t child = IOIteratorNext(children)) {
        io_name_t name{};
        if (IORegistryEntryGetNameInPlane(child, kIOServicePlane, name) != KERN_SUCCESS) {
            qv::logRecognition("couldn't get service entry name");
            IOObjectRelease(child);
            continue;
        }
        qv::Value childTree = ioPropertiesForIOEntry(child);
        if (!childTree.isNil()) {
            properties.set(qv::format("%s@%d", name, counter), std::move(childTree));
        }
        ++counter;
        IOObjectRelease(child);
    }
    IOObjectRelease(children);
    return properties;
}
