// Port classification reads the entry's port layout once and keeps it: changes to the entry must
// still show in the next classification, and an entry whose chain is broken must fail exactly
// where reading it key by key fails.
#include <string>
#include <vector>

#include "Foundation/Exception.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "QVUSBDeviceFixture.h"

namespace {

using Lines = std::vector<std::string>;
using Paths = std::vector<std::string>;

TEST_F(QVUSBDeviceTest, ClassificationFollowsChangesToTheEntry) {
    auto io = stick({"ttyUSB0", "ttyUSB1", "ttyACM2"}, "wwan0");
    auto device = recordWithEntry({
        {"DeviceDatabase.PortIdentificationStrategy", "ByRegex"},
        {"DeviceDatabase.Pattern.Port-0", "/dev/cu\\.ttyUSB1"},
        {"DeviceDatabase.Capabilities.Port-0", "ALL_CAPABILITIES"},
        {"DeviceDatabase.Pattern.Port-1", "/dev/cu\\.ttyUSB7"},
        {"DeviceDatabase.PatternAlternative-0.Port-1", "/dev/cu\\.ttyACM[0-9]"},
        {"DeviceDatabase.Capabilities.Port-1", "GPSData"},
        {"DeviceDatabase.Capabilities.Ethernet-0", "ControlWWANInterface"},
    });
    const auto& entry = device->databaseEntry();
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(paths(*device)[0], "/dev/cu.ttyUSB1");
    EXPECT_EQ(paths(*device)[1], "/dev/cu.ttyACM2");
    EXPECT_EQ(*lines_, (Lines{"Main port not found. Using alternative port: \"/dev/cu.ttyACM2\"",
                              "==> Ethernet interface name: (null)"}));
    EXPECT_TRUE(device->interfaces()[2]->hasCapability("ControlWWANInterface"));

    // New patterns, capabilities and strategy all take effect at the next classification.
    entry->setObject("/dev/cu\\.ttyUSB0", "DeviceDatabase.Pattern.Port-0");
    entry->setObject("SMS", "DeviceDatabase.Capabilities.Ethernet-0");
    lines_->clear();
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(paths(*device)[0], "/dev/cu.ttyUSB0");
    EXPECT_TRUE(device->interfaces()[2]->hasCapability("SMS"));
    EXPECT_FALSE(device->interfaces()[2]->hasCapability("ControlWWANInterface"));

    entry->setObject("ByPortNumber", "DeviceDatabase.PortIdentificationStrategy");
    entry->setObject("2", "DeviceDatabase.Pattern.Port-0");
    entry->setObject("5", "DeviceDatabase.PatternAlternative-0.Port-1");
    lines_->clear();
    // Port 1: "/dev/cu\.ttyUSB7" reads as index 0 and wins; the alternative is still tried.
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(paths(*device), (Paths{"/dev/cu.ttyACM2", "/dev/cu.ttyUSB0", "wwan0"}));
    EXPECT_EQ(*lines_,
              (Lines{"Could not find port with index: 5", "==> Ethernet interface name: (null)"}));

    // A required port that went missing fails the whole classification.
    entry->setObject("9", "DeviceDatabase.Pattern.Port-1");
    lines_->clear();
    EXPECT_FALSE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(*lines_,
              (Lines{"Could not find port with index: 9", "Could not find port with index: 5",
                     "Neither main port or alternative port could be found..."}));
}

TEST_F(QVUSBDeviceTest, BrokenAncestorChainFailsWhereItAlwaysDid) {
    auto database = QVDeviceDatabase::databaseFromPropertyListString(std::string(R"((
        { "DeviceDatabase.QuorvelID" = 300; "DeviceDatabase.AncestorQuorvelID" = 999;
          "DeviceDatabase.PortIdentificationStrategy" = ByPortNumber;
          "DeviceDatabase.Pattern.Port-0" = 5; }
    ))"));
    auto io = stick({"ttyUSB0"});
    auto device = QVUSBDevice::device();
    device->setDatabaseEntry(database->entryForQuorvelID(300));
    EXPECT_EQ(device->databaseEntry()->portLayout(), nullptr);
    try {
        device->couldClassifyPortsFromIODevice(*io, true);
        FAIL() << "the missing ancestor went unnoticed";
    } catch (const qv::Exception& e) {
        EXPECT_EQ(e.reason(), "Database has no entry with Quorvel ID <999>");
    }
    // The main pattern was tried (and logged its miss) before the alternatives' lookup climbed
    // to the missing ancestor.
    EXPECT_EQ(*lines_, (Lines{"Could not find port with index: 5"}));
    EXPECT_TRUE(device->interfaces().empty());
}

}  // namespace
