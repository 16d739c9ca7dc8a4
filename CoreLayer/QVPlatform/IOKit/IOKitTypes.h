// The I/O Kit vocabulary the framework's code is written in: handles, return codes, planes and
// notification types, with the values the original platform used.
#pragma once

#include <cstdint>

#include "Foundation/Value.h"

using kern_return_t = int;
using IOReturn = kern_return_t;
using mach_port_t = std::uint32_t;
using io_object_t = std::uint32_t;
using io_iterator_t = io_object_t;
using io_service_t = io_object_t;
using io_registry_entry_t = io_object_t;
using io_name_t = char[128];
using io_string_t = char[512];
using IOOptionBits = std::uint32_t;

// A matching dictionary (CFMutableDictionaryRef) is a dictionary value.
using CFMutableDictionaryRef = qv::Value;
using CFDictionaryRef = qv::Value;

inline constexpr io_object_t IO_OBJECT_NULL = 0;
inline constexpr mach_port_t kIOMasterPortDefault = 0;
inline constexpr mach_port_t MACH_PORT_NULL = 0;
// There are no Mach ports here: the bootstrap and task ports are placeholders for the calls that
// take them.
inline constexpr mach_port_t bootstrap_port = 0;

inline constexpr kern_return_t KERN_SUCCESS = 0;
inline constexpr kern_return_t KERN_INVALID_ARGUMENT = 4;
inline constexpr IOReturn kIOReturnSuccess = 0;
inline constexpr IOReturn kIOReturnError = static_cast<IOReturn>(0xe00002bc);
inline constexpr IOReturn kIOReturnNoMemory = static_cast<IOReturn>(0xe00002bd);
inline constexpr IOReturn kIOReturnBadArgument = static_cast<IOReturn>(0xe00002c2);
inline constexpr IOReturn kIOReturnNotFound = static_cast<IOReturn>(0xe00002f0);
inline constexpr IOReturn kIOReturnNoDevice = static_cast<IOReturn>(0xe00002c0);
inline constexpr IOReturn kIOReturnNotPrivileged = static_cast<IOReturn>(0xe00002c1);
inline constexpr IOReturn kIOReturnUnsupported = static_cast<IOReturn>(0xe00002c7);
inline constexpr IOReturn kIOReturnNotOpen = static_cast<IOReturn>(0xe00002cd);
inline constexpr IOReturn kIOReturnExclusiveAccess = static_cast<IOReturn>(0xe00002c5);

inline constexpr const char* kIOServicePlane = "IOService";
inline constexpr IOOptionBits kIORegistryIterateRecursively = 0x00000001;
inline constexpr IOOptionBits kIORegistryIterateParents = 0x00000002;

inline constexpr const char* kIOMatchedNotification = "IOServiceMatched";
inline constexpr const char* kIOFirstMatchNotification = "IOServiceFirstMatch";
inline constexpr const char* kIOTerminatedNotification = "IOServiceTerminate";

// Matching dictionary keys.
inline constexpr const char* kIOProviderClassKey = "IOProviderClass";
inline constexpr const char* kIONameMatchKey = "IONameMatch";
inline constexpr const char* kIOPropertyMatchKey = "IOPropertyMatch";
