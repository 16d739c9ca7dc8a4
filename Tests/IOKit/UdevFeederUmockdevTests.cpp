// The udev feeder against a fake sysfs. Needs umockdev's preload library: ctest runs this under
// umockdev-wrapper; anywhere else it skips.
#ifdef QV_HAVE_UMOCKDEV

#include <gtest/gtest.h>
#include <umockdev.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "IOKit/Registry.h"
#include "IOKit/UdevFeeder.h"
#include "RunLoop/GLibRunLoop.h"
#include "Support/ToolRunner.h"
#include "Support/UmockdevTest.h"

namespace {

class UdevFeederUmockdev : public UmockdevTest {
  protected:
    // A modem stick on bus 1, hub port 2, port 3, with three serial interfaces; the kernel named
    // the ttys out of interface order.
    std::string addStick() {
        gchar* stick = umockdev_testbed_add_device(
            testbed_, "usb", "1-2.3", nullptr, "idVendor", "12d1", "idProduct", "1001", "product",
            "Mobile", "manufacturer", "Maker", nullptr, "DEVTYPE", "usb_device", nullptr);
        const char* ttys[] = {"ttyUSB1", "ttyUSB2", "ttyUSB0"};
        for (int i = 0; i < 3; ++i) {
            // Appended, not "0" + text: GCC 12 at -O3 warns about that (-Wrestrict, falsely).
            std::string name = "1-2.3:1.";
            name += std::to_string(i);
            std::string number = "0";
            number += std::to_string(i);
            gchar* interface = umockdev_testbed_add_device(
                testbed_, "usb", name.c_str(), stick, "bInterfaceNumber", number.c_str(), nullptr,
                "DEVTYPE", "usb_interface", nullptr);
            g_free(
                umockdev_testbed_add_device(testbed_, "tty", ttys[i], interface, nullptr, nullptr));
            g_free(interface);
        }
        std::string path = stick;
        g_free(stick);
        return path;
    }
};

std::vector<std::string> ttysBelow(const qv::Registry::EntryView& device) {
    std::vector<std::string> ttys;
    for (const auto& interface : device.children) {
        for (const auto& client : interface.children) {
            ttys.push_back(client.properties["IOTTYDevice"].stringValue());
        }
    }
    return ttys;
}

TEST_F(UdevFeederUmockdev, EnumeratesAStickThenFollowsItsEvents) {
    // Not below any USB device: not shown.
    g_free(umockdev_testbed_add_device(testbed_, "tty", "ttyS0", nullptr, nullptr, nullptr));
    std::string stickPath = addStick();

    qv::Registry registry;
    qv::UdevFeeder feeder(registry);
    ASSERT_EQ(feeder.start(), qv::UdevFeeder::StartResult::Started);
    qv::Registry::EntryView root = registry.tree();
    ASSERT_EQ(root.children.size(), 1u);
    const qv::Registry::EntryView& stick = root.children[0];
    EXPECT_EQ(stick.className, "IOUSBDevice");
    EXPECT_EQ(stick.properties["idVendor"], qv::Value(0x12d1));
    EXPECT_EQ(stick.properties["idProduct"], qv::Value(0x1001));
    EXPECT_EQ(stick.properties["USB Product Name"], qv::Value("Mobile"));
    EXPECT_EQ(stick.properties["locationID"], qv::Value(0x01230000));
    ASSERT_EQ(stick.children.size(), 3u);
    EXPECT_EQ(stick.children[2].properties["bInterfaceNumber"], qv::Value(2));
    EXPECT_EQ(ttysBelow(stick), (std::vector<std::string>{"ttyUSB1", "ttyUSB2", "ttyUSB0"}));
    EXPECT_EQ(stick.children[0].children[0].properties["IOCalloutDevice"],
              qv::Value("/dev/cu.ttyUSB1"));

    // Hot-plug events reach the registry through the monitor watched on a GLib loop: a network
    // function that appears later lands below its interface, then the stick goes.
    GMainContext* context = g_main_context_new();
    {
        auto loop = std::make_shared<qv::GLibRunLoop>(context);
        ASSERT_TRUE(feeder.watchOn(*loop));
        std::vector<std::string> events;
        feeder.setEventObserver([&](bool added, io_registry_entry_t entry) {
            events.push_back((added ? "+" : "-") + *registry.entryClass(entry));
            if (events.size() == 3) {
                loop->stop();
            }
        });
        // umockdev announces each device it adds.
        gchar* interface = umockdev_testbed_add_device(
            testbed_, "usb", "1-2.3:1.4", stickPath.c_str(), "bInterfaceNumber", "04", nullptr,
            "DEVTYPE", "usb_interface", nullptr);
        g_free(umockdev_testbed_add_device(testbed_, "net", "wwan0", interface, nullptr, nullptr));
        g_free(interface);
        umockdev_testbed_uevent(testbed_, stickPath.c_str(), "remove");
        loop->runFor(5.0);  // a limit only: the third event stops the loop
        EXPECT_EQ(events, (std::vector<std::string>{"+IOUSBInterface", "+IOEthernetInterface",
                                                    "-IOUSBDevice"}));
    }
    g_main_context_unref(context);
    EXPECT_TRUE(registry.tree().children.empty());
    EXPECT_EQ(feeder.handleFor(stickPath), IO_OBJECT_NULL);
    EXPECT_EQ(registry.liveObjectCount(), 1u);  // the root
}

TEST_F(UdevFeederUmockdev, AHotPluggedStickEntersWhenSettledInInterfaceOrder) {
    qv::Registry registry;
    qv::UdevFeeder feeder(registry);
    ASSERT_EQ(feeder.start(), qv::UdevFeeder::StartResult::Started);
    GMainContext* context = g_main_context_new();
    {
        auto loop = std::make_shared<qv::GLibRunLoop>(context);
        ASSERT_TRUE(feeder.watchOn(*loop));
        std::vector<std::string> added;
        feeder.setEventObserver([&](bool isAdded, io_registry_entry_t entry) {
            if (isAdded) {
                added.push_back(*registry.entryClass(entry));
            }
        });
        // Interfaces 2, 1, 0 in that order; the diagnostics port is marked by a udev rule.
        gchar* stick = umockdev_testbed_add_device(testbed_, "usb", "4-1", nullptr, "idVendor",
                                                   "12d1", "idProduct", "1406", "bNumInterfaces",
                                                   " 3", nullptr, "DEVTYPE", "usb_device", nullptr);
        for (int i = 2; i >= 0; --i) {
            std::string name = "4-1:1." + std::to_string(i);
            std::string number = "0";  // appended: GCC 12 at -O3 warns falsely about "0" + s
            number += std::to_string(i);
            gchar* interface = umockdev_testbed_add_device(
                testbed_, "usb", name.c_str(), stick, "bInterfaceNumber", number.c_str(), nullptr,
                "DEVTYPE", "usb_interface", nullptr);
            std::string tty = "ttyUSB" + std::to_string(2 - i);
            g_free(umockdev_testbed_add_device(testbed_, "tty", tty.c_str(), interface, nullptr,
                                               "ID_MM_PORT_TYPE_QCDM", i == 1 ? "1" : "0",
                                               nullptr));
            g_free(interface);
        }
        // All events read, the stick is still settling: nothing in the registry yet.
        loop->runFor(0.1);
        EXPECT_EQ(feeder.settlingDeviceCount(), 1u);
        EXPECT_TRUE(registry.tree().children.empty());
        loop->runFor(qv::UdevFeeder::kDefaultQuietTime + 0.2);
        EXPECT_EQ(feeder.settlingDeviceCount(), 0u);
        ASSERT_EQ(registry.tree().children.size(), 1u);
        const auto device = registry.tree().children[0];
        EXPECT_EQ(ttysBelow(device), (std::vector<std::string>{"ttyUSB2", "ttyUSB1", "ttyUSB0"}));
        EXPECT_EQ(device.children[1].children[0].properties["PortFunction"], qv::Value("QCDM"));
        EXPECT_TRUE(device.children[0].children[0].properties["PortFunction"].isNil());
        EXPECT_EQ(added.front(), "IOUSBDevice");
        EXPECT_EQ(added.size(), 7u);

        // A late interface with a lower number than one present stands at its place.
        gchar* late =
            umockdev_testbed_add_device(testbed_, "usb", "4-1:1.10", stick, "bInterfaceNumber",
                                        "0a", nullptr, "DEVTYPE", "usb_interface", nullptr);
        g_free(late);
        late = umockdev_testbed_add_device(testbed_, "usb", "4-1:1.3", stick, "bInterfaceNumber",
                                           "03", nullptr, "DEVTYPE", "usb_interface", nullptr);
        g_free(late);
        loop->runFor(0.2);
        const auto grown = registry.tree().children[0];
        ASSERT_EQ(grown.children.size(), 5u);
        EXPECT_EQ(grown.children[3].properties["bInterfaceNumber"], qv::Value(3));
        EXPECT_EQ(grown.children[4].properties["bInterfaceNumber"], qv::Value(10));

        // A stick behind a hub that is there already settles as well, below the hub.
        gchar* hub = umockdev_testbed_add_device(testbed_, "usb", "4-3", nullptr, "idVendor",
                                                 "05e3", "idProduct", "0608", nullptr, "DEVTYPE",
                                                 "usb_device", nullptr);
        loop->runFor(qv::UdevFeeder::kDefaultQuietTime + 0.2);
        ASSERT_EQ(registry.tree().children.size(), 2u);
        gchar* behindHub = umockdev_testbed_add_device(testbed_, "usb", "4-3.1", hub, "idVendor",
                                                       "12d1", "idProduct", "1406", nullptr,
                                                       "DEVTYPE", "usb_device", nullptr);
        loop->runFor(0.1);
        EXPECT_EQ(feeder.settlingDeviceCount(), 1u);
        EXPECT_TRUE(registry.tree().children[1].children.empty());
        loop->runFor(qv::UdevFeeder::kDefaultQuietTime + 0.2);
        ASSERT_EQ(registry.tree().children[1].children.size(), 1u);
        EXPECT_EQ(registry.tree().children[1].children[0].properties["locationID"],
                  qv::Value(0x04310000));
        umockdev_testbed_uevent(testbed_, hub, "remove");
        loop->runFor(0.1);
        EXPECT_EQ(registry.tree().children.size(), 1u);
        g_free(behindHub);
        g_free(hub);

        // Unplugged while settling: never announced at all.
        gchar* brief = umockdev_testbed_add_device(testbed_, "usb", "4-2", nullptr, "idVendor",
                                                   "12d1", "idProduct", "1406", nullptr, "DEVTYPE",
                                                   "usb_device", nullptr);
        umockdev_testbed_uevent(testbed_, brief, "remove");
        g_free(brief);
        added.clear();
        loop->runFor(qv::UdevFeeder::kDefaultQuietTime + 0.2);
        EXPECT_TRUE(added.empty());
        EXPECT_EQ(registry.tree().children.size(), 1u);
        g_free(stick);
        feeder.removeAll();
        EXPECT_TRUE(registry.tree().children.empty());
    }
    g_main_context_unref(context);
}

TEST_F(UdevFeederUmockdev, AStickWhoseInterfacesAreAllBoundEntersAtOnceWithoutWaiting) {
    qv::Registry registry;
    qv::UdevFeeder feeder(registry);
    ASSERT_EQ(feeder.start(), qv::UdevFeeder::StartResult::Started);
    GMainContext* context = g_main_context_new();
    {
        auto loop = std::make_shared<qv::GLibRunLoop>(context);
        ASSERT_TRUE(feeder.watchOn(*loop));
        // A long quiet time: only the binding can publish the stick within this test's wait.
        feeder.setSettleTimes(30.0, 30.0);
        double published = -1.0;
        feeder.setEventObserver([&](bool added, io_registry_entry_t entry) {
            if (added && *registry.entryClass(entry) == "IOUSBDevice") {
                published = loop->now();
            }
        });
        ASSERT_TRUE(umockdev_testbed_add_from_string(testbed_,
                                                     "P: /devices/5-1\n"
                                                     "E: SUBSYSTEM=usb\n"
                                                     "E: DEVTYPE=usb_device\n"
                                                     "A: idVendor=1199\n"
                                                     "A: idProduct=68a3\n"
                                                     "A: bNumInterfaces= 2\n",
                                                     nullptr));
        umockdev_testbed_uevent(testbed_, "/sys/devices/5-1", "add");
        // Each interface shows up with its driver already bound (the fake sysfs has the link from
        // the start): the stick is complete once the second of its two interfaces is there.
        double lastEvent = 0.0;
        for (int i = 1; i >= 0; --i) {
            std::string path = "/devices/5-1/5-1:1." + std::to_string(i);
            std::string record = "P: " + path +
                                 "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\n"
                                 "A: bInterfaceNumber=0" +
                                 std::to_string(i) +
                                 "\nL: driver=../../../bus/usb/drivers/sierra\n";
            ASSERT_TRUE(umockdev_testbed_add_from_string(testbed_, record.c_str(), nullptr));
            lastEvent = loop->now();
            umockdev_testbed_uevent(testbed_, ("/sys" + path).c_str(), "add");
            loop->runFor(0.1);
            if (i == 1) {
                EXPECT_EQ(published, -1.0) << "published with one of two interfaces";
            }
        }
        ASSERT_GE(published, 0.0) << "not published on binding";
        std::printf("last uevent -> published (all bound): %.4f s\n", published - lastEvent);
        EXPECT_LT(published - lastEvent, 0.5);
        const auto device = registry.tree().children.at(0);
        ASSERT_EQ(device.children.size(), 2u);
        EXPECT_EQ(device.children[0].properties["Driver"], qv::Value("sierra"));
        EXPECT_EQ(device.children[0].properties["bInterfaceNumber"], qv::Value(0));
    }
    g_main_context_unref(context);
}

TEST_F(UdevFeederUmockdev, ListShowsAStickWithItsDriverCDAndPartitionedDisk) {
    std::string stick = addStick();
    gchar* storage =
        umockdev_testbed_add_device(testbed_, "usb", "1-2.3:1.3", stick.c_str(), "bInterfaceNumber",
                                    "03", nullptr, "DEVTYPE", "usb_interface", nullptr);
    g_free(umockdev_testbed_add_device(testbed_, "block", "sr0", storage, nullptr, "DEVTYPE",
                                       "disk", nullptr));
    gchar* disk = umockdev_testbed_add_device(testbed_, "block", "sdb", storage, nullptr, "DEVTYPE",
                                              "disk", nullptr);
    g_free(umockdev_testbed_add_device(testbed_, "block", "sdb1", disk, nullptr, "DEVTYPE",
                                       "partition", nullptr));
    g_free(disk);
    g_free(storage);

    ToolRun run = runQvdevice({"list", "--json"});
    ASSERT_EQ(run.code, 0) << run.err;
    qv::Json tree = qv::Json::parse(run.out);
    const qv::Json& media = tree["children"][0]["children"][3]["children"];
    ASSERT_EQ(media.size(), 2u);
    // Siblings in sysfs path order: the disk "sdb" before the CD "sr0".
    EXPECT_EQ(media[1]["class"], "IOCDMedia");
    EXPECT_EQ(media[1]["properties"]["BSD Name"], "sr0");
    EXPECT_EQ(media[0]["class"], "IOMedia");
    EXPECT_EQ(media[0]["properties"]["Leaf"], false);
    EXPECT_EQ(media[0]["children"][0]["properties"]["BSD Name"], "sdb1");
    EXPECT_EQ(media[0]["children"][0]["properties"]["Leaf"], true);
}

}  // namespace

#endif  // QV_HAVE_UMOCKDEV
