#include <gtest/gtest.h>

#include <string>

#include "modem_query_tools/ModemQueryTools.h"

TEST(ModemQueryTools, NamesAndTypesComeFromTheTablesAndNeverAreNull) {
    EXPECT_EQ(std::string(getDeviceName(320)), "Huawei E1750");
    EXPECT_EQ(std::string(getDeviceType(320)), "USB modem");
    EXPECT_EQ(std::string(getDeviceType(311)), "USB phone");  // Huawei U120
    EXPECT_EQ(std::string(getDeviceName(15355)), std::string(getDeviceName(15355)));
    EXPECT_EQ(std::string(getDeviceType(15355)), "USB modem (generic family)");
    for (int unknown : {0, -1, 1, 999999}) {
        ASSERT_NE(getDeviceName(unknown), nullptr);
        EXPECT_EQ(std::string(getDeviceName(unknown)), "");
        EXPECT_EQ(std::string(getDeviceType(unknown)), "");
    }
}
