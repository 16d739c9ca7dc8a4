#include <gtest/gtest.h>

#include <string>

#include "Foundation/KeyedArchiver.h"
#include "Foundation/KeyedUnarchiver.h"
#include "Foundation/PropertyList.h"
#include "Model/QVDevice.h"
#include "Model/QVEthernetInterface.h"

namespace {

const qv::KeyedUnarchiver::ClassTable<QVDevice> kDeviceClasses = {
    {"QVDevice", [](qv::KeyedUnarchiver& c) { return QVDevice::initWithCoder(c); }},
};

std::shared_ptr<QVDevice> sampleDevice() {
    auto device = QVDevice::device();
    device->setQuorvelID(4817);
    device->setUUID(qv::Value(0x14200000));
    device->setProductName("E220 <&> \"quoted\"");
    device->setVendorName("Huawei");
    device->setDriverBundle("com.example.driver");
    device->setAvailable(true);
    device->addInterface(
        QVSerialInterface::portWithCapabilities({"GroundInit", "SMS"}, "/dev/cu.ttyUSB0"));
    device->addInterface(
        QVEthernetInterface::ethernetInterfaceWithCapabilities({"DataTransport"}, "wwan0"));
    device->addInterface(std::make_shared<QVInterface>(QVCapabilitySet{"GPSData"}));
    return device;
}

qv::Value archiveOf(const QVDevice& device) {
    return qv::KeyedArchiver::archivedValueWithRootObject(device);
}

std::shared_ptr<QVDevice> decode(const qv::Value& archive) {
    return qv::KeyedUnarchiver::unarchiveObjectWithValue(archive, kDeviceClasses);
}

// The archive with one field of its root object replaced.
qv::Value withRootField(qv::Value archive, const std::string& key, qv::Value value) {
    qv::Value root = archive["$root"];
    root.set(key, std::move(value));
    archive.set("$root", std::move(root));
    return archive;
}

TEST(QVDeviceArchive, RoundTripKeepsAllButTheDriverBundle) {
    auto device = sampleDevice();
    const std::string data = qv::KeyedArchiver::archivedDataWithRootObject(*device);
    std::string error;
    auto decoded = qv::KeyedUnarchiver::unarchiveObjectWithData(data, kDeviceClasses, &error);
    ASSERT_NE(decoded, nullptr) << error;
    EXPECT_FALSE(decoded->isChanged());
    EXPECT_EQ(decoded->quorvelID(), 4817);
    ASSERT_NE(decoded->getUUID(), nullptr);
    EXPECT_EQ(*decoded->getUUID(), qv::Value(0x14200000));
    EXPECT_EQ(decoded->productName(), device->productName());
    EXPECT_EQ(decoded->vendorName(), "Huawei");
    EXPECT_TRUE(decoded->isAvailable());
    EXPECT_FALSE(decoded->driverBundle().has_value());
    ASSERT_EQ(decoded->interfaces().size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(decoded->interfaces()[i]->isEqual(*device->interfaces()[i])) << i;
    }

    // A record with nothing set archives and decodes as empty.
    auto empty = decode(archiveOf(QVDevice()));
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->getUUID(), nullptr);
    EXPECT_FALSE(empty->productName().has_value());
    EXPECT_TRUE(empty->interfaces().empty());
}

TEST(QVDeviceArchive, MissingKeysDecodeAsAbsent) {
    auto decoded = decode(qv::Value(qv::Dictionary{
        {"$archiver", "QVKeyedArchiver"},
        {"$version", 1},
        {"$root", qv::Dictionary{{"$class", "QVDevice"}}},
    }));
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(decoded->quorvelID(), 0);
    EXPECT_FALSE(decoded->isAvailable());
    EXPECT_TRUE(decoded->interfaces().empty());
}

TEST(QVDeviceArchive, HostileArchivesDecodeAsNil) {
    const qv::Value good = archiveOf(*sampleDevice());
    const qv::Value setOfNumber =
        qv::Dictionary{{"$class", "NSSet"}, {"$objects", qv::Array{qv::Value(3)}}};
    const qv::Value badInterface =
        qv::Dictionary{{"$class", "QVSerialInterface"}, {"_capabilities", setOfNumber}};
    const std::vector<std::pair<std::string, qv::Value>> hostile = {
        {"not a dictionary", qv::Value(qv::Array{good})},
        {"other archiver",
         [&] {
             qv::Value a = good;
             a.set("$archiver", "NSKeyedArchiver");
             return a;
         }()},
        {"other version",
         [&] {
             qv::Value a = good;
             a.set("$version", 2);
             return a;
         }()},
        {"no root",
         [&] {
             qv::Value a = good;
             a.set("$root", "QVDevice");
             return a;
         }()},
        {"root of another class", withRootField(good, "$class", "QVSerialInterface")},
        {"root without class", withRootField(good, "$class", 5)},
        {"ID as text", withRootField(good, "_quorvelID", "4817")},
        {"ID past 32 bits", withRootField(good, "_quorvelID", qv::Value::integer(1LL << 40))},
        {"availability as text", withRootField(good, "_available", "YES")},
        {"location as text", withRootField(good, "_locationID", "0x14200000")},
        {"name as number", withRootField(good, "_productName", 1)},
        {"interfaces not an array", withRootField(good, "_interfaces", qv::Array{})},
        {"interfaces as a set",
         withRootField(good, "_interfaces",
                       qv::Dictionary{{"$class", "NSSet"}, {"$objects", qv::Array{}}})},
        {"unknown interface class",
         withRootField(good, "_interfaces",
                       qv::Dictionary{{"$class", "NSArray"},
                                      {"$objects", qv::Array{qv::Dictionary{
                                                       {"$class", "QVBluetoothInterface"}}}}})},
        {"device inside the list",
         withRootField(
             good, "_interfaces",
             qv::Dictionary{{"$class", "NSArray"}, {"$objects", qv::Array{good["$root"]}}})},
        {"member not an object",
         withRootField(good, "_interfaces",
                       qv::Dictionary{{"$class", "NSArray"}, {"$objects", qv::Array{"x"}}})},
        {"capability not a string",
         withRootField(
             good, "_interfaces",
             qv::Dictionary{{"$class", "NSArray"}, {"$objects", qv::Array{badInterface}}})},
    };
    for (const auto& [what, archive] : hostile) {
        EXPECT_EQ(decode(archive), nullptr) << what;
    }

    // Bytes that are no archive at all: text, a binary property list, a truncated archive.
    const std::string data = qv::KeyedArchiver::archivedDataWithRootObject(*sampleDevice());
    for (const std::string& bytes :
         {std::string("garbage"), std::string("bplist00\xd1\x01\x02", 11),
          data.substr(0, data.size() / 2), std::string()}) {
        std::string error;
        EXPECT_EQ(qv::KeyedUnarchiver::unarchiveObjectWithData(bytes, kDeviceClasses, &error),
                  nullptr);
        EXPECT_FALSE(error.empty());
    }
}

TEST(QVDeviceArchive, DeepNestingIsRefused) {
    // Objects nested in objects past the limit are refused, even where every level names a class
    // that is accepted there.
    qv::KeyedUnarchiver::ClassTable<QVDevice> nestable;
    nestable.emplace_back("QVDevice", [&nestable](qv::KeyedUnarchiver& coder) {
        coder.decodeObject("next", nestable);
        return QVDevice::device();
    });
    qv::Value object = qv::Dictionary{{"$class", "QVDevice"}};
    for (int i = 0; i < qv::KeyedUnarchiver::kMaxObjectDepth + 4; ++i) {
        object = qv::Dictionary{{"$class", "QVDevice"}, {"next", object}};
    }
    const qv::Value archive =
        qv::Dictionary{{"$archiver", "QVKeyedArchiver"}, {"$version", 1}, {"$root", object}};
    std::string error;
    EXPECT_EQ(qv::KeyedUnarchiver::unarchiveObjectWithValue(archive, nestable, &error), nullptr);
    EXPECT_EQ(error, "objects nested too deeply");
}

}  // namespace
