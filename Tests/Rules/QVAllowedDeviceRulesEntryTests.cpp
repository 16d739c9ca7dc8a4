#include <gtest/gtest.h>

#include "Rules/QVAllowedDeviceRulesEntry.h"

namespace {

TEST(QVAllowedDeviceRulesEntryTests, ReadsTheRuleSettings) {
    auto entry = QVAllowedDeviceRulesEntry::entryWithDict(
        qv::Dictionary{{"DeviceName", "Connect Stick"},
                       {"PreferredDataTransportInterfaceType", "kEthernet"},
                       {"FetchDeviceNameUsingCGMM", "1"}});
    EXPECT_EQ(entry->deviceName(), "Connect Stick");
    EXPECT_EQ(entry->preferredDataTransportInterfaceTypeStr(), "kEthernet");
    EXPECT_TRUE(entry->shouldFetchDeviceNameUsingCGMM());

    QVAllowedDeviceRulesEntry other(
        qv::Dictionary{{"DeviceName", 17}, {"FetchDeviceNameUsingCGMM", 0}, {"QuorvelID", 5059}});
    EXPECT_FALSE(other.deviceName().has_value());
    EXPECT_FALSE(other.preferredDataTransportInterfaceTypeStr().has_value());
    EXPECT_FALSE(other.shouldFetchDeviceNameUsingCGMM());
    EXPECT_FALSE(QVAllowedDeviceRulesEntry(qv::Value()).shouldFetchDeviceNameUsingCGMM());
    EXPECT_FALSE(QVAllowedDeviceRulesEntry(qv::Dictionary{{"FetchDeviceNameUsingCGMM", "YES"}})
                     .shouldFetchDeviceNameUsingCGMM());
}

}  // namespace
