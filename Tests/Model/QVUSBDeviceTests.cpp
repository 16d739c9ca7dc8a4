#include <string>
#include <vector>

#include "Model/QVDeviceArchive.h"
#include "Model/QVEthernetInterface.h"
#include "QVUSBDeviceFixture.h"

namespace {

using Lines = std::vector<std::string>;
using Paths = std::vector<std::string>;

TEST_F(QVUSBDeviceTest, FillsItselfFromTheSnapshot) {
    auto io = stick({"ttyUSB0"});
    auto device = QVUSBDevice::device();
    device->initializeFromIODevice(*io);
    EXPECT_TRUE(device->isAvailable());
    EXPECT_EQ(device->vendorID(), 4817);
    EXPECT_EQ(device->productID(), 4099);
    EXPECT_EQ(device->productName(), "E220 HSDPA Modem");
    EXPECT_EQ(device->vendorName(), "HUAWEI Technologies");
    ASSERT_NE(device->getUUID(), nullptr);
    EXPECT_EQ(*device->getUUID(), qv::Value(0x14200000));
    EXPECT_EQ(*lines_, Lines{"locationID: 337641472"});
    EXPECT_TRUE(device->isChanged());

    // Properties of the wrong type read as absent.
    qv::Registry::shared().setProperties(
        io->representedEntry(),
        qv::Value(qv::Dictionary{{"locationID", "0x14200000"}, {"USB Product Name", 220}}));
    io->updateFromIORegistry();
    device->initializeFromIODevice(*io);
    EXPECT_EQ(*device->getUUID(), qv::Value(0));
    EXPECT_EQ(device->productName(), "");

    device->setChanged(false);
    device->removeAllInterfaces();
    EXPECT_FALSE(device->isChanged());
    device->addInterface(QVSerialInterface::portWithCapabilities({}, "/dev/cu.ttyUSB0"));
    device->setChanged(false);
    device->removeAllInterfaces();
    EXPECT_TRUE(device->isChanged());
}

TEST_F(QVUSBDeviceTest, ClassifiesPortsInIndexOrderUpToTheFirstGap) {
    auto io = stick({"ttyUSB0", "ttyUSB1", "ttyUSB2", "ttyUSB3"}, "wwan0");
    auto device = recordWithEntry({
        {"DeviceDatabase.PortIdentificationStrategy", "ByPortNumber"},
        {"DeviceDatabase.Pattern.Port-0", "2"},
        {"DeviceDatabase.Capabilities.Port-0", "ALL_CORE_PROCEDURE_CAPABILITIES, SMS"},
        {"DeviceDatabase.Pattern.Port-1", "0"},
        {"DeviceDatabase.Capabilities.Port-1", "DataTransport"},
        // Port 2 again, with more: one interface with both sets.
        {"DeviceDatabase.Pattern.Port-2", "2"},
        {"DeviceDatabase.Capabilities.Port-2", "GPSControl, USSDServices"},
        // After the gap at 3: never looked at.
        {"DeviceDatabase.Pattern.Port-4", "3"},
        {"DeviceDatabase.Capabilities.Port-4", "GPSData"},
        {"DeviceDatabase.Capabilities.Ethernet-0", "ControlWWANInterface"},
    });
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(paths(*device), (Paths{"/dev/cu.ttyUSB2", "/dev/cu.ttyUSB0", "wwan0"}));
    EXPECT_TRUE(device->interfaces()[0]->hasCapability("NetworkQuery"));
    EXPECT_TRUE(device->interfaces()[0]->hasCapability("USSDServices"));
    EXPECT_EQ(device->interfaces()[1]->capabilities(),
              (QVCapabilitySet{"DataTransport", "IS_SERIAL_INTERFACE"}));
    EXPECT_EQ(device->interfaces()[2]->capabilities(),
              (QVCapabilitySet{"ControlWWANInterface", "DataTransport", "IS_ETHERNET_INTERFACE"}));
    EXPECT_EQ(device->getMessageDevicePath(), "/dev/cu.ttyUSB2");
    EXPECT_EQ(device->ethernetInterfaceName(), "wwan0");
    // The Ethernet line shows the record's own name, unset while it is logged.
    EXPECT_EQ(lines_->back(), "==> Ethernet interface name: (null)");

    // Classifying again rebuilds the list from scratch.
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(device->interfaces().size(), 3u);
}

TEST_F(QVUSBDeviceTest, OptionalAndRequiredPorts) {
    auto io = stick({"ttyUSB0", "ttyUSB1"});
    auto optionalMissing = recordWithEntry({
        {"DeviceDatabase.PortIdentificationStrategy", "ByFileEnding"},
        {"DeviceDatabase.Pattern.Port-0", "USB7"},
        {"DeviceDatabase.Capabilities.Port-0", "GPSData, Optional"},
        {"DeviceDatabase.Pattern.Port-1", "USB1"},
        {"DeviceDatabase.Capabilities.Port-1", "SMS"},
    });
    EXPECT_TRUE(optionalMissing->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(paths(*optionalMissing), Paths{"/dev/cu.ttyUSB1"});

    auto onlyOptional = recordWithEntry({
        {"DeviceDatabase.PortIdentificationStrategy", "ByFileEnding"},
        {"DeviceDatabase.Pattern.Port-0", "USB7"},
        {"DeviceDatabase.Capabilities.Port-0", "Optional"},
    });
    EXPECT_FALSE(onlyOptional->couldClassifyPortsFromIODevice(*io, true));

    // A required port missing after a found one: failure, the found one stays.
    lines_->clear();
    auto requiredMissing = recordWithEntry({
        {"DeviceDatabase.PortIdentificationStrategy", "ByFileEnding"},
        {"DeviceDatabase.Pattern.Port-0", "USB0"},
        {"DeviceDatabase.Pattern.Port-1", "USB5"},
        {"DeviceDatabase.Pattern.Port-2", "USB1"},
    });
    EXPECT_FALSE(requiredMissing->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(paths(*requiredMissing), Paths{"/dev/cu.ttyUSB0"});
    EXPECT_EQ(lines_->back(), "Neither main port or alternative port could be found...");
}

TEST_F(QVUSBDeviceTest, AlternativesAreTriedInOrderWhenTheMainPatternMisses) {
    auto io = stick({"ttyACM0", "ttyACM1", "ttyACM2"});
    auto device = recordWithEntry({
        {"DeviceDatabase.PortIdentificationStrategy", "ByRegex"},
        {"DeviceDatabase.Pattern.Port-0", ".*ttyUSB0"},
        {"DeviceDatabase.PatternAlternative-0.Port-0", ".*ttyHS0"},
        {"DeviceDatabase.PatternAlternative-1.Port-0", ".*ttyACM[12]"},
        {"DeviceDatabase.PatternAlternative-2.Port-0", ".*ttyACM0"},
        {"DeviceDatabase.Capabilities.Port-0", "SMS"},
        // Main pattern found: used, though its alternative finds another port.
        {"DeviceDatabase.Pattern.Port-1", ".*ttyACM2"},
        {"DeviceDatabase.PatternAlternative-0.Port-1", ".*ttyACM0"},
    });
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(paths(*device), (Paths{"/dev/cu.ttyACM1", "/dev/cu.ttyACM2"}));
    EXPECT_EQ(*lines_, Lines{"Main port not found. Using alternative port: \"/dev/cu.ttyACM1\""});
    EXPECT_EQ(device->getPortPathForAtIndex(1, *io, true), "/dev/cu.ttyACM0");
    EXPECT_FALSE(device->getPortPathForAtIndex(2, *io, true).has_value());
}

TEST_F(QVUSBDeviceTest, EthernetInterfaceDependsOnTheSerialOutcome) {
    auto io = stick({"ttyUSB0"}, "usb0");
    auto device = recordWithEntry({
        {"DeviceDatabase.PortIdentificationStrategy", "ByPortNumber"},
        {"DeviceDatabase.Pattern.Port-0", "4"},
    });
    EXPECT_FALSE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_TRUE(device->interfaces().empty());
    EXPECT_TRUE(device->couldClassifyPortsFromIODevice(*io, false));
    EXPECT_EQ(paths(*device), Paths{"usb0"});
    EXPECT_EQ(device->interfaces()[0]->capabilities(),
              (QVCapabilitySet{"DataTransport", "IS_ETHERNET_INTERFACE"}));

    // A snapshot without network interface: serial ports only.
    auto serialOnly = stick({"ttyUSB0"});
    device = recordWithEntry({{"DeviceDatabase.PortIdentificationStrategy", "ByPortNumber"},
                              {"DeviceDatabase.Pattern.Port-0", "0"}});
    EXPECT_TRUE(device->couldClassifyPortsFromIODevice(*serialOnly, true));
    EXPECT_EQ(paths(*device), Paths{"/dev/cu.ttyUSB0"});
}

TEST_F(QVUSBDeviceTest, CopiesFormsAndEqualityAcrossClasses) {
    auto io = stick({"ttyUSB0"}, "wwan0");
    auto device = recordWithEntry({{"DeviceDatabase.PortIdentificationStrategy", "ByPortNumber"},
                                   {"DeviceDatabase.Pattern.Port-0", "0"}});
    device->initializeFromIODevice(*io);
    device->setQuorvelID(4817);
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));

    auto copy = std::dynamic_pointer_cast<QVUSBDevice>(device->copy());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->vendorID(), 4817);
    EXPECT_EQ(copy->productID(), 4099);
    EXPECT_TRUE(copy->isEqual(*device));

    // A plain record may equal a USB record, never the reverse.
    auto plain = QVDevice::device();
    plain->setQuorvelID(4817);
    plain->setUUID(device->getUUID());
    EXPECT_TRUE(plain->isEqual(*device));
    EXPECT_FALSE(device->isEqual(*plain));

    const qv::Value dictionary = device->toDictionary();
    EXPECT_EQ(dictionary["class"], qv::Value("QVUSBDevice"));
    EXPECT_EQ(dictionary["_vendorID"], qv::Value(4817));
    EXPECT_EQ(dictionary["_productID"], qv::Value(4099));
    auto loaded = QVUSBDevice::loadDictionary(dictionary);
    EXPECT_EQ(loaded->toDictionary(), dictionary);
    EXPECT_FALSE(loaded->isChanged());

    std::string error;
    auto decoded = std::dynamic_pointer_cast<QVUSBDevice>(QVDeviceArchive::deviceWithArchivedData(
        QVDeviceArchive::archivedDataWithDevice(*device), &error));
    ASSERT_NE(decoded, nullptr) << error;
    EXPECT_EQ(decoded->productID(), 4099);
    EXPECT_EQ(paths(*decoded), (Paths{"/dev/cu.ttyUSB0", "wwan0"}));
    EXPECT_FALSE(decoded->driverBundle().has_value());
    auto plainDecoded =
        QVDeviceArchive::deviceWithArchivedData(QVDeviceArchive::archivedDataWithDevice(*plain));
    ASSERT_NE(plainDecoded, nullptr);
    EXPECT_EQ(plainDecoded->className(), "QVDevice");
}

}  // namespace
