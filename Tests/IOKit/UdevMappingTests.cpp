#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "IOKit/UdevMapping.h"

namespace {

qv::UdevDeviceFacts usbDevice(std::string sysname) {
    qv::UdevDeviceFacts facts;
    facts.subsystem = "usb";
    facts.devtype = "usb_device";
    facts.sysname = std::move(sysname);
    facts.attributes = {{"idVendor", "12d1"},
                        {"idProduct", "1001"},
                        {"product", "HUAWEI Mobile"},
                        {"manufacturer", "HUAWEI Technologies"}};
    return facts;
}

qv::UdevDeviceFacts node(std::string subsystem, std::string devtype, std::string sysname) {
    qv::UdevDeviceFacts facts;
    facts.subsystem = std::move(subsystem);
    facts.devtype = std::move(devtype);
    facts.sysname = std::move(sysname);
    return facts;
}

TEST(UdevMapping, LocationIDPutsTheBusInTheTopByteAndOneNibblePerPort) {
    EXPECT_EQ(qv::locationIDFromUSBName("1-2"), 0x01200000u);
    EXPECT_EQ(qv::locationIDFromUSBName("3-1.4.2"), 0x03142000u);
    EXPECT_EQ(qv::locationIDFromUSBName("255-15"), 0xFFF00000u);
    // Six ports fill the remaining nibbles; a seventh does not fit.
    EXPECT_EQ(qv::locationIDFromUSBName("2-1.2.3.4.5.6"), 0x02123456u);
    EXPECT_EQ(qv::locationIDFromUSBName("2-1.2.3.4.5.6.7"), std::nullopt);
    for (const char* bad :
         {"", "1", "1-", "-2", "0-1", "256-1", "1-0", "1-16", "1-2.", "1-.2", "1-2..3", "x-2",
          "1-2a", "+1-2", "1-2:1.0", "usb1", "01234-1", "1-002"}) {
        EXPECT_EQ(qv::locationIDFromUSBName(bad), std::nullopt) << bad;
    }
}

TEST(UdevMapping, EveryWellFormedUSBNameGetsAStableUniqueLocationID) {
    // Where the original encoding fits it is used unchanged.
    EXPECT_EQ(qv::stableLocationIDFromUSBName("3-1.4.2"), 0x03142000u);
    // Past it: the bus byte, a zero first nibble no encoded ID has, and a hash of the chain.
    std::set<std::uint32_t> seen;
    for (const char* name : {"1-16", "1-17", "1-99", "2-1.2.3.4.5.6.7", "2-1.2.3.4.5.6.8", "2-16.1",
                             "2-1.16", "255-200"}) {
        auto location = qv::stableLocationIDFromUSBName(name);
        ASSERT_TRUE(location) << name;
        EXPECT_EQ(*location >> 24, static_cast<std::uint32_t>(std::stoi(name)));
        EXPECT_EQ((*location >> 20) & 0xF, 0u) << name;
        EXPECT_NE(*location & 0xFFFFF, 0u) << name;
        EXPECT_EQ(qv::stableLocationIDFromUSBName(name), location) << "stable";
        seen.insert(*location);
    }
    EXPECT_EQ(seen.size(), 8u);
    for (const char* bad : {"", "1", "1-", "0-16", "256-16", "x-16", "1-16a", "1-2:1.0", "usb1"}) {
        EXPECT_EQ(qv::stableLocationIDFromUSBName(bad), std::nullopt) << bad;
    }
}

TEST(UdevMapping, PortFunctionsComeFromUdevMarks) {
    auto tty = [](std::map<std::string, std::string, std::less<>> properties) {
        auto facts = node("tty", "", "ttyUSB1");
        facts.properties = std::move(properties);
        return qv::describeUdevDevice(facts)->properties[qv::kPortFunctionKey];
    };
    EXPECT_EQ(tty({{"ID_MM_PORT_TYPE_QCDM", "1"}}), qv::Value("QCDM"));
    EXPECT_EQ(tty({{"ID_MM_PORT_TYPE_GPS", "1"}}), qv::Value("GPS"));
    EXPECT_EQ(tty({{"ID_MM_PORT_IGNORE", "1"}, {"ID_MM_PORT_TYPE_AT_PRIMARY", "1"}}),
              qv::Value("Ignore"));
    EXPECT_EQ(tty({{"ID_MM_PORT_TYPE_AT_PPP", "1"}}), qv::Value("AT"));
    EXPECT_TRUE(tty({{"ID_MM_PORT_TYPE_QCDM", "0"}}).isNil());
    EXPECT_TRUE(tty({}).isNil());
    EXPECT_TRUE(qv::isPortFunctionForAT("AT"));
    for (const char* other : {"QCDM", "GPS", "Ignore", ""}) {
        EXPECT_FALSE(qv::isPortFunctionForAT(other)) << other;
    }
}

TEST(UdevMapping, DriverBundlesNameTheFunctionDriverAndMarkTheGenericOnes) {
    EXPECT_EQ(qv::describeUdevDevice(usbDevice("1-2"))->properties["CFBundleIdentifier"],
              qv::Value("com.apple.kernel.usb"));
    auto tty = node("tty", "", "ttyUSB0");
    tty.interfaceDriver = "option";
    EXPECT_EQ(qv::describeUdevDevice(tty)->properties["CFBundleIdentifier"], qv::Value("option"));
    auto net = node("net", "", "wwan0");
    net.interfaceDriver = "qmi_wwan";
    EXPECT_EQ(qv::describeUdevDevice(net)->properties["CFBundleIdentifier"], qv::Value("qmi_wwan"));
    auto cd = node("block", "disk", "sr0");
    cd.interfaceDriver = "usb-storage";
    EXPECT_EQ(qv::describeUdevDevice(cd)->properties["CFBundleIdentifier"],
              qv::Value("com.apple.kernel.usb-storage"));
    auto storage = node("usb", "usb_interface", "1-2:1.3");
    storage.driver = "usb-storage";
    EXPECT_EQ(qv::describeUdevDevice(storage)->properties["CFBundleIdentifier"],
              qv::Value("com.apple.kernel.usb-storage"));
    auto serial = node("usb", "usb_interface", "1-2:1.0");
    serial.driver = "option";
    EXPECT_TRUE(qv::describeUdevDevice(serial)->properties["CFBundleIdentifier"].isNil());
    // Unbound, or a name that is no kernel driver's: nothing claimed.
    EXPECT_TRUE(qv::describeUdevDevice(node("tty", "", "ttyUSB0"))
                    ->properties["CFBundleIdentifier"]
                    .isNil());
    tty.interfaceDriver = "bad driver/name";
    EXPECT_TRUE(qv::describeUdevDevice(tty)->properties["CFBundleIdentifier"].isNil());
}

TEST(UdevMapping, HexAttributesParseStrictly) {
    EXPECT_EQ(qv::parseSysfsHex("12d1", 4), 0x12d1u);
    EXPECT_EQ(qv::parseSysfsHex("0A", 2), 0x0Au);
    for (const char* bad : {"", "12d1x", "0x12", "-1", " 12", "12 ", "12345", "g"}) {
        EXPECT_EQ(qv::parseSysfsHex(bad, 4), std::nullopt) << bad;
    }
}

TEST(UdevMapping, USBDeviceAndInterface) {
    auto device = qv::describeUdevDevice(usbDevice("3-1.4"));
    ASSERT_TRUE(device);
    EXPECT_EQ(device->className, "IOUSBDevice");
    EXPECT_EQ(device->name, "IOUSBDevice");
    EXPECT_EQ(device->properties["idVendor"], qv::Value(0x12d1));
    EXPECT_EQ(device->properties["idProduct"], qv::Value(0x1001));
    EXPECT_EQ(device->properties["USB Product Name"], qv::Value("HUAWEI Mobile"));
    EXPECT_EQ(device->properties["USB Vendor Name"], qv::Value("HUAWEI Technologies"));
    EXPECT_EQ(device->properties["locationID"], qv::Value(0x03140000));

    auto interface = node("usb", "usb_interface", "3-1.4:1.2");
    interface.attributes = {{"bInterfaceNumber", "02"}, {"bInterfaceClass", "ff"}};
    interface.driver = "option";
    auto entry = qv::describeUdevDevice(interface);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->className, "IOUSBInterface");
    EXPECT_EQ(entry->properties["bInterfaceNumber"], qv::Value(2));
    EXPECT_EQ(entry->properties["Driver"], qv::Value("option"));

    // Root hubs are the controller's.
    EXPECT_FALSE(qv::describeUdevDevice(usbDevice("usb1")));
}

TEST(UdevMapping, HostileUSBAttributesLeaveThePropertyOut) {
    auto facts = usbDevice("1-200");  // a port past one nibble: no location, still a device
    facts.attributes = {{"idVendor", "12d1\n"},
                        {"idProduct", "-1"},
                        {"product", std::string("bad\xff\xfe", 5)},
                        {"manufacturer", std::string(4000, 'A')}};
    auto entry = qv::describeUdevDevice(facts);
    ASSERT_TRUE(entry);
    for (const char* key : {"idVendor", "idProduct", "USB Product Name", "USB Vendor Name"}) {
        EXPECT_TRUE(entry->properties[key].isNil()) << key;
    }
    EXPECT_EQ(entry->properties["locationID"],
              qv::Value(*qv::stableLocationIDFromUSBName("1-200")));
    EXPECT_FALSE(qv::describeUdevDevice(usbDevice(std::string(100, '1'))));
}

TEST(UdevMapping, TTYsNetworkInterfacesAndMedia) {
    auto tty = qv::describeUdevDevice(node("tty", "", "ttyUSB3"));
    ASSERT_TRUE(tty);
    EXPECT_EQ(tty->className, "IOSerialBSDClient");
    EXPECT_EQ(tty->name, "IOSerialBSDClient");
    EXPECT_EQ(tty->properties["IOTTYDevice"], qv::Value("ttyUSB3"));
    EXPECT_EQ(tty->properties["IOCalloutDevice"], qv::Value("/dev/cu.ttyUSB3"));
    EXPECT_TRUE(qv::describeUdevDevice(node("tty", "", "ttyACM0")));
    EXPECT_TRUE(qv::describeUdevDevice(node("tty", "", "ttyHS2")));
    for (const char* other : {"tty1", "ttyS0", "ttyUSB", "ttyUSB1a", "ttyUSB/1", "console"}) {
        EXPECT_FALSE(qv::describeUdevDevice(node("tty", "", other))) << other;
    }

    auto net = qv::describeUdevDevice(node("net", "", "wwan0"));
    ASSERT_TRUE(net);
    EXPECT_EQ(net->className, "IOEthernetInterface");
    EXPECT_EQ(net->properties["BSD Name"], qv::Value("wwan0"));
    EXPECT_FALSE(qv::describeUdevDevice(node("net", "", "a-name-too-long-for-linux")));
    EXPECT_FALSE(qv::describeUdevDevice(node("net", "", "bad name")));

    auto cd = qv::describeUdevDevice(node("block", "disk", "sr0"));
    ASSERT_TRUE(cd);
    EXPECT_EQ(cd->className, "IOCDMedia");
    EXPECT_EQ(cd->properties["BSD Name"], qv::Value("sr0"));

    auto disk = qv::describeUdevDevice(node("block", "disk", "sdb"));
    ASSERT_TRUE(disk);
    EXPECT_EQ(disk->className, "IOMedia");
    EXPECT_EQ(disk->properties["Leaf"], qv::Value(true));
    auto partition = qv::describeUdevDevice(node("block", "partition", "sdb1"));
    ASSERT_TRUE(partition);
    EXPECT_EQ(partition->properties["BSD Name"], qv::Value("sdb1"));
    EXPECT_EQ(partition->properties["Leaf"], qv::Value(true));
    for (const char* other : {"loop0", "sd", "sdb1", "nvme0n1", "srx"}) {
        EXPECT_FALSE(qv::describeUdevDevice(node("block", "disk", other))) << other;
    }
    EXPECT_FALSE(qv::describeUdevDevice(node("block", "partition", "sdb")));
}

TEST(UdevMapping, SysPathOrderPutsParentsFirstAndInterfacesByNumber) {
    std::vector<std::string> paths = {"/sys/devices/usb1/1-2/1-2:1.10/ttyUSB3/tty/ttyUSB3",
                                      "/sys/devices/usb1/1-2/1-2:1.2",
                                      "/sys/devices/usb1/1-2/1-2:1.10",
                                      "/sys/devices/usb1/1-2.1",
                                      "/sys/devices/usb1/1-2",
                                      "/sys/devices/usb1/1-2/1-2:1.0"};
    std::sort(paths.begin(), paths.end(), qv::sysPathOrderLess);
    std::vector<std::string> expected = {"/sys/devices/usb1/1-2",
                                         "/sys/devices/usb1/1-2/1-2:1.0",
                                         "/sys/devices/usb1/1-2/1-2:1.2",
                                         "/sys/devices/usb1/1-2/1-2:1.10",
                                         "/sys/devices/usb1/1-2/1-2:1.10/ttyUSB3/tty/ttyUSB3",
                                         "/sys/devices/usb1/1-2.1"};
    EXPECT_EQ(paths, expected);
    EXPECT_EQ(qv::parentSysPath("/sys/a/b"), "/sys/a");
    EXPECT_EQ(qv::parentSysPath("/sys"), "");
    EXPECT_EQ(qv::parentSysPath("nothing"), "");
}

}  // namespace
