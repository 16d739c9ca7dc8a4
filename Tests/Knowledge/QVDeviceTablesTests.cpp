#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "QVDeviceKnowledge/QVDeviceTableLookups.h"
#include "QVDeviceKnowledge/QVDeviceTables.h"

namespace {

using Lookups = QVDeviceTableLookups;

std::string rowText(const DevPropertyMatch& row) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%d 0x%04X/0x%04X ", row.quorvelID, row.vendorID,
                  row.productID);
    return buffer + std::string(row.description);
}

TEST(DeviceTables, ShapeOfDevicesInfo) {
    ASSERT_EQ(kDevicesInfoRowCount, 238u);
    const DevPropertyMatch& end = devicesInfo[238];
    EXPECT_EQ(end.quorvelID, -1);
    EXPECT_EQ(end.vendorID, 0xFFFFFFFFu);
    EXPECT_EQ(end.productID, 0xFFFFFFFFu);
    EXPECT_EQ(end.powerUpDelay, 0u);
    EXPECT_STREQ(end.description, "unused");
    EXPECT_STREQ(end.ioKitClass, " end of list");

    std::map<std::string, int> classes;
    std::map<std::uint32_t, int> delays;
    std::map<std::uint32_t, int> vendors;
    std::map<std::pair<std::uint32_t, std::uint32_t>, int> pairs;
    std::set<std::int32_t> distinctIDs;
    int nonZero = 0;
    int zero = 0;
    for (std::size_t i = 0; i < kDevicesInfoRowCount; ++i) {
        const DevPropertyMatch& row = devicesInfo[i];
        SCOPED_TRACE(rowText(row));
        EXPECT_NE(row.productID, kDevicesInfoEndMarker);
        ++classes[row.ioKitClass];
        ++delays[row.powerUpDelay];
        ++vendors[row.vendorID];
        ++pairs[{row.vendorID, row.productID}];
        if (row.quorvelID == 0) {
            ++zero;
        } else {
            ++nonZero;
            distinctIDs.insert(row.quorvelID);
            EXPECT_GE(row.quorvelID, 197);
            EXPECT_LE(row.quorvelID, 15583);
        }
        EXPECT_GT(std::string(row.description).size(), 3u);
    }
    EXPECT_EQ(classes, (std::map<std::string, int>{
                           {"IOUSBDevice", 227}, {"IOPCCard16Device", 8}, {"IOPCIDevice", 3}}));
    EXPECT_EQ(nonZero, 187);
    EXPECT_EQ(zero, 51);
    EXPECT_EQ(distinctIDs.size(), 151u);
    EXPECT_EQ(*distinctIDs.begin(), 197);
    EXPECT_EQ(*distinctIDs.rbegin(), 15583);
    EXPECT_EQ(delays,
              (std::map<std::uint32_t, int>{{0, 174}, {1, 23}, {2, 17}, {3, 17}, {5, 6}, {7, 1}}));
    EXPECT_EQ(vendors, (std::map<std::uint32_t, int>{
                           {0x12D1, 53}, {0x0421, 45}, {0x0AF0, 39}, {0x19D2, 36}, {0x0FCE, 15},
                           {0x1199, 11}, {0x1410, 9},  {0x04E8, 8},  {0x1004, 4},  {0x0314, 2},
                           {0x00A4, 2},  {0x14E4, 2},  {0x0FCA, 2},  {0x106C, 2},  {0x413C, 2},
                           {0x1931, 1},  {0x0013, 1},  {0x0192, 1},  {0x0221, 1},  {0x1033, 1},
                           {0x1C9E, 1}}));

    int repeatedPairs = 0;
    for (const auto& [pair, count] : pairs) {
        repeatedPairs += count > 1 ? 1 : 0;
    }
    EXPECT_EQ(repeatedPairs, 8);
    EXPECT_EQ((pairs[{0x12D1, 0x1001}]), 3);
    EXPECT_EQ((pairs[{0x04E8, 0x6601}]), 6);

    int rowsOf15369 = 0;
    for (std::size_t i = 0; i < kDevicesInfoRowCount; ++i) {
        rowsOf15369 += devicesInfo[i].quorvelID == 15369 ? 1 : 0;
    }
    EXPECT_EQ(rowsOf15369, 6);
    for (std::int32_t generic : {15354, 15355, 15356}) {
        EXPECT_EQ(distinctIDs.count(generic), 0u) << generic;
    }
}

TEST(DeviceTables, TellingRowsStandAsGiven) {
    struct Expected {
        std::int32_t id;
        std::uint32_t vendor, product, delay;
        const char* description;
        const char* ioKitClass;
    };
    const Expected telling[] = {
        {5059, 0x1199, 0x6812, 3, "SierraWireless AC875", "IOUSBDevice"},
        {0, 0x1199, 0x6820, 3, "SierraWireless AC875", "IOUSBDevice"},
        {0, 0x12D1, 0x1001, 2, "Huawei (Second Type - no QV_ID as it represents multiple devices)",
         "IOUSBDevice"},
        {0, 0x12D1, 0x1003, 1, "Huawei (First Type - no QV_ID as it represents multiple devices)",
         "IOUSBDevice"},
        {15583, 0x12D1, 0x1575, 0, "Huawei K5150 (WebAPI)", "IOUSBDevice"},
        {15583, 0x12D1, 0x14F8, 0, "Huawei K5150 (WebAPI) with micro SD", "IOUSBDevice"},
        {15455, 0x1C9E, 0x6061, 7, "LM 003 HSUPA 3GUSB MODEM similar to Icera K3805-Z",
         "IOUSBDevice"},
        {0, 0x0192, 0x0710, 0, "Sierra Wireless A710/750/775", "IOPCCard16Device"},
        {0, 0x0221, 0x2000, 0, "Sony Ericsson GC75e", "IOPCCard16Device"},
        {0, 0x14E4, 0x4344, 0, "Sony Ericsson GC89", "IOPCIDevice"},
        {5090, 0x1931, 0x000C, 0, "GT Nozomi", "IOPCIDevice"},
    };
    for (const Expected& want : telling) {
        bool found = false;
        for (std::size_t i = 0; i < kDevicesInfoRowCount && !found; ++i) {
            const DevPropertyMatch& row = devicesInfo[i];
            found = row.quorvelID == want.id && row.vendorID == want.vendor &&
                    row.productID == want.product && row.powerUpDelay == want.delay &&
                    std::string(row.description) == want.description &&
                    std::string(row.ioKitClass) == want.ioKitClass;
        }
        EXPECT_TRUE(found) << want.description;
    }

    ASSERT_EQ(kDeviceClassInfoRowCount, 4u);
    const GenericDeviceClassPropertyMatch generic[] = {
        {15354, 0x0AF0, "Option-class device"},
        {15355, 0x12D1, "Huawei-class device"},
        {5059, 0x1199, "Sierra-devices new generation"},
        {15356, 0x19D2, "ZTE-device old generation"},
        {-1, 0xFFFFFFFF, ""},
    };
    for (std::size_t i = 0; i <= kDeviceClassInfoRowCount; ++i) {
        EXPECT_EQ(deviceClassInfo[i].quorvelID, generic[i].quorvelID);
        EXPECT_EQ(deviceClassInfo[i].vendorID, generic[i].vendorID);
        EXPECT_STREQ(deviceClassInfo[i].description, generic[i].description);
    }
}

TEST(DeviceTables, VendorProductLookupIsUniqueOrNothing) {
    // Three rows of one pair: not in the table, though the delay lookup still sees them all.
    EXPECT_EQ(Lookups::tableEntryForVendorID(0x12D1, 0x1001), nullptr);
    EXPECT_EQ(Lookups::quorvelIDFromUSBVid(0x12D1, 0x1001), 0);
    EXPECT_EQ(Lookups::powerUpDelayForVendorID(0x12D1, 0x1001), 2);
    EXPECT_EQ(Lookups::tableEntryForVendorID(0x04E8, 0x6601), nullptr);

    const DevPropertyMatch* sierra = Lookups::tableEntryForVendorID(0x1199, 0x6812);
    ASSERT_NE(sierra, nullptr);
    EXPECT_EQ(sierra->quorvelID, 5059);
    EXPECT_EQ(sierra->powerUpDelay, 3u);
    EXPECT_EQ(Lookups::quorvelIDFromUSBVid(0x1199, 0x6812), 5059);
    // A row with ID 0 is found; its ID is 0 like a miss.
    ASSERT_NE(Lookups::tableEntryForVendorID(0x1199, 0x6820), nullptr);
    EXPECT_EQ(Lookups::quorvelIDFromUSBVid(0x1199, 0x6820), 0);

    EXPECT_EQ(Lookups::tableEntryForVendorID(0x12D1, 0xFFFF), nullptr);
    EXPECT_EQ(Lookups::powerUpDelayForVendorID(0x12D1, 0xFFFF), 0);
    // The end row's pair is never a match.
    EXPECT_EQ(Lookups::tableEntryForVendorID(0xFFFFFFFF, 0xFFFFFFFF), nullptr);
    EXPECT_EQ(Lookups::powerUpDelayForVendorID(0xFFFFFFFF, 0xFFFFFFFF), 0);
}

TEST(DeviceTables, QuorvelIDLookupFindsTheFirstRow) {
    const DevPropertyMatch* first = nullptr;
    for (std::size_t i = 0; i < kDevicesInfoRowCount && first == nullptr; ++i) {
        first = devicesInfo[i].quorvelID == 15369 ? &devicesInfo[i] : nullptr;
    }
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(Lookups::tableEntryForQV_ID(15369), first);
    EXPECT_EQ(Lookups::usbVIDFromQuorvelID(15369), first->vendorID);
    EXPECT_EQ(Lookups::usbPIDFromQuorvelID(15369), first->productID);

    EXPECT_EQ(Lookups::tableEntryForQV_ID(15354), nullptr);
    EXPECT_EQ(Lookups::usbVIDFromQuorvelID(15354), 0u);
    EXPECT_EQ(Lookups::usbPIDFromQuorvelID(15354), 0u);
    EXPECT_EQ(Lookups::tableEntryForQV_ID(-1), nullptr);
    // ID 0 is not special: it finds the first row with 0.
    const DevPropertyMatch* zero = Lookups::tableEntryForQV_ID(0);
    ASSERT_NE(zero, nullptr);
    EXPECT_EQ(zero->quorvelID, 0);
    EXPECT_EQ(zero, &devicesInfo[0]);
}

TEST(DeviceTables, GenericFamilyLookup) {
    EXPECT_EQ(Lookups::genericDeviceQVIDForVendorID(0x19D2), 15356);
    EXPECT_EQ(Lookups::genericDeviceQVIDForVendorID(0x1199), 5059);
    EXPECT_EQ(Lookups::genericDeviceQVIDForVendorID(0x0421), -1);
    EXPECT_EQ(Lookups::genericTableEntryForVendorID(0xFFFFFFFF), nullptr);
    const GenericDeviceClassPropertyMatch* option = Lookups::genericTableEntryForVendorID(0x0AF0);
    ASSERT_NE(option, nullptr);
    EXPECT_STREQ(option->description, "Option-class device");
}

}  // namespace
