// What the udev feeder turns a Linux device into, as plain functions of plain data so that the
// mapping is testable without libudev: a USB device, its interfaces, their ttys and network
// interfaces, and the block devices of mass-storage functions become registry entries as the
// original platform showed them.
//
// Everything here reads strings that come from devices (USB descriptors, kernel names): lengths
// are bounded, numbers are parsed strictly, and anything unexpected maps to "no entry" or an
// absent property, never to a guess.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Foundation/Value.h"

namespace qv {

// The facts of one udev device that the mapping reads.
struct UdevDeviceFacts {
    std::string subsystem;  // "usb", "tty", "net", "block"
    std::string devtype;    // "usb_device", "usb_interface", "disk", "partition"
    std::string sysname;    // kernel name: "1-2.3", "1-2.3:1.0", "ttyUSB0", "wwan0", "sda1"
    std::string driver;     // bound driver, empty when none
    std::map<std::string, std::string, std::less<>> attributes;  // sysfs attributes by name
    // udev properties by name (only those in kUdevMappedProperties are read).
    std::map<std::string, std::string, std::less<>> properties;
    // The driver of the USB interface a tty, network interface or disk hangs below; empty when
    // none is bound or the device is no interface's function.
    std::string interfaceDriver;
};

struct RegistryEntryDescription {
    std::string className;
    std::string name;
    Value properties;  // a dictionary
};

// The sysfs attributes the mapping reads, null-terminated.
extern const char* const kUdevMappedAttributes[];
// The udev properties the mapping reads (port functions marked by udev rules), null-terminated.
extern const char* const kUdevMappedProperties[];

// The prefix of a "CFBundleIdentifier" that the framework treats as the platform's own driver.
// Linux's generic USB core drivers ("usb", "usb-storage", "usbhid", ...) stand in that role, as
// "com.apple.kernel.<driver>"; a function driver ("option", "qcserial", "cdc_acm") is published
// under its plain kernel name on the tty, network or disk entry it created, so that the snapshot's
// driver bundle names the driver that runs the modem.
inline constexpr const char* kPlatformDriverPrefix = "com.apple.kernel.";
bool isGenericUSBDriver(std::string_view driver);

// A serial port's function as udev rules mark it ("PortFunction" on the IOSerialBSDClient):
// "QCDM" (diagnostics), "GPS", "Ignore" (not a modem port at all) or "AT". Ports without a mark
// carry no "PortFunction". Only "AT" and unmarked ports are ever probed with AT commands.
inline constexpr const char* kPortFunctionKey = "PortFunction";
bool isPortFunctionForAT(std::string_view function);

// The registry entry for a device, or nothing when the device is not one the registry shows
// (root hubs, virtual ttys, disks of other kinds) or its kernel name is malformed. A whole disk
// starts as a leaf; the feeder clears "Leaf" when a partition appears below it. A USB device
// whose location cannot be encoded comes without "locationID".
std::optional<RegistryEntryDescription> describeUdevDevice(const UdevDeviceFacts& facts);

// The original platform's location ID of a USB device from its kernel name "BUS-PORT[.PORT]...":
// the bus in the top byte, then one nibble per port from the root hub down. Nothing when the
// name is malformed, a number does not fit (bus 1-255, port 1-15) or the chain is deeper than
// the six nibbles that remain.
std::optional<std::uint32_t> locationIDFromUSBName(std::string_view name);

// The location ID every well-formed USB device name gets: the original encoding where it fits;
// otherwise (a port above 15, a chain deeper than six) the bus in the top byte, a zero first
// nibble (which the original encoding never has, since ports count from 1) and a 20-bit FNV-1a
// hash of the port chain, never 0. Stable for a socket; the feeder resolves the rare clash of two
// present devices by taking the next free value. Nothing only for a malformed name or bus.
std::optional<std::uint32_t> stableLocationIDFromUSBName(std::string_view name);

// Strict parse of a sysfs hexadecimal attribute ("12d1", "0a"): 1 to `maxDigits` hex digits and
// nothing else.
std::optional<std::uint32_t> parseSysfsHex(std::string_view text, std::size_t maxDigits);

// Order of sysfs paths for adding entries: a parent before its children, and numbers compared
// by value so that interface "1-2:1.10" follows "1-2:1.2" (port order is interface order).
bool sysPathOrderLess(std::string_view a, std::string_view b);

// The sysfs path one level up ("/sys/a/b" -> "/sys/a"); empty at the top.
std::string parentSysPath(std::string_view sysPath);

}  // namespace qv
