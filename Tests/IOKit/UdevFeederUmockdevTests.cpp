// The udev feeder against a fake sysfs. Needs umockdev's preload library: ctest runs this under
// umockdev-wrapper; anywhere else it skips.
#ifdef QV_HAVE_UMOCKDEV

#include <gtest/gtest.h>
#include <umockdev.h>

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

namespace {

class UdevFeederUmockdev : public ::testing::Test {
  protected:
    void SetUp() override {
        // The preload library only redirects once a testbed exists, so ask the environment first.
        const char* preload = std::getenv("LD_PRELOAD");
        if (preload == nullptr || std::strstr(preload, "libumockdev-preload") == nullptr) {
            GTEST_SKIP() << "run under umockdev-wrapper";
        }
        testbed_ = umockdev_testbed_new();
        ASSERT_TRUE(umockdev_in_mock_environment());
    }
    void TearDown() override {
        if (testbed_ != nullptr) {
            g_object_unref(testbed_);
        }
    }

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

    UMockdevTestbed* testbed_ = nullptr;
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
    ASSERT_TRUE(feeder.start());
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
