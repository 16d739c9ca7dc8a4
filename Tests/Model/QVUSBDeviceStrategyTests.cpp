#include <string>
#include <vector>

#include "Foundation/Exception.h"
#include "QVUSBDeviceFixture.h"

namespace {

using Lines = std::vector<std::string>;

TEST_F(QVUSBDeviceTest, ByFileEndingIgnoresCaseAndWantsTheEnd) {
    auto io = stick({"ttyUSB0", "ttyUSB1", "ttyHS2"});
    auto device = recordWithEntry({{"DeviceDatabase.PortIdentificationStrategy", "ByFileEnding"}});
    EXPECT_EQ(device->portFromIODeviceWithPattern(*io, "usb1"), "/dev/cu.ttyUSB1");
    EXPECT_EQ(device->portFromIODeviceWithPattern(*io, "HS2"), "/dev/cu.ttyHS2");
    EXPECT_TRUE(lines_->empty());
    // In the middle only, and longer than every path: no hit, one line each.
    EXPECT_FALSE(device->portFromIODeviceWithPattern(*io, "tty").has_value());
    EXPECT_FALSE(
        device->portFromIODeviceWithPattern(*io, "/dev/cu.a-much-longer-name-than-any-port"));
    EXPECT_EQ(*lines_, (Lines{"Could not find port by file-ending with pattern: tty",
                              "Could not find port by file-ending with pattern: "
                              "/dev/cu.a-much-longer-name-than-any-port"}));
}

TEST_F(QVUSBDeviceTest, ByPortNumberTakesThePositionAndLogsMisses) {
    auto io = stick({"ttyUSB0", "ttyUSB1", "ttyUSB2"});
    auto device = recordWithEntry({{"DeviceDatabase.PortIdentificationStrategy", "ByPortNumber"}});
    EXPECT_EQ(device->portFromIODeviceWithPattern(*io, "1"), "/dev/cu.ttyUSB1");
    EXPECT_EQ(device->portFromIODeviceWithPattern(*io, 2), "/dev/cu.ttyUSB2");
    EXPECT_EQ(device->portFromIODeviceWithPattern(*io, "modem"), "/dev/cu.ttyUSB0");
    EXPECT_FALSE(device->portFromIODeviceWithPattern(*io, "3").has_value());
    EXPECT_FALSE(device->portFromIODeviceWithPattern(*io, "-1").has_value());
    EXPECT_FALSE(device->portFromIODeviceWithPattern(*io, qv::Array{"1"}).has_value());
    EXPECT_FALSE(device->portFromIODeviceWithPattern(*io, qv::Value()).has_value());
    EXPECT_EQ(*lines_,
              (Lines{"Could not find port with index: 3", "Could not find port with index: -1"}));
}

TEST_F(QVUSBDeviceTest, ByRegexMatchesTheWholePathOnly) {
    auto io = stick({"ttyUSB0", "ttyACM1", "ttyUSB2"});
    auto device = recordWithEntry({{"DeviceDatabase.PortIdentificationStrategy", "ByRegex"}});
    EXPECT_EQ(device->portFromIODeviceWithPattern(*io, "/dev/cu\\.tty(ACM|USB)[12]"),
              "/dev/cu.ttyACM1");
    EXPECT_FALSE(device->portFromIODeviceWithPattern(*io, "ttyUSB2").has_value());
    EXPECT_FALSE(device->portFromIODeviceWithPattern(*io, ".*ttyusb2").has_value());
    // A pattern that does not compile finds nothing.
    EXPECT_FALSE(device->portFromIODeviceWithPattern(*io, "/dev/cu.(tty").has_value());
    EXPECT_TRUE(lines_->empty());
    EXPECT_TRUE(QVUSBDevice::doesString("/dev/cu.ttyUSB2", ".*USB\\d"));
    EXPECT_FALSE(QVUSBDevice::doesString("/dev/cu.ttyUSB2", "USB\\d"));
}

TEST_F(QVUSBDeviceTest, HostileRegexRunsOutOfTimeInsteadOfHanging) {
    // Nested quantifiers against a long run that fails at its end: exponential backtracking that
    // the matcher's work limit cuts short.
    const std::string tty = std::string(64, 'a') + "!";
    auto io = stick({tty});
    auto device = recordWithEntry({{"DeviceDatabase.PortIdentificationStrategy", "ByRegex"},
                                   {"DeviceDatabase.Pattern.Port-0", "/dev/cu\\.(a|aa)+"}});
    EXPECT_FALSE(device->couldIdentifySerialPortsFromIODevice(*io));
    EXPECT_FALSE(QVUSBDevice::doesString("/dev/cu." + tty, "/dev/cu\\.(a+)+"));
}

TEST_F(QVUSBDeviceTest, UnknownStrategyRaisesAndNoStrategyFindsNothing) {
    auto io = stick({"ttyUSB0"});
    auto device = recordWithEntry({{"DeviceDatabase.PortIdentificationStrategy", "ByMagic"},
                                   {"DeviceDatabase.Pattern.Port-0", "0"}});
    try {
        device->couldClassifyPortsFromIODevice(*io, true);
        FAIL() << "unknown strategy accepted";
    } catch (const qv::Exception& e) {
        EXPECT_EQ(e.name(), qv::kNSInternalInconsistencyException);
        EXPECT_EQ(e.reason(),
                  "PortClassification: Unknown classification technique <ByMagic>. Only "
                  "implementing: ByFileEnding, ByPortNumber, ByRegex");
    }
    // Letter case matters; an empty strategy is present, and so unknown.
    for (const char* strategy : {"byregex", ""}) {
        auto other = recordWithEntry({{"DeviceDatabase.PortIdentificationStrategy", strategy}});
        EXPECT_THROW(other->assertIsKnownClassificationScheme(), qv::Exception) << strategy;
    }

    auto unset = recordWithEntry({{"DeviceDatabase.Pattern.Port-0", "0"}});
    EXPECT_NO_THROW(unset->assertIsKnownClassificationScheme());
    EXPECT_FALSE(unset->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_TRUE(unset->interfaces().empty());
}

}  // namespace
