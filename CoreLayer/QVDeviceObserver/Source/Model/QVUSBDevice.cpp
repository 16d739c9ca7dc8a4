#include "QVUSBDevice.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <array>

#include "Events/QVIODevice.h"
#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Foundation/Logging.h"
#include "Foundation/Regex.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"
#include "Model/QVEthernetInterface.h"
#include "Model/ReverseString.h"

namespace {

constexpr const char* kVendorIDKey = "_vendorID";
constexpr const char* kProductIDKey = "_productID";
constexpr const char* kStrategyKey = "DeviceDatabase.PortIdentificationStrategy";
constexpr std::array<const char*, 3> kKnownStrategies = {
    QVUSBDevice::kByFileEnding, QVUSBDevice::kByPortNumber, QVUSBDevice::kByRegex};

std::optional<std::string> stringOrNil(const qv::Value& value) {
    const std::string* text = value.asString();
    return text != nullptr ? std::optional<std::string>(*text) : std::nullopt;
}

icu::UnicodeString fromUTF16(const std::u16string& text) {
    return icu::UnicodeString(text.data(), static_cast<std::int32_t>(text.size()));
}

// The file-ending test on reversed strings: the first pattern-length characters of the reversed
// path against the reversed pattern, letter case ignored. A path shorter than the pattern ends
// with nothing of it.
bool pathEndsWith(const std::string& path, const std::string& ending) {
    const std::u16string reversedPath = reverseString(std::string_view(path));
    const std::u16string reversedEnding = reverseString(std::string_view(ending));
    if (reversedPath.size() < reversedEnding.size()) {
        return false;
    }
    const icu::UnicodeString head = fromUTF16(reversedPath.substr(0, reversedEnding.size()));
    return head.caseCompare(fromUTF16(reversedEnding), U_FOLD_CASE_DEFAULT) == 0;
}

// The path a described port gets: the main pattern's, else the alternative's (which the log
// tells); nullopt when neither was found.
std::optional<std::string> chosenPortPath(const std::optional<std::string>& mainPath,
                                          const std::optional<std::string>& alternativePath) {
    if (mainPath || !alternativePath) {
        return mainPath;
    }
    qv::logRecognition("Main port not found. Using alternative port: \"%@\"", *alternativePath);
    return alternativePath;
}

}  // namespace

std::shared_ptr<QVUSBDevice> QVUSBDevice::device() {
    return std::make_shared<QVUSBDevice>();
}

void QVUSBDevice::setVendorID(std::int32_t vendorID) {
    if (_vendorID != vendorID) {
        _vendorID = vendorID;
        setChanged(true);
    }
}

void QVUSBDevice::setProductID(std::int32_t productID) {
    if (_productID != productID) {
        _productID = productID;
        setChanged(true);
    }
}

void QVUSBDevice::initializeFromIODevice(const QVIODevice& ioDevice) {
    setAvailable(true);
    setProductID(ioDevice.productID());
    setVendorID(ioDevice.vendorID());
    setProductName(stringOrNil(ioDevice.name()));
    setVendorName(stringOrNil(ioDevice.vendor()));
    setDriverBundle(stringOrNil(ioDevice.driverBundle()));
    setUUID(ioDevice.locationId());
    qv::logRecognition("locationID: %@", *getUUID());
}

void QVUSBDevice::removeAllInterfaces() {
    if (clearInterfaceList()) {
        setChanged(true);
    }
}

std::shared_ptr<QVDevice> QVUSBDevice::copy() const {
    auto copy = std::static_pointer_cast<QVUSBDevice>(QVDevice::copy());
    copy->setVendorID(vendorID());
    copy->setProductID(productID());
    return copy;
}

bool QVUSBDevice::isKindOfReceiverClass(const qv::Object& other) const {
    return dynamic_cast<const QVUSBDevice*>(&other) != nullptr;
}

std::shared_ptr<QVDevice> QVUSBDevice::makeEmptyOfSameClass() const {
    return std::make_shared<QVUSBDevice>();
}

// ---- port classification ----

bool QVUSBDevice::couldClassifyPortsFromIODevice(const QVIODevice& ioDevice,
                                                 bool classifySerialPorts) {
    removeAllInterfaces();
    if (classifySerialPorts && !couldIdentifySerialPortsFromIODevice(ioDevice)) {
        return false;
    }
    if (classifySerialPorts) {
        reportPortMarkConflicts(ioDevice);
    }
    const std::string* interfaceName = ioDevice.ethernetInterfaceName().asString();
    if (interfaceName == nullptr) {
        return true;
    }
    // Logs the record's own name, which is still unset here: the interface is added below.
    const std::optional<std::string> ownName = ethernetInterfaceName();
    qv::logRecognition("==> Ethernet interface name: %@",
                       ownName ? qv::FormatArg(*ownName) : qv::FormatArg(nullptr));
    QVCapabilitySet capabilities = {kQVCapabilityDataTransport};
    if (const auto& entry = databaseEntry()) {
        if (const auto layout = entry->portLayout()) {
            capabilities.insert(layout->ethernetCapabilities.begin(),
                                layout->ethernetCapabilities.end());
        } else {
            capabilities.merge(entry->ethernetInterfaceCapabilitiesAtIndex(0));
        }
    }
    addInterface(
        QVEthernetInterface::ethernetInterfaceWithCapabilities(capabilities, *interfaceName));
    return true;
}

bool QVUSBDevice::couldIdentifySerialPortsFromIODevice(const QVIODevice& ioDevice) {
    assertIsKnownClassificationScheme();
    const auto& entry = databaseEntry();
    if (!entry) {
        return false;
    }
    if (const auto layout = entry->portLayout()) {
        return couldIdentifySerialPortsByLayout(ioDevice, *layout);
    }
    // The entry's chain is broken: read key by key, so the lookup that fails raises at the same
    // point (after the same log lines and ports) as it always has.
    bool found = false;
    for (std::uint32_t index = 0; entry->hasPortIdentificationPatternAndCapabilitiesAtIndex(index);
         ++index) {
        const auto mainPath = getPortPathForAtIndex(index, ioDevice, false);
        const auto alternativePath = getPortPathForAtIndex(index, ioDevice, true);
        const std::optional<std::string> path = chosenPortPath(mainPath, alternativePath);
        if (!path) {
            if (entry->isPortRequired(index)) {
                qv::logRecognition("Neither main port or alternative port could be found...");
                return false;
            }
            continue;
        }
        addCapabilities(entry->portIdentificationCapabilitiesAtIndex(index), *path);
        found = true;
    }
    return found;
}

// The same walk as above on the entry's layout read once: main pattern, then the alternatives
// (always tried, for their log lines), the same choice and the same log lines.
bool QVUSBDevice::couldIdentifySerialPortsByLayout(const QVIODevice& ioDevice,
                                                   const QVDatabasePortLayout& layout) {
    bool found = false;
    for (const QVDatabasePortDescription& port : layout.ports) {
        const auto mainPath = portWithPatternByStrategy(ioDevice, layout.strategy, port.pattern);
        std::optional<std::string> alternativePath;
        for (const qv::Value& alternative : port.alternativePatterns) {
            alternativePath = portWithPatternByStrategy(ioDevice, layout.strategy, alternative);
            if (alternativePath) {
                break;
            }
        }
        const std::optional<std::string> path = chosenPortPath(mainPath, alternativePath);
        if (!path) {
            if (port.required) {
                qv::logRecognition("Neither main port or alternative port could be found...");
                return false;
            }
            continue;
        }
        addCapabilities(port.capabilities, *path);
        found = true;
    }
    return found;
}

void QVUSBDevice::reportPortMarkConflicts(const QVIODevice& ioDevice) {
    if (_reportedPortMarkConflict) {
        return;
    }
    for (const auto& interface : interfaces()) {
        const auto* port = dynamic_cast<const QVSerialInterface*>(interface.get());
        if (port == nullptr || !port->path()) {
            continue;
        }
        const std::string mark = ioDevice.portFunction(*port->path());
        if (mark != "QCDM" && mark != "GPS") {
            continue;
        }
        const char* role = port->hasCapability(kQVCapabilityDataTransport) ? "data"
                           : port->hasCapability("NetworkQuery")           ? "control"
                                                                           : nullptr;
        if (role == nullptr) {
            continue;
        }
        qv::logRecognition(
            "Port %@ is marked %@ by the udev rules, but the device database gives it %s: the "
            "model's port layout and the rules disagree (Quorvel ID %d)",
            *port->path(), mark, role,
            static_cast<int>(databaseEntry() ? databaseEntry()->quorvelID() : 0));
        _reportedPortMarkConflict = true;
    }
}

void QVUSBDevice::assertIsKnownClassificationScheme() const {
    const auto& entry = databaseEntry();
    if (!entry || !entry->hasKey(kStrategyKey)) {
        return;
    }
    const qv::Value& strategy = entry->portIdentificationStrategy();
    for (const char* known : kKnownStrategies) {
        if (strategy == qv::Value(known)) {
            return;
        }
    }
    std::string knownList;
    for (const char* known : kKnownStrategies) {
        knownList += knownList.empty() ? known : std::string(", ") + known;
    }
    throw qv::Exception(
        qv::kNSInternalInconsistencyException,
        qv::format("PortClassification: Unknown classification technique <%@>. Only "
                   "implementing: %@",
                   strategy, knownList));
}

std::optional<std::string> QVUSBDevice::getPortPathForAtIndex(
    std::uint32_t index, const QVIODevice& ioDevice, bool useAlternativePathIfExists) const {
    const auto& entry = databaseEntry();
    if (!entry) {
        return std::nullopt;
    }
    if (!useAlternativePathIfExists) {
        return portFromIODeviceWithPattern(ioDevice,
                                           entry->portIdentificationPatternAtIndex(index));
    }
    for (std::uint32_t alternative = 0;; ++alternative) {
        const qv::Value& pattern =
            entry->portIdentificationAltPatternForPortAtIndex(index, alternative);
        if (pattern.isNil()) {
            return std::nullopt;
        }
        if (auto path = portFromIODeviceWithPattern(ioDevice, pattern)) {
            return path;
        }
    }
}

std::optional<std::string> QVUSBDevice::portFromIODeviceWithPattern(
    const QVIODevice& ioDevice, const qv::Value& pattern) const {
    const auto& entry = databaseEntry();
    if (pattern.isNil() || !entry) {
        return std::nullopt;
    }
    return portWithPatternByStrategy(ioDevice, entry->portIdentificationStrategy(), pattern);
}

std::optional<std::string> QVUSBDevice::portWithPatternByStrategy(const QVIODevice& ioDevice,
                                                                  const qv::Value& strategyValue,
                                                                  const qv::Value& pattern) const {
    if (pattern.isNil()) {
        return std::nullopt;
    }
    const std::string* strategy = strategyValue.asString();
    if (strategy == nullptr) {
        return std::nullopt;
    }
    // A pattern is text; a number only makes sense as a port number. Anything else (a list a
    // hostile file put there) finds nothing.
    const std::string* text = pattern.asString();
    if (*strategy == kByPortNumber && (text != nullptr || pattern.isNumber())) {
        return portFromIODeviceAtIndex(ioDevice, static_cast<std::uint32_t>(pattern.intValue()));
    }
    if (text == nullptr) {
        return std::nullopt;
    }
    if (*strategy == kByFileEnding) {
        return portFromIODeviceWhichEndsWith(ioDevice, *text);
    }
    if (*strategy == kByRegex) {
        return portFromIODeviceMatchingRegex(ioDevice, *text);
    }
    return std::nullopt;
}

std::optional<std::string> QVUSBDevice::portFromIODeviceWhichEndsWith(
    const QVIODevice& ioDevice, const std::string& ending) const {
    for (const auto& path : ioDevice.portPaths()) {
        if (pathEndsWith(path, ending)) {
            return path;
        }
    }
    qv::logRecognition("Could not find port by file-ending with pattern: %@", ending);
    return std::nullopt;
}

std::optional<std::string> QVUSBDevice::portFromIODeviceAtIndex(const QVIODevice& ioDevice,
                                                                std::uint32_t index) const {
    if (index < ioDevice.portPaths().size()) {
        return ioDevice.portPaths()[index];
    }
    // Logged as a signed number: a negative pattern shows as itself.
    qv::logRecognition("Could not find port with index: %i", static_cast<std::int32_t>(index));
    return std::nullopt;
}

std::optional<std::string> QVUSBDevice::portFromIODeviceMatchingRegex(
    const QVIODevice& ioDevice, const std::string& regex) const {
    const auto compiled = qv::Regex::compileCached(regex, false);
    if (!compiled) {
        return std::nullopt;
    }
    for (const auto& path : ioDevice.portPaths()) {
        if (compiled->matches(path)) {
            return path;
        }
    }
    return std::nullopt;
}

bool QVUSBDevice::doesString(const std::string& string, const std::string& regex) {
    const auto compiled = qv::Regex::compileCached(regex, false);
    return compiled && compiled->matches(string);
}

std::shared_ptr<QVSerialInterface> QVUSBDevice::interfaceWithPortPath(
    const std::string& path) const {
    for (const auto& interface : interfaces()) {
        // Cast the plain pointer first: a shared one is only made for the port that matches.
        const auto* port = dynamic_cast<const QVSerialInterface*>(interface.get());
        if (port != nullptr && port->path() == path) {
            return std::static_pointer_cast<QVSerialInterface>(interface);
        }
    }
    return nullptr;
}

void QVUSBDevice::addCapabilities(const QVCapabilitySet& capabilities, const std::string& path) {
    if (auto port = interfaceWithPortPath(path)) {
        port->addCapabilities(capabilities);
        return;
    }
    addInterface(QVSerialInterface::portWithCapabilities(capabilities, path));
}

// ---- persistent forms ----

qv::Value QVUSBDevice::toDictionary() const {
    qv::Value dictionary = QVDevice::toDictionary();
    dictionary.set(kVendorIDKey, qv::Value::integer(_vendorID));
    dictionary.set(kProductIDKey, qv::Value::integer(_productID));
    return dictionary;
}

void QVUSBDevice::readDictionary(const qv::Value& dictionary) {
    QVDevice::readDictionary(dictionary);
    _vendorID = dictionary[kVendorIDKey].intValue();
    _productID = dictionary[kProductIDKey].intValue();
}

std::shared_ptr<QVUSBDevice> QVUSBDevice::loadDictionary(const qv::Value& dictionary) {
    auto device = std::make_shared<QVUSBDevice>();
    device->fillFromDictionary(dictionary);
    return device;
}

void QVUSBDevice::encodeWithCoder(qv::KeyedArchiver& coder) const {
    QVDevice::encodeWithCoder(coder);
    coder.encodeInt32(_vendorID, kVendorIDKey);
    coder.encodeInt32(_productID, kProductIDKey);
}

void QVUSBDevice::decodeWithCoder(qv::KeyedUnarchiver& coder) {
    QVDevice::decodeWithCoder(coder);
    _vendorID = coder.decodeInt32(kVendorIDKey);
    _productID = coder.decodeInt32(kProductIDKey);
}

std::shared_ptr<QVUSBDevice> QVUSBDevice::initWithCoder(qv::KeyedUnarchiver& coder) {
    auto device = std::make_shared<QVUSBDevice>();
    return device->fillFromCoder(coder) ? device : nullptr;
}
