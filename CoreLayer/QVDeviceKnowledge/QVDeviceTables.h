// The two built-in tables: which vendor/product pairs the framework looks after (devicesInfo) and
// which makers have a generic device family (deviceClassInfo). Constant data, readable from any
// thread; the lookups over them live in QVDeviceTableLookups.h.
#pragma once

#include <cstddef>
#include <cstdint>

// One watched device: a bus vendor/product pair with its Quorvel ID (0 = recognised, but the
// model is settled later; -1 only in the end row), the seconds to wait after arrival before its
// ports are touched, a text for humans and the IOKit class it shows up under.
struct DevPropertyMatch {
    std::int32_t quorvelID;
    std::uint32_t vendorID;
    std::uint32_t productID;
    std::uint32_t powerUpDelay;
    const char* description;
    const char* ioKitClass;
};

// One maker with a generic family entry in the device database.
struct GenericDeviceClassPropertyMatch {
    std::int32_t quorvelID;
    std::uint32_t vendorID;
    const char* description;
};

// devicesInfo ends with a row whose product ID is kDevicesInfoEndMarker; deviceClassInfo with a
// row whose Quorvel ID is -1.
inline constexpr std::uint32_t kDevicesInfoEndMarker = 0xFFFFFFFFu;
inline constexpr std::int32_t kDeviceClassInfoEndMarker = -1;

extern "C" {
extern const DevPropertyMatch devicesInfo[];
extern const GenericDeviceClassPropertyMatch deviceClassInfo[];
}

// Row counts without the end rows (kept beside the data so tests and tools need not walk twice).
extern const std::size_t kDevicesInfoRowCount;
extern const std::size_t kDeviceClassInfoRowCount;
