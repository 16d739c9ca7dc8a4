#include "QVDevice.h"

#include <typeinfo>

#include "Foundation/Format.h"
#include "Foundation/Logging.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"
#include "Model/QVEthernetInterface.h"
#include "Rules/QVAllowedDeviceRulesEntry.h"
#include "modem_query_tools/ModemQueryTools.h"

namespace {

constexpr const char* kClassKey = "class";
constexpr const char* kAvailableKey = "_available";
constexpr const char* kQuorvelIDKey = "_quorvelID";
constexpr const char* kLocationIDKey = "_locationID";
constexpr const char* kInterfacesKey = "_interfaces";
constexpr const char* kProductNameKey = "_productName";
constexpr const char* kVendorNameKey = "_vendorName";
constexpr const char* kDriverBundleKey = "_driverBundle";

bool numericallyEqual(const qv::Value& a, const qv::Value& b) {
    if (a.isInteger() && b.isInteger()) {
        return a.integerValue() == b.integerValue();
    }
    return a.doubleValue() == b.doubleValue();
}

std::optional<std::string> stringOrNil(const qv::Value& value) {
    const std::string* text = value.asString();
    return text != nullptr ? std::optional<std::string>(*text) : std::nullopt;
}

// The interface classes an archived device may hold.
const qv::KeyedUnarchiver::ClassTable<QVInterface>& interfaceArchiveClasses() {
    static const qv::KeyedUnarchiver::ClassTable<QVInterface> classes = {
        {"QVEthernetInterface",
         [](qv::KeyedUnarchiver& coder) -> std::shared_ptr<QVInterface> {
             return QVEthernetInterface::initWithCoder(coder);
         }},
        {"QVSerialInterface",
         [](qv::KeyedUnarchiver& coder) -> std::shared_ptr<QVInterface> {
             return QVSerialInterface::initWithCoder(coder);
         }},
        {"QVInterface",
         [](qv::KeyedUnarchiver& coder) { return QVInterface::initWithCoder(coder); }},
    };
    return classes;
}

std::shared_ptr<QVInterface> interfaceFromDictionary(const qv::Value& dictionary) {
    const std::string* className = dictionary[kClassKey].asString();
    if (className == nullptr) {
        qv::logSystem("class name not set in interfaces data");
        return nullptr;
    }
    if (*className == "QVEthernetInterface") {
        return QVEthernetInterface::loadDictionary(dictionary);
    }
    if (*className == "QVSerialInterface") {
        return QVSerialInterface::loadDictionary(dictionary);
    }
    if (*className == "QVInterface") {
        return QVInterface::loadDictionary(dictionary);
    }
    qv::logSystem("unsupported interface class %@", *className);
    return nullptr;
}

}  // namespace

std::shared_ptr<QVDevice> QVDevice::device() {
    return std::make_shared<QVDevice>();
}

bool QVDevice::isMissingQuorvelID() const {
    const std::int32_t id = qvDeviceId();
    return id == 0 || id == -1;
}

std::uint32_t QVDevice::hash() const {
    std::uint32_t locationHash = 0;
    if (_locationID) {
        locationHash =
            _locationID->isReal()
                ? static_cast<std::uint32_t>(std::hash<double>{}(_locationID->doubleValue()))
                : static_cast<std::uint32_t>(_locationID->integerValue());
    }
    return locationHash + static_cast<std::uint32_t>(_quorvelID);
}

bool QVDevice::isKindOfReceiverClass(const qv::Object& other) const {
    return dynamic_cast<const QVDevice*>(&other) != nullptr;
}

bool QVDevice::isEqual(const qv::Object& other) const {
    if (!isKindOfReceiverClass(other)) {
        return false;
    }
    const auto& device = static_cast<const QVDevice&>(other);
    if (isMissingQuorvelID() || device.isMissingQuorvelID()) {
        return false;
    }
    if (quorvelID() != device.quorvelID()) {
        return false;
    }
    return getUUID() == device.getUUID();
}

std::shared_ptr<QVDevice> QVDevice::makeEmptyOfSameClass() const {
    return std::make_shared<QVDevice>();
}

std::shared_ptr<QVDevice> QVDevice::copy() const {
    auto copy = makeEmptyOfSameClass();
    for (const auto& interface : _interfaces) {
        copy->addInterface(interface);
    }
    copy->setProductName(productName());
    copy->setVendorName(vendorName());
    copy->setQuorvelID(quorvelID());
    copy->setUUID(getUUID());
    copy->setAvailable(isAvailable());
    return copy;
}

void QVDevice::setAvailable(bool available) {
    if (_available != available) {
        _available = available;
        setChanged(true);
    }
}

void QVDevice::setQuorvelID(std::int32_t quorvelID) {
    if (_quorvelID != quorvelID) {
        _quorvelID = quorvelID;
        setChanged(true);
    }
}

void QVDevice::setUUID(LocationNumber locationNumber) {
    // Anything but a number (a registry property of the wrong type) counts as nil.
    if (!locationNumber || !locationNumber->isNumber()) {
        locationNumber = std::make_shared<const qv::Value>(0);
    }
    if (_locationID && numericallyEqual(*_locationID, *locationNumber)) {
        return;
    }
    // Numbers are immutable, so the copy the original kept is the object itself.
    _locationID = std::move(locationNumber);
    setChanged(true);
}

void QVDevice::setUUID(const qv::Value& locationNumber) {
    setUUID(locationNumber.isNil() ? nullptr : std::make_shared<const qv::Value>(locationNumber));
}

namespace {
// The rule the three string setters share; answers whether the field changed.
bool updateTrackedString(std::optional<std::string>& field,
                         const std::optional<std::string>& value) {
    if (!field) {
        field = std::string();
    }
    const std::string newValue = value.value_or(std::string());
    if (*field == newValue) {
        return false;
    }
    field = newValue;
    return true;
}
}  // namespace

void QVDevice::setProductName(const std::optional<std::string>& productName) {
    if (updateTrackedString(_productName, productName)) {
        setChanged(true);
    }
}

void QVDevice::setVendorName(const std::optional<std::string>& vendorName) {
    if (updateTrackedString(_vendorName, vendorName)) {
        setChanged(true);
    }
}

void QVDevice::setDriverBundle(const std::optional<std::string>& driverBundle) {
    if (updateTrackedString(_driverBundle, driverBundle)) {
        setChanged(true);
    }
}

void QVDevice::setDatabaseEntry(std::shared_ptr<QVDeviceDatabaseEntry> entry) {
    _databaseEntry = std::move(entry);
}

void QVDevice::setAllowedDeviceRulesEntry(std::shared_ptr<QVAllowedDeviceRulesEntry> entry) {
    _allowedDeviceRulesEntry = std::move(entry);
}

bool QVDevice::isChanged() const {
    if (_changed) {
        return true;
    }
    for (const auto& interface : _interfaces) {
        if (interface->isChanged()) {
            return true;
        }
    }
    return false;
}

void QVDevice::setChanged(bool changed) {
    _changed = changed;
    if (!changed) {
        for (const auto& interface : _interfaces) {
            interface->setChanged(false);
        }
    }
}

void QVDevice::addInterface(std::shared_ptr<QVInterface> interface) {
    if (interface) {
        _interfaces.push_back(std::move(interface));
        _changed = true;
    }
}

bool QVDevice::clearInterfaceList() {
    const bool hadMembers = !_interfaces.empty();
    _interfaces.clear();
    return hadMembers;
}

QVDevice::InterfaceList QVDevice::filterInterfaces(const InterfaceList& interfaces,
                                                   std::string_view capability) {
    InterfaceList filtered;
    for (const auto& interface : interfaces) {
        if (interface->hasCapability(capability)) {
            filtered.push_back(interface);
        }
    }
    return filtered;
}

QVDevice::InterfaceList QVDevice::filterInterfaces(const InterfaceList& interfaces,
                                                   const std::vector<std::string>& capabilities) {
    InterfaceList filtered = interfaces;
    for (const auto& capability : capabilities) {
        filtered = filterInterfaces(filtered, capability);
    }
    return filtered;
}

QVDevice::InterfaceList QVDevice::serialPorts() const {
    return filterInterfaces(_interfaces, kQVCapabilityIsSerialInterface);
}

QVDevice::InterfaceList QVDevice::ethernetInterfaces() const {
    return filterInterfaces(_interfaces, kQVCapabilityIsEthernetInterface);
}

std::shared_ptr<QVSerialInterface> QVDevice::portWithCapability(std::string_view capability) const {
    const InterfaceList ports = filterInterfaces(serialPorts(), capability);
    return ports.empty() ? nullptr : std::dynamic_pointer_cast<QVSerialInterface>(ports.front());
}

std::optional<std::string> QVDevice::deviceName() const {
    const InterfaceList ports = serialPorts();
    if (ports.empty()) {
        return std::nullopt;
    }
    return ports.front()->name();
}

std::optional<std::string> QVDevice::getDevicePath() const {
    const InterfaceList ports = serialPorts();
    const auto* port = ports.empty() ? nullptr : dynamic_cast<QVSerialInterface*>(ports[0].get());
    return port != nullptr ? port->path() : std::nullopt;
}

std::optional<std::string> QVDevice::getMessageDevicePath() const {
    auto port = portWithCapability(kQVCapabilitySMS);
    return port ? port->path() : std::nullopt;
}

std::optional<std::string> QVDevice::ethernetInterfaceName() const {
    const InterfaceList interfaces = ethernetInterfaces();
    if (interfaces.empty()) {
        return std::nullopt;
    }
    if (const auto* ethernet = dynamic_cast<QVEthernetInterface*>(interfaces[0].get())) {
        return ethernet->interfaceName();
    }
    return interfaces.front()->name();
}

std::string QVDevice::getDisplayName() const {
    return qv::format("%s", getDeviceName(_quorvelID));
}

std::string QVDevice::description() const {
    // The interface list as the platform describes a list of objects.
    std::string interfaces = "(\n";
    for (std::size_t i = 0; i < _interfaces.size(); ++i) {
        interfaces += "    " + _interfaces[i]->description();
        interfaces += i + 1 < _interfaces.size() ? ",\n" : "\n";
    }
    interfaces += ")";
    const auto text = [](const std::optional<std::string>& value) {
        return value ? qv::FormatArg(*value) : qv::FormatArg(nullptr);
    };
    const std::optional<std::string> ethernetName = ethernetInterfaceName();
    return qv::format(
        "Quorvel ID: %d\nIs Available: %@\nProduct Name: %@\nVendor Name: %@\n[core] Device "
        "Type: %s\nEthernet Interface Name: %@\nInterfaces: %@\n",
        _quorvelID, _available ? "YES" : "NO", text(_productName), text(_vendorName),
        getDeviceType(_quorvelID), text(ethernetName), interfaces);
}

std::int32_t QVDevice::manufacturerID() const {
    return _databaseEntry ? _databaseEntry->manufacturerID() : 0;
}

std::int32_t QVDevice::networkAccessTechnology() const {
    return _databaseEntry ? _databaseEntry->networkAccessTechnology() : 0;
}

std::int32_t QVDevice::networkIPv6Support() const {
    return _databaseEntry ? _databaseEntry->networkIPv6Support() : 0;
}

std::int32_t QVDevice::deviceAPIType() const {
    return _databaseEntry ? _databaseEntry->deviceAPIType() : 0;
}

std::int32_t QVDevice::preferredDTIfType() const {
    if (!_allowedDeviceRulesEntry) {
        return 0;
    }
    const std::optional<std::string> type =
        _allowedDeviceRulesEntry->preferredDataTransportInterfaceTypeStr();
    if (type == "kEthernet") {
        return 2;
    }
    return type == "kSerial" ? 1 : 0;
}

qv::Value QVDevice::toDictionary() const {
    qv::Dictionary interfaces;
    interfaces.reserve(_interfaces.size());
    for (std::size_t i = 0; i < _interfaces.size(); ++i) {
        // "interface-%d", without the formatter (the record is written often).
        interfaces.addNew("interface-" + std::to_string(i), _interfaces[i]->toDictionary());
    }
    // Filled in place, with room for a subclass's own keys: the record is written often.
    qv::Dictionary dictionary;
    dictionary.reserve(10);
    dictionary.addNew(kClassKey, qv::Value(className()));
    dictionary.addNew(kAvailableKey, qv::Value(_available));
    dictionary.addNew(kQuorvelIDKey, qv::Value::integer(_quorvelID));
    if (_locationID && !_locationID->isNil()) {
        dictionary.addNew(kLocationIDKey, *_locationID);
    }
    dictionary.addNew(kInterfacesKey, qv::Value(std::move(interfaces)));
    // The container holds no nil, so names that were never set are left out.
    for (const auto& [key, field] :
         {std::pair{kProductNameKey, &_productName}, std::pair{kVendorNameKey, &_vendorName},
          std::pair{kDriverBundleKey, &_driverBundle}}) {
        if (*field) {
            dictionary.addNew(key, qv::Value(**field));
        }
    }
    return qv::Value(std::move(dictionary));
}

void QVDevice::readDictionary(const qv::Value& dictionary) {
    _available = dictionary[kAvailableKey].boolValue();
    _quorvelID = dictionary[kQuorvelIDKey].intValue();
    const qv::Value& location = dictionary[kLocationIDKey];
    // Only a number is a location number; anything else a hostile file put there reads as nil.
    _locationID = location.isNumber() ? std::make_shared<const qv::Value>(location) : nullptr;
    if (const qv::Dictionary* interfaces = dictionary[kInterfacesKey].asDictionary()) {
        for (const auto& [key, interfaceDictionary] : *interfaces) {
            addInterface(interfaceFromDictionary(interfaceDictionary));
        }
    }
    _productName = stringOrNil(dictionary[kProductNameKey]);
    _vendorName = stringOrNil(dictionary[kVendorNameKey]);
    _driverBundle = stringOrNil(dictionary[kDriverBundleKey]);
}

void QVDevice::fillFromDictionary(const qv::Value& dictionary) {
    readDictionary(dictionary);
    _changed = false;
}

std::shared_ptr<QVDevice> QVDevice::loadDictionary(const qv::Value& dictionary) {
    auto device = std::make_shared<QVDevice>();
    device->fillFromDictionary(dictionary);
    return device;
}

void QVDevice::encodeWithCoder(qv::KeyedArchiver& coder) const {
    coder.encodeBool(_available, kAvailableKey);
    coder.encodeInt32(_quorvelID, kQuorvelIDKey);
    if (_locationID) {
        coder.encodeValue(*_locationID, kLocationIDKey);
    }
    coder.encodeArray(_interfaces, kInterfacesKey);
    coder.encodeString(_productName, kProductNameKey);
    coder.encodeString(_vendorName, kVendorNameKey);
    // The driver bundle is not archived; the dictionary form keeps it.
}

void QVDevice::decodeWithCoder(qv::KeyedUnarchiver& coder) {
    _available = coder.decodeBool(kAvailableKey);
    _quorvelID = coder.decodeInt32(kQuorvelIDKey);
    const qv::Value location = coder.decodeNumber(kLocationIDKey);
    _locationID = location.isNil() ? nullptr : std::make_shared<const qv::Value>(location);
    _interfaces =
        coder.decodeArray(kInterfacesKey, interfaceArchiveClasses()).value_or(InterfaceList{});
    _productName = coder.decodeString(kProductNameKey);
    _vendorName = coder.decodeString(kVendorNameKey);
}

bool QVDevice::fillFromCoder(qv::KeyedUnarchiver& coder) {
    decodeWithCoder(coder);
    _changed = false;
    return !coder.failed();
}

std::shared_ptr<QVDevice> QVDevice::initWithCoder(qv::KeyedUnarchiver& coder) {
    auto device = std::make_shared<QVDevice>();
    return device->fillFromCoder(coder) ? device : nullptr;
}
