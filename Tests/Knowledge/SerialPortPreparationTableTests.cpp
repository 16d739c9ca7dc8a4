// Which sticks the serial port enabler prepares, and how: the lookup finds every row by its pair
// and nothing else, no pair stands twice, and each preparation stays with the maker it is for.
#include "QVDeviceKnowledge/QVSerialPortPreparationTable.h"

#include <gtest/gtest.h>

#include <set>
#include <utility>

#include "QVDeviceKnowledge/QVDeviceVendors.h"

namespace {

using Table = QVSerialPortPreparationTable;

TEST(SerialPortPreparationTable, EveryRowIsFoundByItsOwnPairAndOnlyThere) {
    std::set<std::pair<std::uint32_t, std::uint32_t>> pairs;
    for (const SerialPortPreparationMatch& row : Table::rows()) {
        EXPECT_TRUE(pairs.insert({row.vendorID, row.productID}).second)
            << std::hex << row.vendorID << "/" << row.productID << " stands twice";
        EXPECT_EQ(Table::rowForVendorID(row.vendorID, row.productID), &row);
        // A vendor's product ID under another vendor is no row.
        EXPECT_EQ(Table::rowForVendorID(row.vendorID ^ 0x1u, row.productID), nullptr);
    }
    EXPECT_EQ(Table::rowForVendorID(kHuaweiVendorID, 0x1F1A), nullptr);
    EXPECT_EQ(Table::rowForVendorID(0, 0), nullptr);
    EXPECT_EQ(Table::rowForVendorID(0xFFFFFFFFu, 0xFFFFFFFFu), nullptr);
}

TEST(SerialPortPreparationTable, EachPreparationStaysWithItsMakerInSubscriptionOrder) {
    std::size_t quickStart = 0;
    std::size_t reEnumerated = 0;
    std::uint32_t previousVendor = 0;
    std::set<std::uint32_t> vendorsSeen;
    for (const SerialPortPreparationMatch& row : Table::rows()) {
        switch (row.preparation) {
            case QVSerialPortPreparation::kQuickStartSwitch:
                // CardPrepTool switches Huawei sticks only.
                EXPECT_EQ(row.vendorID, kHuaweiVendorID) << std::hex << row.productID;
                ++quickStart;
                break;
            case QVSerialPortPreparation::kEjectDriverDiskThenReEnumerateIfPortless:
                EXPECT_EQ(row.vendorID, kOptionVendorID) << std::hex << row.productID;
                ++reEnumerated;
                break;
            case QVSerialPortPreparation::kEjectDriverDisk:
                EXPECT_NE(row.vendorID, kHuaweiVendorID) << std::hex << row.productID;
                break;
        }
        // Each maker's rows stand together: ZTE, then Option, then Huawei.
        if (row.vendorID != previousVendor) {
            EXPECT_TRUE(vendorsSeen.insert(row.vendorID).second) << std::hex << row.vendorID;
            previousVendor = row.vendorID;
        }
    }
    EXPECT_EQ(quickStart, 9u);
    EXPECT_EQ(reEnumerated, 1u);
    EXPECT_EQ(Table::rows().front().vendorID, kZTEVendorID);
    EXPECT_EQ(Table::rows().back().vendorID, kHuaweiVendorID);
}

}  // namespace
