#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Foundation/Logging.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Model/QVDevice.h"
#include "Model/QVEthernetInterface.h"
#include "Rules/QVAllowedDeviceRulesEntry.h"
#include "modem_query_tools/ModemQueryTools.h"

namespace {

std::shared_ptr<QVDevice> recordWithPorts() {
    auto device = QVDevice::device();
    device->addInterface(
        QVSerialInterface::portWithCapabilities({"GroundInit"}, "/dev/cu.ttyUSB0"));
    device->addInterface(
        QVEthernetInterface::ethernetInterfaceWithCapabilities({"NetworkQuery", "SMS"}, "wwan0"));
    device->addInterface(
        QVSerialInterface::portWithCapabilities({"NetworkQuery", "SMS"}, "/dev/cu.ttyUSB2"));
    device->addInterface(QVSerialInterface::portWithCapabilities({"SMS"}, "/dev/cu.ttyUSB3"));
    return device;
}

TEST(QVDevice, QuorvelIDRules) {
    for (int id : {0, -1, -2, -15354}) {
        EXPECT_FALSE(QVDevice::isValidQuorvelID(id)) << id;
    }
    EXPECT_TRUE(QVDevice::isValidQuorvelID(197));
    auto device = QVDevice::device();
    EXPECT_TRUE(device->isMissingQuorvelID());
    device->setQuorvelID(-1);
    EXPECT_TRUE(device->isMissingQuorvelID());
    device->setQuorvelID(-2);  // present, though not valid
    EXPECT_TRUE(device->hasQuorvelID());
}

TEST(QVDevice, TrackingSettersMarkOnlyRealChanges) {
    auto device = QVDevice::device();
    EXPECT_FALSE(device->productName().has_value());
    device->setProductName(std::nullopt);
    EXPECT_EQ(device->productName(), "");
    EXPECT_FALSE(device->isChanged());
    device->setProductName("X");
    EXPECT_TRUE(device->isChanged());
    device->setChanged(false);
    device->setProductName("X");
    device->setVendorName("");
    device->setAvailable(false);
    device->setQuorvelID(0);
    EXPECT_FALSE(device->isChanged());

    device->setUUID(QVDevice::LocationNumber());
    ASSERT_NE(device->getUUID(), nullptr);
    EXPECT_EQ(*device->getUUID(), qv::Value(0));
    EXPECT_TRUE(device->isChanged());
    device->setChanged(false);
    device->setUUID(qv::Value(0));
    device->setUUID(std::make_shared<const qv::Value>(0.0));
    EXPECT_FALSE(device->isChanged());
    device->setUUID(qv::Value(0x14200000));
    EXPECT_TRUE(device->isChanged());
}

TEST(QVDevice, ClearingTheRecordClearsItsInterfaces) {
    auto device = recordWithPorts();
    EXPECT_TRUE(device->isChanged());
    device->interfaces()[0]->addCapabilities({"Unsolicited"});
    device->setChanged(true);
    device->setChanged(false);
    EXPECT_FALSE(device->interfaces()[0]->isChanged());
    EXPECT_FALSE(device->isChanged());
    device->interfaces()[3]->addCapabilities({"GPSData"});
    EXPECT_TRUE(device->isChanged());
}

TEST(QVDevice, PortSelectionLooksAtSerialPortsInOrder) {
    auto device = recordWithPorts();
    EXPECT_EQ(device->serialPorts().size(), 3u);
    EXPECT_EQ(device->ethernetInterfaces().size(), 1u);
    ASSERT_NE(device->portWithCapability("NetworkQuery"), nullptr);
    EXPECT_EQ(device->portWithCapability("NetworkQuery")->path(), "/dev/cu.ttyUSB2");
    EXPECT_EQ(device->getMessageDevicePath(), "/dev/cu.ttyUSB2");
    EXPECT_EQ(device->deviceName(), "ttyUSB0");
    EXPECT_EQ(device->getDevicePath(), "/dev/cu.ttyUSB0");
    EXPECT_EQ(device->ethernetInterfaceName(), "wwan0");
    EXPECT_EQ(QVDevice::filterInterfaces(device->interfaces(),
                                         std::vector<std::string>{"SMS", "IS_SERIAL_INTERFACE"})
                  .size(),
              2u);
    EXPECT_EQ(QVDevice::filterInterfaces(device->interfaces(), std::vector<std::string>{}).size(),
              4u);

    // Only serial ports are searched.
    auto ethernetOnly = QVDevice::device();
    ethernetOnly->addInterface(
        QVEthernetInterface::ethernetInterfaceWithCapabilities({"NetworkQuery"}, "usb0"));
    EXPECT_EQ(ethernetOnly->portWithCapability("NetworkQuery"), nullptr);
    EXPECT_FALSE(ethernetOnly->deviceName().has_value());
    EXPECT_FALSE(ethernetOnly->getMessageDevicePath().has_value());
}

TEST(QVDevice, EqualityNeedsIDsAndTheSameLocationObject) {
    auto location = std::make_shared<const qv::Value>(0x14200000);
    auto a = QVDevice::device();
    auto b = QVDevice::device();
    a->setUUID(location);
    b->setUUID(location);
    EXPECT_FALSE(a->isEqual(*b));  // both IDs missing
    a->setQuorvelID(4817);
    b->setQuorvelID(4817);
    EXPECT_TRUE(a->isEqual(*b));
    b->setQuorvelID(4818);
    EXPECT_FALSE(a->isEqual(*b));
    b->setQuorvelID(4817);
    // Numerically equal, but another object: another unit.
    b->setUUID(std::make_shared<const qv::Value>(1));
    b->setUUID(std::make_shared<const qv::Value>(0x14200000));
    EXPECT_FALSE(a->isEqual(*b));

    const auto hash = a->hash();
    a->setProductName("E220");
    a->addInterface(QVSerialInterface::portWithCapabilities({}, "/dev/cu.ttyUSB0"));
    EXPECT_EQ(a->hash(), hash);
    EXPECT_EQ(a->hash(), 0x14200000u + 4817u);
}

TEST(QVDevice, CopySharesInterfacesAndComesOutChanged) {
    auto source = recordWithPorts();
    source->setProductName("E220");
    source->setVendorName("Huawei");
    source->setDriverBundle("com.example.driver");
    source->setQuorvelID(4817);
    source->setUUID(qv::Value(0x14200000));
    source->setAvailable(true);
    source->setChanged(false);

    auto copy = source->copy();
    EXPECT_TRUE(copy->isChanged());
    EXPECT_TRUE(copy->isEqual(*source));
    EXPECT_TRUE(source->isEqual(*copy));
    ASSERT_EQ(copy->interfaces().size(), 4u);
    EXPECT_EQ(copy->interfaces()[2], source->interfaces()[2]);
    EXPECT_EQ(copy->productName(), "E220");
    EXPECT_EQ(copy->vendorName(), "Huawei");
    EXPECT_TRUE(copy->isAvailable());
    EXPECT_FALSE(copy->driverBundle().has_value());
}

TEST(QVDevice, DictionaryFormKeysAndRoundTrip) {
    auto device = recordWithPorts();
    device->setQuorvelID(4817);
    device->setUUID(qv::Value(0x14200000));
    device->setProductName("E220");
    device->setVendorName("Huawei");
    device->setDriverBundle("com.example.driver");
    device->setAvailable(true);

    const qv::Value dictionary = device->toDictionary();
    EXPECT_EQ(dictionary["class"], qv::Value("QVDevice"));
    EXPECT_EQ(dictionary["_available"], qv::Value(true));
    EXPECT_EQ(dictionary["_quorvelID"], qv::Value(4817));
    EXPECT_EQ(dictionary["_locationID"], qv::Value(0x14200000));
    EXPECT_EQ(dictionary["_productName"], qv::Value("E220"));
    EXPECT_EQ(dictionary["_vendorName"], qv::Value("Huawei"));
    EXPECT_EQ(dictionary["_driverBundle"], qv::Value("com.example.driver"));
    EXPECT_EQ(dictionary["_interfaces"].count(), 4u);
    EXPECT_EQ(dictionary["_interfaces"]["interface-3"]["_path"], qv::Value("/dev/cu.ttyUSB3"));
    EXPECT_EQ(dictionary["_interfaces"]["interface-1"]["class"], qv::Value("QVEthernetInterface"));

    auto loaded = QVDevice::loadDictionary(dictionary);
    EXPECT_FALSE(loaded->isChanged());
    EXPECT_EQ(loaded->toDictionary(), dictionary);
    ASSERT_EQ(loaded->interfaces().size(), 4u);
    EXPECT_TRUE(loaded->interfaces()[1]->isEqual(*device->interfaces()[1]));
    // Loaded from a dictionary, the location number is a new object: not the same unit.
    EXPECT_FALSE(loaded->isEqual(*device));
}

TEST(QVDevice, DictionaryWithBadInterfacesLoadsTheRest) {
    std::vector<std::string> systemLog;
    qv::setSystemLogSink([&](const std::string& line) { systemLog.push_back(line); });
    auto loaded = QVDevice::loadDictionary(qv::Value(qv::Dictionary{
        {"_quorvelID", "4817"},
        {"_locationID", "not a number"},
        {"_productName", 7},
        {"_interfaces",
         qv::Dictionary{
             {"interface-0", qv::Dictionary{{"class", "QVBluetoothInterface"}}},
             {"interface-1", qv::Dictionary{{"_path", "/dev/cu.ttyUSB0"}}},
             {"interface-2", "garbage"},
             {"interface-3",
              qv::Dictionary{{"class", "QVSerialInterface"}, {"_path", "/dev/cu.ttyUSB1"}}},
         }},
    }));
    qv::setSystemLogSink(nullptr);
    EXPECT_EQ(loaded->quorvelID(), 4817);
    EXPECT_EQ(loaded->getUUID(), nullptr);
    EXPECT_FALSE(loaded->productName().has_value());
    ASSERT_EQ(loaded->interfaces().size(), 1u);
    EXPECT_EQ(loaded->interfaces()[0]->name(), "ttyUSB1");
    EXPECT_EQ(systemLog,
              (std::vector<std::string>{"unsupported interface class QVBluetoothInterface",
                                        "class name not set in interfaces data",
                                        "class name not set in interfaces data"}));
    EXPECT_TRUE(QVDevice::loadDictionary(qv::Value("not a dictionary"))->interfaces().empty());
}

}  // namespace

namespace {

TEST(QVDevice, ModelFactsComeFromTheEntryAndTheRule) {
    auto device = QVDevice::device();
    EXPECT_EQ(device->manufacturerID(), 0);
    EXPECT_EQ(device->networkAccessTechnology(), 0);
    EXPECT_EQ(device->networkIPv6Support(), 0);
    EXPECT_EQ(device->deviceAPIType(), 0);
    EXPECT_EQ(device->preferredDTIfType(), 0);

    QVDeviceDatabase database;
    auto entry = QVDeviceDatabaseEntry::entryFromDictionary(qv::Value(qv::Dictionary{
        {"DeviceDatabase.QuorvelID", 4817},
        {"DeviceDatabase.Manufacturer", "Huawei"},
        {"DeviceDatabase.NetworkAccessTechnology", "CDMA"},
        {"DeviceDatabase.NetworkIPv6Support", "IPv6"},
        {"DeviceDatabase.DeviceControllingAPIType", "HalcyraWebApi"},
    }));
    database.addEntry(entry);
    device->setDatabaseEntry(entry);
    EXPECT_EQ(device->manufacturerID(), 3);
    EXPECT_EQ(device->networkAccessTechnology(), 1);
    EXPECT_EQ(device->networkIPv6Support(), 0);
    EXPECT_EQ(device->deviceAPIType(), 2);

    const std::vector<std::pair<qv::Value, int>> rules = {
        {"kEthernet", 2}, {"kSerial", 1}, {"kethernet", 0}, {qv::Value(2), 0}};
    for (const auto& [type, expected] : rules) {
        device->setAllowedDeviceRulesEntry(QVAllowedDeviceRulesEntry::entryWithDict(
            qv::Value(qv::Dictionary{{"PreferredDataTransportInterfaceType", type}})));
        EXPECT_EQ(device->preferredDTIfType(), expected) << type.description();
    }
}

}  // namespace

namespace {

TEST(QVDevice, DescriptionListsFieldsAndInterfaces) {
    auto device = QVDevice::device();
    device->setQuorvelID(4817);
    device->setProductName("E220");
    device->addInterface(QVSerialInterface::portWithCapabilities({"SMS"}, "/dev/cu.ttyUSB0"));
    device->addInterface(QVEthernetInterface::ethernetInterfaceWithCapabilities({}, "wwan0"));
    EXPECT_EQ(device->description(),
              std::string("Quorvel ID: 4817\nIs Available: NO\nProduct Name: E220\nVendor Name: "
                          "(null)\n[core] Device Type: ") +
                  getDeviceType(4817) +
                  "\nEthernet Interface Name: wwan0\nInterfaces: (\n"
                  "    Name: ttyUSB0, Path: /dev/cu.ttyUSB0, Capabilities: {(\n"
                  "    IS_SERIAL_INTERFACE,\n    SMS\n)},\n"
                  "    Name: wwan0, Capabilities: {(\n    IS_ETHERNET_INTERFACE\n)}\n)\n");
    EXPECT_EQ(device->getDisplayName(), getDeviceName(4817));
}

}  // namespace
