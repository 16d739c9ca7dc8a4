// The vocabulary of the device database file: the keys of an entry, the values its enumerations
// and port strategies know, and the capability shortcuts. The loader, the entry's accessors and
// the file checker all read from here, so a key is spelled once ("Supress" included: the
// misspelling is part of the file format).
#pragma once

#include <array>
#include <string_view>

namespace QVDeviceDatabaseKeys {

inline constexpr std::string_view kQuorvelID = "DeviceDatabase.QuorvelID";
inline constexpr std::string_view kAncestorQuorvelID = "DeviceDatabase.AncestorQuorvelID";
inline constexpr std::string_view kPortIdentificationStrategy =
    "DeviceDatabase.PortIdentificationStrategy";
inline constexpr std::string_view kShouldSupressDriverDisk =
    "DeviceDatabase.ShouldSupressDriverDisk";
inline constexpr std::string_view kSupressNetworkQueryWhileConnecting =
    "DeviceDatabase.SupressNetworkQueryWhileConnecting";
inline constexpr std::string_view kManufacturer = "DeviceDatabase.Manufacturer";
inline constexpr std::string_view kNetworkAccessTechnology =
    "DeviceDatabase.NetworkAccessTechnology";
inline constexpr std::string_view kNetworkIPv6Support = "DeviceDatabase.NetworkIPv6Support";
inline constexpr std::string_view kDeviceControllingAPIType =
    "DeviceDatabase.DeviceControllingAPIType";
inline constexpr std::string_view kSequence3GPreferred = "DeviceDatabase.Sequence.3GPreferred";
inline constexpr std::string_view kSequence3GOnly = "DeviceDatabase.Sequence.3GOnly";
inline constexpr std::string_view kSequence2GPreferred = "DeviceDatabase.Sequence.2GPreferred";
inline constexpr std::string_view kSequence2GOnly = "DeviceDatabase.Sequence.2GOnly";
inline constexpr std::string_view kSequence4GPreferred = "DeviceDatabase.Sequence.4GPreferred";
inline constexpr std::string_view kSequence4GOnly = "DeviceDatabase.Sequence.4GOnly";
inline constexpr std::string_view kSequence4G3GOnly = "DeviceDatabase.Sequence.4G3GOnly";

// The model's name, for people reading the file (and `qvdevice db show`); the framework does not
// read it.
inline constexpr std::string_view kDescription = "DeviceDatabase.Description";
// What the models list knows of the model's Linux ports, for `qvdevice db show` and `db check`
// (the framework does not read them): the USB interface number each described port sits on (an
// array of integers, one per port index), and how many ttys the model's driver gives it.
inline constexpr std::string_view kInterfaces = "DeviceDatabase.Interfaces";
inline constexpr std::string_view kDriverPortCount = "DeviceDatabase.DriverPortCount";

// Indexed keys: the prefix, then the decimal index; an alternative pattern's key holds the
// alternative index, then the port index ("DeviceDatabase.PatternAlternative-1.Port-0" is the
// second alternative of port 0).
inline constexpr std::string_view kPatternPortPrefix = "DeviceDatabase.Pattern.Port-";
inline constexpr std::string_view kPatternAlternativePrefix = "DeviceDatabase.PatternAlternative-";
inline constexpr std::string_view kPatternAlternativePortInfix = ".Port-";
inline constexpr std::string_view kCapabilitiesPortPrefix = "DeviceDatabase.Capabilities.Port-";
inline constexpr std::string_view kCapabilitiesEthernetPrefix =
    "DeviceDatabase.Capabilities.Ethernet-";

// Every key without an index that an entry may hold.
inline constexpr std::array<std::string_view, 19> kPlainKeys = {kDescription,
                                                                kInterfaces,
                                                                kDriverPortCount,
                                                                kQuorvelID,
                                                                kAncestorQuorvelID,
                                                                kPortIdentificationStrategy,
                                                                kShouldSupressDriverDisk,
                                                                kSupressNetworkQueryWhileConnecting,
                                                                kManufacturer,
                                                                kNetworkAccessTechnology,
                                                                kNetworkIPv6Support,
                                                                kDeviceControllingAPIType,
                                                                kSequence3GPreferred,
                                                                kSequence3GOnly,
                                                                kSequence2GPreferred,
                                                                kSequence2GOnly,
                                                                kSequence4GPreferred,
                                                                kSequence4GOnly,
                                                                kSequence4G3GOnly};

// The port identification strategies that USB port classification implements, in the order its
// "Unknown classification technique" message lists them.
inline constexpr std::string_view kStrategyByFileEnding = "ByFileEnding";
inline constexpr std::string_view kStrategyByPortNumber = "ByPortNumber";
inline constexpr std::string_view kStrategyByRegex = "ByRegex";
inline constexpr std::array<std::string_view, 3> kKnownStrategies = {
    kStrategyByFileEnding, kStrategyByPortNumber, kStrategyByRegex};

// Enumeration values, each at the position of the number it reads as.
inline constexpr std::array<std::string_view, 2> kNetworkAccessTechnologies = {"GSM", "CDMA"};
inline constexpr std::array<std::string_view, 2> kNetworkIPv6Supports = {"IPv6", "IPv4v6"};
inline constexpr std::array<std::string_view, 3> kDeviceAPITypes = {"ATInterface", "HuaweiWebApi",
                                                                    "HalcyraWebApi"};

// Keys of the per-port dictionaries of portIdentificationPatternsAndCapabilities's dictionary
// form; alternative A is stored under "DeviceDatabase.PatternAlternative_A".
inline constexpr std::string_view kPortPattern = "DeviceDatabase.Pattern";
inline constexpr std::string_view kPortCapabilities = "DeviceDatabase.Capabilities";
inline constexpr std::string_view kPortAlternative = "DeviceDatabase.PatternAlternative";
inline constexpr std::string_view kPortAlternativeFormat = "%@_%i";

// Capability-list shortcuts and the word that marks a port the device may lack.
inline constexpr std::string_view kAllCoreProcedureCapabilities = "ALL_CORE_PROCEDURE_CAPABILITIES";
inline constexpr std::string_view kAllCapabilities = "ALL_CAPABILITIES";
inline constexpr std::string_view kOptional = "Optional";
// Pieces of a capability list are separated by a comma and one blank, exactly.
inline constexpr std::string_view kCapabilityListSeparator = ", ";

}  // namespace QVDeviceDatabaseKeys
