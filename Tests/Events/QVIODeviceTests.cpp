#include "Events/QVIODevice.h"

#include "DeviceEventsFixture.h"
#include "IOKit/UdevMapping.h"

namespace {

using QVIODeviceTest = DeviceEventsTest;

TEST_F(QVIODeviceTest, EqualityNeedsSameIdsAndALocation) {
    io_registry_entry_t stick = addUsb(4817, 4099, 0x01200000);
    io_registry_entry_t twin = addUsb(4817, 4099, 0x01300000);
    io_registry_entry_t unplaced = addUsb(4817, 4099, {});
    io_registry_entry_t other = addUsb(4817, 5000, 0x01200000);

    auto first = QVIODevice::deviceWithServiceEntry(stick);
    loop_->runFor(5.0);
    auto later = QVIODevice::deviceWithServiceEntry(stick);
    EXPECT_TRUE(first->isEqual(*later));
    EXPECT_TRUE(later->isEqual(*first));
    EXPECT_DOUBLE_EQ(first->timeIntervalSinceItWasAdded(), 5.0);
    EXPECT_DOUBLE_EQ(later->timeIntervalSinceItWasAdded(), 0.0);

    // The same model in another socket, another product in the same socket.
    EXPECT_FALSE(first->isEqual(*QVIODevice::deviceWithServiceEntry(twin)));
    EXPECT_FALSE(first->isEqual(*QVIODevice::deviceWithServiceEntry(other)));
    // Without a location a snapshot equals nothing, not even itself.
    auto nowhere = QVIODevice::deviceWithServiceEntry(unplaced);
    EXPECT_FALSE(nowhere->isEqual(*nowhere));
    EXPECT_FALSE(nowhere->isEqual(*QVIODevice::deviceWithServiceEntry(unplaced)));
    // A snapshot of a device that is gone still compares by what it read.
    std::shared_ptr<QVIODevice> gone = QVIODevice::deviceWithServiceEntry(stick);
    registry().removeEntry(stick);
    EXPECT_TRUE(gone->isEqual(*first));
}

TEST_F(QVIODeviceTest, PortsAndEthernetInterface) {
    io_registry_entry_t stick = addUsb(4817, 4099, 1);
    io_registry_entry_t iface = add(stick, "IOUSBInterface");
    add(iface, "IOSerialBSDClient", qv::Value(qv::Dictionary{{"IOCalloutDevice", "/dev/cu.a"}}));
    auto device = QVIODevice::deviceWithServiceEntry(stick);
    // The callout path decides, not the tty name.
    EXPECT_TRUE(device->hasSerialPorts());
    EXPECT_TRUE(device->ports().empty());
    EXPECT_EQ(device->portPaths(), std::vector<std::string>{"/dev/cu.a"});
    EXPECT_FALSE(device->isMissingSerialAndEthernetInterfaces());

    io_registry_entry_t ttyOnly = addUsb(4817, 4099, 2);
    add(ttyOnly, "IOSerialBSDClient", qv::Value(qv::Dictionary{{"IOTTYDevice", "ttyUSB9"}}));
    auto quiet = QVIODevice::deviceWithServiceEntry(ttyOnly);
    EXPECT_FALSE(quiet->hasSerialPorts());
    EXPECT_EQ(quiet->ports(), std::vector<std::string>{"ttyUSB9"});
    EXPECT_TRUE(quiet->isMissingSerialAndEthernetInterfaces());

    // Found by entry name or by class; the last one wins.
    io_registry_entry_t modem = addUsb(6610, 49, 3);
    addBsd(modem, "IOEthernetInterface", "wwan0");
    add(modem, "IONetworkInterface", qv::Value(qv::Dictionary{{"BSD Name", "wwan1"}}),
        "IOEthernetInterface");
    auto networked = QVIODevice::deviceWithServiceEntry(modem);
    EXPECT_EQ(networked->ethernetInterfaceName(), qv::Value("wwan1"));
    EXPECT_FALSE(networked->isMissingSerialAndEthernetInterfaces());

    // Sony Ericsson phones never get one.
    io_registry_entry_t phone = addUsb(4046, 53, 4);
    addBsd(phone, "IOEthernetInterface", "usb0");
    auto sonyEricsson = QVIODevice::deviceWithServiceEntry(phone);
    EXPECT_TRUE(sonyEricsson->ethernetInterfaceName().isNil());
    EXPECT_TRUE(sonyEricsson->isMissingSerialAndEthernetInterfaces());
}

TEST_F(QVIODeviceTest, DisksAndWhatASecondRefreshKeeps) {
    io_registry_entry_t stick = addUsb(4817, 4099, 1);
    io_registry_entry_t cd = addBsd(stick, "IOCDMedia", "sr0");
    io_registry_entry_t whole =
        add(stick, "IOMedia", qv::Value(qv::Dictionary{{"BSD Name", "sdb"}, {"Leaf", false}}));
    add(whole, "IOMedia", qv::Value(qv::Dictionary{{"BSD Name", "sdb1"}, {"Leaf", true}}));
    addBsd(whole, "IOMedia", "sdb2");
    io_registry_entry_t net = addBsd(stick, "IOEthernetInterface", "wwan0");
    io_registry_entry_t serial = addSerial(stick, "ttyUSB0");

    auto device = QVIODevice::deviceWithServiceEntry(stick);
    EXPECT_EQ(device->driverDiskName(), qv::Value("sr0"));
    EXPECT_TRUE(device->hasDriverVolume());
    // The whole disk, neither a partition nor the CD.
    EXPECT_EQ(device->secondaryDiskName(), qv::Value("sdb"));
    EXPECT_TRUE(device->hasSecondaryVolume());

    registry().removeEntry(cd);
    registry().removeEntry(whole);
    registry().removeEntry(net);
    registry().removeEntry(serial);
    addSerial(stick, "ttyUSB3");
    registry().setProperties(stick, qv::Value(qv::Dictionary{{"USB Product Name", nullptr}}));
    device->updateFromIORegistry();
    EXPECT_TRUE(device->driverDiskName().isNil());
    EXPECT_EQ(device->secondaryDiskName(), qv::Value("sdb"));
    EXPECT_EQ(device->ethernetInterfaceName(), qv::Value("wwan0"));
    EXPECT_EQ(device->ports(), std::vector<std::string>{"ttyUSB3"});
    EXPECT_TRUE(device->name().isNil());

    // A plain mass-storage disk without partitions is no secondary disk.
    io_registry_entry_t plain = addUsb(1, 2, 5);
    addBsd(plain, "IOMedia", "sdc");
    EXPECT_TRUE(QVIODevice::deviceWithServiceEntry(plain)->secondaryDiskName().isNil());
}

TEST_F(QVIODeviceTest, DriverBundleIsTheFirstOwnDriverBelowAnAppleStack) {
    qv::Value apple(qv::Dictionary{{"CFBundleIdentifier", "com.apple.driver.AppleUSBEHCI"}});
    io_registry_entry_t controller = add(IO_OBJECT_NULL, "AppleUSBEHCI", apple);
    io_registry_entry_t stick = addUsb(4817, 4099, 1, controller);
    io_registry_entry_t iface = add(stick, "IOUSBInterface");
    add(iface, "AppleUSBCDC",
        qv::Value(qv::Dictionary{{"CFBundleIdentifier", "com.apple.driver.AppleUSBCDC"}}));
    io_registry_entry_t own =
        add(iface, "HuaweiDataCardDriver",
            qv::Value(qv::Dictionary{{"CFBundleIdentifier", "com.huawei.driver.HuaweiDataCard"}}));
    add(iface, "OtherDriver",
        qv::Value(qv::Dictionary{{"CFBundleIdentifier", "com.other.driver.Second"}}));
    addSerial(own, "ttyUSB0");
    EXPECT_EQ(QVIODevice::deviceWithServiceEntry(stick)->driverBundle(),
              qv::Value("com.huawei.driver.HuaweiDataCard"));

    // The nearest driver above decides: a vendor's stack above hides an Apple one further up.
    io_registry_entry_t vendorHub =
        add(controller, "VendorHub",
            qv::Value(qv::Dictionary{{"CFBundleIdentifier", "com.vendor.driver.Hub"}}));
    io_registry_entry_t behindHub = addUsb(4817, 4099, 2, vendorHub);
    io_registry_entry_t iface2 = add(behindHub, "IOUSBInterface");
    add(iface2, "OwnDriver",
        qv::Value(qv::Dictionary{{"CFBundleIdentifier", "com.option.driver.HSO"}}));
    EXPECT_TRUE(QVIODevice::deviceWithServiceEntry(behindHub)->driverBundle().isNil());

    // No driver anywhere above.
    io_registry_entry_t bare = addUsb(4817, 4099, 3);
    io_registry_entry_t iface3 = add(bare, "IOUSBInterface");
    add(iface3, "OwnDriver",
        qv::Value(qv::Dictionary{{"CFBundleIdentifier", "com.option.driver.HSO"}}));
    EXPECT_TRUE(QVIODevice::deviceWithServiceEntry(bare)->driverBundle().isNil());
}

TEST_F(QVIODeviceTest, DriverBundleOfAUdevStickIsTheKernelDriverThatRunsTheModem) {
    // Entries as the udev feeder makes them: the USB core in the platform's role, the function
    // driver on the ttys and disks it created.
    auto describe = [](const char* subsystem, const char* devtype, const char* name,
                       const char* driver, const char* interfaceDriver) {
        qv::UdevDeviceFacts facts;
        facts.subsystem = subsystem;
        facts.devtype = devtype;
        facts.sysname = name;
        facts.driver = driver;
        facts.interfaceDriver = interfaceDriver;
        return *qv::describeUdevDevice(facts);
    };
    auto put = [this](io_registry_entry_t parent, const qv::RegistryEntryDescription& entry) {
        return add(parent, entry.className, entry.properties);
    };
    io_registry_entry_t stick =
        put(IO_OBJECT_NULL, describe("usb", "usb_device", "1-2", "usb", ""));
    io_registry_entry_t storage =
        put(stick, describe("usb", "usb_interface", "1-2:1.0", "usb-storage", ""));
    put(storage, describe("block", "disk", "sr0", "", "usb-storage"));
    io_registry_entry_t modem =
        put(stick, describe("usb", "usb_interface", "1-2:1.1", "option", ""));
    put(modem, describe("tty", "", "ttyUSB0", "", "option"));
    EXPECT_EQ(QVIODevice::deviceWithServiceEntry(stick)->driverBundle(), qv::Value("option"));

    // A stick that shows only its storage function has no driver of its own.
    io_registry_entry_t cdOnly =
        put(IO_OBJECT_NULL, describe("usb", "usb_device", "1-3", "usb", ""));
    io_registry_entry_t cdStorage =
        put(cdOnly, describe("usb", "usb_interface", "1-3:1.0", "usb-storage", ""));
    put(cdStorage, describe("block", "disk", "sr1", "", "usb-storage"));
    EXPECT_TRUE(QVIODevice::deviceWithServiceEntry(cdOnly)->driverBundle().isNil());
}

TEST_F(QVIODeviceTest, DescriptionDumpAndReferences) {
    std::size_t baseline = registry().liveObjectCount();
    io_registry_entry_t stick = addUsb(4817, 4099, 0x01200000);
    addSerial(stick, "ttyUSB0");
    addSerial(stick, "ttyUSB1");
    addBsd(stick, "IOCDMedia", "sr0");
    std::size_t populated = registry().liveObjectCount();
    {
        auto device = QVIODevice::deviceWithServiceEntry(stick);
        EXPECT_EQ(device->description(),
                  qv::format("Represented IOKit Object: %d\nName: Stick\tVendor: Maker\n"
                             "VendorID: 4817\tProductID: 4099\t locationID: 18874368\n"
                             "Ports: (\n    ttyUSB0,\n    ttyUSB1\n)\n"
                             "PortPaths: (\n    /dev/cu.ttyUSB0,\n    /dev/cu.ttyUSB1\n)\n"
                             "EthernetInterfaceName: (null)\nDriverBundle: (null)",
                             static_cast<int>(stick)));

        device->dumpUnderlyingIOKitEntryToConsole();
        ASSERT_EQ(lines_->size(), 2u);
        EXPECT_EQ((*lines_)[0], "[ IOService:/IOUSBDevice ]");
        qv::Value tree = QVIODevice::ioPropertiesForIOEntry(stick);
        EXPECT_EQ((*lines_)[1], tree.description() + "\n");
        EXPECT_EQ(tree["IOSerialBSDClient@1"]["IOTTYDevice"], qv::Value("ttyUSB1"));
        EXPECT_EQ(tree["IOCDMedia@2"]["BSD Name"], qv::Value("sr0"));
        EXPECT_EQ(tree["idVendor"].intValue(), 4817);

        // The snapshot keeps the entry readable after it left the registry.
        registry().removeEntry(stick);
        EXPECT_EQ(device->propertyWithName("idProduct").intValue(), 4099);
        EXPECT_GE(registry().liveObjectCount(), 1u + baseline);
        EXPECT_LT(registry().liveObjectCount(), populated);
    }
    EXPECT_EQ(registry().liveObjectCount(), baseline);
}

}  // namespace
