#include <gtest/gtest.h>

#include "Foundation/Exception.h"
#include "Foundation/KeyedArchiver.h"
#include "Foundation/KeyedUnarchiver.h"
#include "Model/QVEthernetInterface.h"
#include "Model/QVSerialInterface.h"

namespace {

const qv::KeyedUnarchiver::ClassTable<QVInterface> kInterfaceClasses = {
    {"QVSerialInterface",
     [](qv::KeyedUnarchiver& c) -> std::shared_ptr<QVInterface> {
         return QVSerialInterface::initWithCoder(c);
     }},
    {"QVEthernetInterface",
     [](qv::KeyedUnarchiver& c) -> std::shared_ptr<QVInterface> {
         return QVEthernetInterface::initWithCoder(c);
     }},
    {"QVInterface", [](qv::KeyedUnarchiver& c) { return QVInterface::initWithCoder(c); }},
};

std::shared_ptr<QVInterface> archiveRoundTrip(const QVInterface& interface) {
    return qv::KeyedUnarchiver::unarchiveObjectWithData(
        qv::KeyedArchiver::archivedDataWithRootObject(interface), kInterfaceClasses);
}

TEST(QVInterface, SerialPortNameMarkerAndPathCheck) {
    QVSerialInterface port({"SMS", "NetworkQuery"}, "/dev/cu.ttyUSB2");
    EXPECT_EQ(port.name(), "ttyUSB2");
    EXPECT_EQ(port.capabilities(), (QVCapabilitySet{"IS_SERIAL_INTERFACE", "NetworkQuery", "SMS"}));
    EXPECT_FALSE(port.isChanged());
    EXPECT_EQ(port.description(),
              "Name: ttyUSB2, Path: /dev/cu.ttyUSB2, Capabilities: {(\n    IS_SERIAL_INTERFACE,\n"
              "    NetworkQuery,\n    SMS\n)}");

    // The reason shows the unset field, never the rejected path.
    try {
        QVSerialInterface bad({"SMS"}, "/dev/ttyUSB0");
        FAIL() << "a path outside /dev/cu. was accepted";
    } catch (const qv::Exception& e) {
        EXPECT_EQ(e.name(), qv::kNSInternalInconsistencyException);
        EXPECT_EQ(e.reason(),
                  "Expected serial port to have a prefix of \"/dev/cu.\" but it was: (null)");
    }

    QVEthernetInterface wwan({"DataTransport"}, "wwan0");
    EXPECT_EQ(wwan.name(), "wwan0");
    EXPECT_TRUE(wwan.hasCapability("IS_ETHERNET_INTERFACE"));
    EXPECT_FALSE(wwan.hasCapability("IS_SERIAL_INTERFACE"));
    QVInterface plain({"GroundInit", "SMS"});
    EXPECT_EQ(plain.name(), "GroundInit, SMS");
}

TEST(QVInterface, AddingCapabilitiesMarksOnlyRealGrowth) {
    QVSerialInterface port({"SMS"}, "/dev/cu.ttyUSB0");
    port.addCapabilities({"SMS", "IS_SERIAL_INTERFACE"});
    port.addCapabilities({});
    EXPECT_FALSE(port.isChanged());
    port.addCapabilities({"SMS", "GPSData"});
    EXPECT_TRUE(port.isChanged());
    EXPECT_TRUE(port.hasCapability("GPSData"));
    port.setChanged(false);
    port.addCapabilities({"GPSData"});
    EXPECT_FALSE(port.isChanged());
}

TEST(QVInterface, EqualityNeedsTheExactClassAndTheSameFields) {
    QVSerialInterface serial({"SMS"}, "/dev/cu.ttyUSB0");
    QVInterface plain(serial.capabilities());
    EXPECT_FALSE(serial.isEqual(plain));
    EXPECT_FALSE(plain.isEqual(serial));
    EXPECT_TRUE(serial.isEqual(QVSerialInterface({"SMS"}, "/dev/cu.ttyUSB0")));
    EXPECT_FALSE(serial.isEqual(QVSerialInterface({"SMS"}, "/dev/cu.ttyUSB1")));
    EXPECT_FALSE(serial.isEqual(QVSerialInterface({"GPSData"}, "/dev/cu.ttyUSB0")));
    QVEthernetInterface wwan({}, "wwan0");
    EXPECT_TRUE(wwan.isEqual(QVEthernetInterface({}, "wwan0")));
    EXPECT_FALSE(wwan.isEqual(QVEthernetInterface({}, "usb0")));
}

TEST(QVInterface, DictionaryFormRoundTripsAndLoadsWhatItFinds) {
    QVSerialInterface port({"SMS", "GroundInit"}, "/dev/cu.ttyUSB1");
    const qv::Value dictionary = port.toDictionary();
    EXPECT_EQ(dictionary,
              qv::Value(qv::Dictionary{
                  {"class", "QVSerialInterface"},
                  {"_capabilities", qv::Dictionary{{"capability-00", "GroundInit"},
                                                   {"capability-01", "IS_SERIAL_INTERFACE"},
                                                   {"capability-02", "SMS"}}},
                  {"_path", "/dev/cu.ttyUSB1"},
              }));
    auto loaded = QVSerialInterface::loadDictionary(dictionary);
    EXPECT_TRUE(loaded->isEqual(port));
    EXPECT_FALSE(loaded->isChanged());

    // Keys and their numbers don't matter; no marker is added; the path is not checked.
    auto handMade = QVSerialInterface::loadDictionary(qv::Value(qv::Dictionary{
        {"_capabilities", qv::Dictionary{{"x", "SMS"}, {"capability-07", "GPSData"}}},
        {"_path", "/dev/ttyS0"},
    }));
    EXPECT_EQ(handMade->capabilities(), (QVCapabilitySet{"GPSData", "SMS"}));
    EXPECT_EQ(handMade->path(), "/dev/ttyS0");

    // Hostile values: a capability list that isn't a dictionary, a path that isn't a string.
    auto hostile = QVSerialInterface::loadDictionary(qv::Value(qv::Dictionary{
        {"_capabilities", qv::Array{"SMS"}},
        {"_path", 42},
    }));
    EXPECT_TRUE(hostile->capabilities().empty());
    EXPECT_FALSE(hostile->path().has_value());
    EXPECT_EQ(hostile->name(), "");

    QVEthernetInterface wwan({"DataTransport"}, "wwan0");
    EXPECT_EQ(wwan.toDictionary()["_name"], qv::Value("wwan0"));
    EXPECT_TRUE(QVEthernetInterface::loadDictionary(wwan.toDictionary())->isEqual(wwan));
}

TEST(QVInterface, ArchiveRoundTripKeepsClassAndFields) {
    QVSerialInterface port({"SMS"}, "/dev/cu.ttyACM0");
    auto decoded = archiveRoundTrip(port);
    ASSERT_NE(decoded, nullptr);
    EXPECT_TRUE(decoded->isEqual(port));
    EXPECT_FALSE(decoded->isChanged());

    QVEthernetInterface wwan({"DataTransport"}, "usb0");
    decoded = archiveRoundTrip(wwan);
    ASSERT_NE(decoded, nullptr);
    EXPECT_TRUE(decoded->isEqual(wwan));

    QVInterface plain(QVCapabilitySet{});
    decoded = archiveRoundTrip(plain);
    ASSERT_NE(decoded, nullptr);
    EXPECT_TRUE(decoded->isEqual(plain));

    // Decoding does not check the path prefix.
    qv::Value archive = qv::KeyedArchiver::archivedValueWithRootObject(port);
    qv::Value root = archive["$root"];
    root.set("_path", "/dev/ttyS0");
    archive.set("$root", root);
    auto unchecked = std::dynamic_pointer_cast<QVSerialInterface>(
        qv::KeyedUnarchiver::unarchiveObjectWithValue(archive, kInterfaceClasses));
    ASSERT_NE(unchecked, nullptr);
    EXPECT_EQ(unchecked->path(), "/dev/ttyS0");
}

}  // namespace
