#include "QVDeviceKnowledge/QVDeviceTableLookups.h"

namespace {

bool isEndRow(const DevPropertyMatch& row) {
    return row.productID == kDevicesInfoEndMarker;
}

}  // namespace

const DevPropertyMatch* QVDeviceTableLookups::tableEntryForVendorID(std::uint32_t vendorID,
                                                                    std::uint32_t productID) {
    const DevPropertyMatch* found = nullptr;
    int matches = 0;
    for (const DevPropertyMatch* row = devicesInfo; !isEndRow(*row); ++row) {
        if (row->vendorID == vendorID && row->productID == productID) {
            ++matches;
            found = row;
        }
    }
    return matches == 1 ? found : nullptr;
}

std::int32_t QVDeviceTableLookups::quorvelIDFromUSBVid(std::uint32_t vendorID,
                                                       std::uint32_t productID) {
    const DevPropertyMatch* row = tableEntryForVendorID(vendorID, productID);
    return row != nullptr ? row->quorvelID : 0;
}

const DevPropertyMatch* QVDeviceTableLookups::tableEntryForQV_ID(std::int32_t quorvelID) {
    for (const DevPropertyMatch* row = devicesInfo; !isEndRow(*row); ++row) {
        if (row->quorvelID == quorvelID) {
            return row;
        }
    }
    return nullptr;
}

std::uint32_t QVDeviceTableLookups::usbVIDFromQuorvelID(std::int32_t quorvelID) {
    const DevPropertyMatch* row = tableEntryForQV_ID(quorvelID);
    return row != nullptr ? row->vendorID : 0;
}

std::uint32_t QVDeviceTableLookups::usbPIDFromQuorvelID(std::int32_t quorvelID) {
    const DevPropertyMatch* row = tableEntryForQV_ID(quorvelID);
    return row != nullptr ? row->productID : 0;
}

std::int32_t QVDeviceTableLookups::powerUpDelayForVendorID(std::uint32_t vendorID,
                                                           std::uint32_t productID) {
    std::uint32_t delay = 0;
    for (const DevPropertyMatch* row = devicesInfo; !isEndRow(*row); ++row) {
        if (row->vendorID == vendorID && row->productID == productID && row->powerUpDelay > delay) {
            delay = row->powerUpDelay;
        }
    }
    return static_cast<std::int32_t>(delay);
}

const GenericDeviceClassPropertyMatch* QVDeviceTableLookups::genericTableEntryForVendorID(
    std::uint32_t vendorID) {
    for (const GenericDeviceClassPropertyMatch* row = deviceClassInfo;
         row->quorvelID != kDeviceClassInfoEndMarker; ++row) {
        if (row->vendorID == vendorID) {
            return row;
        }
    }
    return nullptr;
}

std::int32_t QVDeviceTableLookups::genericDeviceQVIDForVendorID(std::uint32_t vendorID) {
    const GenericDeviceClassPropertyMatch* row = genericTableEntryForVendorID(vendorID);
    return row != nullptr ? row->quorvelID : -1;
}
