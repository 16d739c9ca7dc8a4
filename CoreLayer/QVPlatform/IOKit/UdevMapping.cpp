#include "UdevMapping.h"

#include <charconv>

#include "Foundation/UTF8.h"

namespace qv {

namespace {

// USB string descriptors hold at most 126 UTF-16 units; anything much longer is not a name.
constexpr std::size_t kMaxDescriptorText = 512;
constexpr std::size_t kMaxKernelName = 64;
constexpr unsigned kMaxPortNibbles = 6;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isLower(char c) {
    return c >= 'a' && c <= 'z';
}

// 1 to `maxDigits` decimal digits, nothing else.
std::optional<unsigned> parseDecimal(std::string_view text, std::size_t maxDigits) {
    if (text.empty() || text.size() > maxDigits) {
        return std::nullopt;
    }
    unsigned value = 0;
    for (char c : text) {
        if (!isDigit(c)) {
            return std::nullopt;
        }
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return value;
}

std::size_t countWhile(std::string_view text, std::size_t from, bool (*predicate)(char)) {
    std::size_t end = from;
    while (end < text.size() && predicate(text[end])) {
        ++end;
    }
    return end - from;
}

// "ttyUSB3", "ttyACM0", "ttyHS2": the modem ports; the console and pseudo ttys are not.
bool isModemTTYName(std::string_view name) {
    for (std::string_view prefix : {"ttyUSB", "ttyACM", "ttyHS"}) {
        if (name.starts_with(prefix)) {
            return parseDecimal(name.substr(prefix.size()), 4).has_value();
        }
    }
    return false;
}

bool isNetworkInterfaceName(std::string_view name) {
    if (name.empty() || name.size() > 15) {
        return false;
    }
    for (char c : name) {
        if (c <= ' ' || c > '~' || c == '/' || c == ':') {
            return false;
        }
    }
    return true;
}

// "sda" (whole disk) or, with a partition number, "sda1".
bool isSCSIDiskName(std::string_view name, bool partition) {
    if (!name.starts_with("sd")) {
        return false;
    }
    std::size_t letters = countWhile(name, 2, isLower);
    if (letters == 0 || letters > 3) {
        return false;
    }
    std::string_view rest = name.substr(2 + letters);
    return partition ? parseDecimal(rest, 3).has_value() : rest.empty();
}

const std::string* attribute(const UdevDeviceFacts& facts, std::string_view key) {
    auto it = facts.attributes.find(key);
    return it == facts.attributes.end() ? nullptr : &it->second;
}

void setText(Value& properties, const char* key, const std::string* text) {
    if (text != nullptr && !text->empty() && text->size() <= kMaxDescriptorText &&
        isValidUTF8(*text)) {
        properties.set(key, *text);
    }
}

void setHex(Value& properties, const char* key, const std::string* text, std::size_t digits) {
    if (text == nullptr) {
        return;
    }
    if (auto number = parseSysfsHex(*text, digits)) {
        properties.set(key, Value::integer(*number));
    }
}

bool isKernelDriverName(std::string_view driver) {
    if (driver.empty() || driver.size() > kMaxKernelName) {
        return false;
    }
    for (char c : driver) {
        if (c <= ' ' || c > '~' || c == '/') {
            return false;
        }
    }
    return true;
}

// "CFBundleIdentifier" for an entry created or run by `driver`.
void setDriverBundle(Value& properties, const std::string& driver) {
    if (!isKernelDriverName(driver)) {
        return;
    }
    properties.set("CFBundleIdentifier",
                   isGenericUSBDriver(driver) ? kPlatformDriverPrefix + driver : driver);
}

bool isSet(const UdevDeviceFacts& facts, std::string_view property) {
    auto it = facts.properties.find(property);
    return it != facts.properties.end() && it->second == "1";
}

// What udev rules (ModemManager's port type marks, for one) say a tty carries.
std::optional<std::string> portFunction(const UdevDeviceFacts& facts) {
    if (isSet(facts, "ID_MM_PORT_IGNORE")) {
        return "Ignore";
    }
    if (isSet(facts, "ID_MM_PORT_TYPE_QCDM")) {
        return "QCDM";
    }
    if (isSet(facts, "ID_MM_PORT_TYPE_GPS")) {
        return "GPS";
    }
    if (isSet(facts, "ID_MM_PORT_TYPE_AT_PRIMARY") ||
        isSet(facts, "ID_MM_PORT_TYPE_AT_SECONDARY") || isSet(facts, "ID_MM_PORT_TYPE_AT_PPP")) {
        return "AT";
    }
    return std::nullopt;
}

RegistryEntryDescription entry(const char* className, Value properties) {
    return {className, className, std::move(properties)};
}

std::optional<RegistryEntryDescription> describeUSB(const UdevDeviceFacts& facts) {
    Value properties{Dictionary{}};
    if (facts.devtype == "usb_device") {
        if (facts.sysname.starts_with("usb")) {
            return std::nullopt;  // root hubs ("usb1") are the controller's, not devices
        }
        setHex(properties, "idVendor", attribute(facts, "idVendor"), 4);
        setHex(properties, "idProduct", attribute(facts, "idProduct"), 4);
        setText(properties, "USB Product Name", attribute(facts, "product"));
        setText(properties, "USB Vendor Name", attribute(facts, "manufacturer"));
        if (auto location = stableLocationIDFromUSBName(facts.sysname)) {
            properties.set("locationID", Value::integer(*location));
        }
        // The USB core's generic device driver is the platform's own, whatever udev reports.
        setDriverBundle(properties, "usb");
        return entry("IOUSBDevice", std::move(properties));
    }
    if (facts.devtype == "usb_interface") {
        setHex(properties, "bInterfaceNumber", attribute(facts, "bInterfaceNumber"), 2);
        setHex(properties, "bInterfaceClass", attribute(facts, "bInterfaceClass"), 2);
        if (!facts.driver.empty() && facts.driver.size() <= kMaxKernelName &&
            isValidUTF8(facts.driver)) {
            properties.set("Driver", facts.driver);
            if (isGenericUSBDriver(facts.driver)) {
                setDriverBundle(properties, facts.driver);
            }
        }
        return entry("IOUSBInterface", std::move(properties));
    }
    return std::nullopt;
}

}  // namespace

const char* const kUdevMappedAttributes[] = {
    "idVendor",         "idProduct",       "product",        "manufacturer",
    "bInterfaceNumber", "bInterfaceClass", "bNumInterfaces", nullptr};

const char* const kUdevMappedProperties[] = {"ID_MM_PORT_IGNORE",
                                             "ID_MM_PORT_TYPE_QCDM",
                                             "ID_MM_PORT_TYPE_GPS",
                                             "ID_MM_PORT_TYPE_AT_PRIMARY",
                                             "ID_MM_PORT_TYPE_AT_SECONDARY",
                                             "ID_MM_PORT_TYPE_AT_PPP",
                                             nullptr};

bool isGenericUSBDriver(std::string_view driver) {
    for (std::string_view generic : {"usb", "hub", "usbfs", "usb-storage", "uas", "usbhid"}) {
        if (driver == generic) {
            return true;
        }
    }
    return false;
}

bool isPortFunctionForAT(std::string_view function) {
    return function == "AT";
}

std::optional<std::uint32_t> parseSysfsHex(std::string_view text, std::size_t maxDigits) {
    if (text.empty() || text.size() > maxDigits || maxDigits > 8) {
        return std::nullopt;
    }
    std::uint32_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::uint32_t> locationIDFromUSBName(std::string_view name) {
    std::size_t dash = name.find('-');
    if (dash == std::string_view::npos || name.size() > kMaxKernelName) {
        return std::nullopt;
    }
    auto bus = parseDecimal(name.substr(0, dash), 3);
    if (!bus || *bus == 0 || *bus > 0xFF) {
        return std::nullopt;
    }
    std::uint32_t location = *bus << 24;
    std::string_view ports = name.substr(dash + 1);
    for (unsigned depth = 0;; ++depth) {
        std::size_t dot = ports.find('.');
        auto port = parseDecimal(ports.substr(0, dot), 2);
        if (depth == kMaxPortNibbles || !port || *port == 0 || *port > 0xF) {
            return std::nullopt;
        }
        location |= *port << (20 - 4 * depth);
        if (dot == std::string_view::npos) {
            return location;
        }
        ports.remove_prefix(dot + 1);
    }
}

std::optional<std::uint32_t> stableLocationIDFromUSBName(std::string_view name) {
    if (auto location = locationIDFromUSBName(name)) {
        return location;
    }
    std::size_t dash = name.find('-');
    if (dash == std::string_view::npos || name.size() > kMaxKernelName) {
        return std::nullopt;
    }
    auto bus = parseDecimal(name.substr(0, dash), 3);
    std::string_view ports = name.substr(dash + 1);
    if (!bus || *bus == 0 || *bus > 0xFF || ports.empty()) {
        return std::nullopt;
    }
    for (char c : ports) {
        if (!isDigit(c) && c != '.') {
            return std::nullopt;
        }
    }
    std::uint32_t hash = 2166136261u;
    for (char c : ports) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    }
    std::uint32_t low = (hash ^ (hash >> 20)) & 0xFFFFF;
    return (*bus << 24) | (low == 0 ? 1u : low);
}

bool sysPathOrderLess(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            std::size_t digitsA = countWhile(a, i, isDigit);
            std::size_t digitsB = countWhile(b, j, isDigit);
            std::string_view numberA = a.substr(i, digitsA);
            std::string_view numberB = b.substr(j, digitsB);
            // Without leading zeros the longer run is the larger number; runs of any length work.
            while (numberA.size() > 1 && numberA.front() == '0')
                numberA.remove_prefix(1);
            while (numberB.size() > 1 && numberB.front() == '0')
                numberB.remove_prefix(1);
            if (numberA.size() != numberB.size()) {
                return numberA.size() < numberB.size();
            }
            if (numberA != numberB) {
                return numberA < numberB;
            }
            i += digitsA;
            j += digitsB;
            continue;
        }
        if (a[i] != b[j]) {
            // '/' first, so that "/a/b" (and everything below it) precedes "/a-b".
            if (a[i] == '/' || b[j] == '/') {
                return a[i] == '/';
            }
            return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
        }
        ++i;
        ++j;
    }
    return a.size() - i < b.size() - j;
}

std::string parentSysPath(std::string_view sysPath) {
    std::size_t slash = sysPath.rfind('/');
    return slash == std::string_view::npos || slash == 0 ? std::string()
                                                         : std::string(sysPath.substr(0, slash));
}

std::optional<RegistryEntryDescription> describeUdevDevice(const UdevDeviceFacts& facts) {
    const std::string& name = facts.sysname;
    if (name.empty() || name.size() > kMaxKernelName) {
        return std::nullopt;
    }
    if (facts.subsystem == "usb") {
        return describeUSB(facts);
    }
    Value properties{Dictionary{}};
    setDriverBundle(properties, facts.interfaceDriver);
    if (facts.subsystem == "tty" && isModemTTYName(name)) {
        properties.set("IOTTYDevice", name);
        properties.set("IOCalloutDevice", "/dev/cu." + name);
        if (auto function = portFunction(facts)) {
            properties.set(kPortFunctionKey, *function);
        }
        return entry("IOSerialBSDClient", std::move(properties));
    }
    if (facts.subsystem == "net" && isNetworkInterfaceName(name)) {
        properties.set("BSD Name", name);
        return entry("IOEthernetInterface", std::move(properties));
    }
    if (facts.subsystem != "block") {
        return std::nullopt;
    }
    if (facts.devtype == "disk" && name.starts_with("sr") && parseDecimal(name.substr(2), 3)) {
        properties.set("BSD Name", name);
        properties.set("Leaf", true);
        return entry("IOCDMedia", std::move(properties));
    }
    bool partition = facts.devtype == "partition";
    if ((partition || facts.devtype == "disk") && isSCSIDiskName(name, partition)) {
        properties.set("BSD Name", name);
        properties.set("Leaf", true);
        return entry("IOMedia", std::move(properties));
    }
    return std::nullopt;
}

}  // namespace qv
