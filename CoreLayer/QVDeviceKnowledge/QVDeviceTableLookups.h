// Lookups over the built-in tables. The device monitor and the generic recogniser answer their
// table questions through these; all are linear scans over constant data, without allocation.
#pragma once

#include <cstdint>

#include "QVDeviceKnowledge/QVDeviceTables.h"

struct QVDeviceTableLookups {
    // The single devicesInfo row of that pair; null when there is none or when the pair stands
    // on more than one row (an ambiguous pair counts as not in the table).
    static const DevPropertyMatch* tableEntryForVendorID(std::uint32_t vendorID,
                                                         std::uint32_t productID);
    // That row's Quorvel ID, 0 without a row.
    static std::int32_t quorvelIDFromUSBVid(std::uint32_t vendorID, std::uint32_t productID);
    // The first row carrying that Quorvel ID (0 included), null when none does.
    static const DevPropertyMatch* tableEntryForQV_ID(std::int32_t quorvelID);
    static std::uint32_t usbVIDFromQuorvelID(std::int32_t quorvelID);
    static std::uint32_t usbPIDFromQuorvelID(std::int32_t quorvelID);
    // The largest power-up delay among all rows of the pair, duplicates included; 0 without one.
    static std::int32_t powerUpDelayForVendorID(std::uint32_t vendorID, std::uint32_t productID);

    // The first deviceClassInfo row of that maker, null when it has none.
    static const GenericDeviceClassPropertyMatch* genericTableEntryForVendorID(
        std::uint32_t vendorID);
    // That row's Quorvel ID, -1 when there is none.
    static std::int32_t genericDeviceQVIDForVendorID(std::uint32_t vendorID);
};
