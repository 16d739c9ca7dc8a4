// Capabilities: the plain strings that say what an interface offers ("NetworkQuery", "SMS", ...).
// The device database describes ports with them, port classification labels the ports it finds
// with them, and the application picks a port for a task by them. A set is an immutable value;
// it enumerates in ascending order, which keeps the dictionary form's numbering stable.
#pragma once

#include <set>
#include <string>

using QVCapabilitySet = std::set<std::string, std::less<>>;

// Type markers, carried by every interface of the class.
inline constexpr const char* kQVCapabilityIsSerialInterface = "IS_SERIAL_INTERFACE";
inline constexpr const char* kQVCapabilityIsEthernetInterface = "IS_ETHERNET_INTERFACE";
// Capabilities the framework itself selects by.
inline constexpr const char* kQVCapabilityDeviceInfo = "DeviceInfo";
inline constexpr const char* kQVCapabilityNetworkQuery = "NetworkQuery";
inline constexpr const char* kQVCapabilityDataTransport = "DataTransport";
inline constexpr const char* kQVCapabilitySMS = "SMS";
// Marks a database port that a device may lack.
inline constexpr const char* kQVCapabilityOptional = "Optional";

// The set as the platform describes a set: "{(" and ")}" around its members, one per line.
std::string describeCapabilitySet(const QVCapabilitySet& capabilities);
