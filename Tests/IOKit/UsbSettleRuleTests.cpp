// When a hot-plugged USB device enters the registry: the settle rule on a virtual clock.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "IOKit/UsbSettleRule.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

const std::string kHub = "/sys/devices/pci0000:00/0000:00:14.0/usb1";

qv::UdevDeviceFacts usbDevice(const std::string& declaredInterfaces = {}) {
    qv::UdevDeviceFacts facts;
    facts.subsystem = "usb";
    facts.devtype = "usb_device";
    if (!declaredInterfaces.empty()) {
        facts.attributes.emplace("bNumInterfaces", declaredInterfaces);
    }
    return facts;
}

qv::UdevDeviceFacts usbInterface(const std::string& driver) {
    qv::UdevDeviceFacts facts;
    facts.subsystem = "usb";
    facts.devtype = "usb_interface";
    facts.driver = driver;
    return facts;
}

qv::UdevDeviceFacts tty() {
    qv::UdevDeviceFacts facts;
    facts.subsystem = "tty";
    return facts;
}

// A device's sysfs path and those of its interfaces and their ttys.
std::string device(const std::string& name) {
    return kHub + "/" + name;
}
std::string interface(const std::string& name, int number) {
    return device(name) + "/" + name + ":1." + std::to_string(number);
}
std::string ttyBelow(const std::string& name, int number, const std::string& tty) {
    return interface(name, number) + "/" + tty + "/tty/" + tty;
}

struct Publication {
    double time;
    std::vector<std::string> paths;
};

class UsbSettleRuleTest : public ::testing::Test {
  protected:
    UsbSettleRuleTest() { rule_.setTimes(0.25, 3.0); }

    // Runs `call` at virtual time `time`.
    void at(double time, std::function<void()> call) {
        timers_.push_back(loop_.scheduleTimer(time - loop_.now(), false,
                                              [call = std::move(call)](qv::Timer&) { call(); }));
    }

    qv::VirtualRunLoop loop_;
    std::vector<Publication> published_;
    qv::UsbSettleRule rule_{loop_, [this](std::vector<qv::UsbSettleRule::Node> nodes) {
                                Publication publication{loop_.now(), {}};
                                for (const auto& node : nodes) {
                                    publication.paths.push_back(node.sysPath);
                                }
                                published_.push_back(std::move(publication));
                            }};
    std::vector<std::shared_ptr<qv::Timer>> timers_;
};

TEST_F(UsbSettleRuleTest, EachEventReArmsTheQuietTimeUpToTheLongestSettle) {
    // A device that keeps changing every 0.2 s (less than the quiet time) for five seconds is
    // held back only until three seconds after its first event.
    ASSERT_TRUE(rule_.offer(device("1-2"), usbDevice()));
    for (int step = 1; step <= 25; ++step) {
        at(0.2 * step, [this] { rule_.offer(interface("1-2", 0), usbInterface("")); });
    }
    // A second device with two events, then quiet: published a quiet time after its last one,
    // whatever the first device keeps doing.
    at(0.1, [this] { rule_.offer(device("1-3"), usbDevice()); });
    at(0.3, [this] { rule_.offer(interface("1-3", 0), usbInterface("option")); });
    loop_.runUntil(10.0);

    ASSERT_EQ(published_.size(), 2u);
    EXPECT_DOUBLE_EQ(published_[0].time, 0.55);
    EXPECT_EQ(published_[0].paths, (std::vector<std::string>{device("1-3"), interface("1-3", 0)}));
    EXPECT_DOUBLE_EQ(published_[1].time, 3.0);
    EXPECT_EQ(published_[1].paths, (std::vector<std::string>{device("1-2"), interface("1-2", 0)}));
    EXPECT_EQ(rule_.settlingCount(), 0u);

    // What comes below a published device is no longer the rule's.
    EXPECT_FALSE(rule_.offer(interface("1-2", 1), usbInterface("option")));
}

TEST_F(UsbSettleRuleTest, ADeviceWhoseDeclaredInterfacesAreAllBoundIsPublishedAtOnceInSysfsOrder) {
    ASSERT_TRUE(rule_.offer(device("1-4"), usbDevice(" 3\n")));
    // Out of order, as udev handles the interfaces in parallel; the kernel named the ttys out of
    // interface order too.
    EXPECT_TRUE(rule_.offer(interface("1-4", 2), usbInterface("option")));
    EXPECT_TRUE(rule_.offer(ttyBelow("1-4", 2, "ttyUSB0"), tty()));
    EXPECT_TRUE(rule_.offer(interface("1-4", 0), usbInterface("option")));
    EXPECT_TRUE(rule_.offer(ttyBelow("1-4", 0, "ttyUSB2"), tty()));
    // Present but not bound yet: three interfaces are there, but the device has not settled.
    EXPECT_TRUE(rule_.offer(interface("1-4", 1), usbInterface("")));
    EXPECT_TRUE(published_.empty());
    // The bind completes it: published before offer() returns, at the same virtual moment.
    EXPECT_TRUE(rule_.offer(interface("1-4", 1), usbInterface("option")));
    ASSERT_EQ(published_.size(), 1u);
    EXPECT_DOUBLE_EQ(published_[0].time, 0.0);
    EXPECT_EQ(published_[0].paths,
              (std::vector<std::string>{device("1-4"), interface("1-4", 0),
                                        ttyBelow("1-4", 0, "ttyUSB2"), interface("1-4", 1),
                                        interface("1-4", 2), ttyBelow("1-4", 2, "ttyUSB0")}));
    // Its timer went with it: nothing is published a second time.
    loop_.runUntil(10.0);
    EXPECT_EQ(published_.size(), 1u);

    // Interface numbers compare by value (1.10 after 1.2); a count that does not parse means
    // waiting for the quiet time even when everything present is bound.
    ASSERT_TRUE(rule_.offer(device("1-5"), usbDevice("3x")));
    for (int number : {10, 2, 1}) {
        rule_.offer(interface("1-5", number), usbInterface("cdc_acm"));
    }
    EXPECT_EQ(published_.size(), 1u);
    loop_.runUntil(loop_.now() + 0.25);
    ASSERT_EQ(published_.size(), 2u);
    EXPECT_EQ(published_[1].paths,
              (std::vector<std::string>{device("1-5"), interface("1-5", 1), interface("1-5", 2),
                                        interface("1-5", 10)}));
}

TEST_F(UsbSettleRuleTest, OnlyHotPluggedUSBDevicesStartSettlingAndOnlyTheirChildrenJoin) {
    // A function whose device is not settling, an enumerated device, another subsystem: the
    // caller adds them at once.
    EXPECT_FALSE(rule_.offer(interface("1-6", 0), usbInterface("option")));
    EXPECT_FALSE(rule_.offer(ttyBelow("1-6", 0, "ttyUSB0"), tty()));
    EXPECT_FALSE(rule_.offer(device("1-6"), usbDevice(" 1"), false));
    EXPECT_EQ(rule_.settlingCount(), 0u);

    ASSERT_TRUE(rule_.offer(device("1-7"), usbDevice()));
    // A path that merely starts with the device's ("1-7" and "1-70") is not below it.
    EXPECT_FALSE(rule_.offer(device("1-70"), usbDevice(), false));
    EXPECT_FALSE(rule_.offer(interface("1-70", 0), usbInterface("option")));
    // An enumerated child of a settling device still joins it.
    EXPECT_TRUE(rule_.offer(interface("1-7", 0), usbInterface("option"), false));
    EXPECT_EQ(rule_.settlingCount(), 1u);
    loop_.runUntil(1.0);
    ASSERT_EQ(published_.size(), 1u);
    EXPECT_EQ(published_[0].paths, (std::vector<std::string>{device("1-7"), interface("1-7", 0)}));
}

TEST_F(UsbSettleRuleTest, RemovalWhileSettlingDropsTheDeviceOrTheRemovedBranch) {
    ASSERT_TRUE(rule_.offer(device("1-8"), usbDevice(" 2")));
    rule_.offer(interface("1-8", 0), usbInterface("option"));
    rule_.offer(ttyBelow("1-8", 0, "ttyUSB0"), tty());
    rule_.offer(interface("1-8", 1), usbInterface(""));
    // The interface leaves with its tty; it no longer counts, so binding the other one does not
    // complete the device.
    EXPECT_TRUE(rule_.remove(interface("1-8", 0)));
    rule_.offer(interface("1-8", 1), usbInterface("option"));
    EXPECT_TRUE(published_.empty());

    // A second device unplugged before it settled is never published, and its timer is gone.
    at(0.1, [this] { rule_.offer(device("1-9"), usbDevice()); });
    at(0.2, [this] { EXPECT_TRUE(rule_.remove(device("1-9"))); });
    EXPECT_FALSE(rule_.remove(device("1-10")));
    loop_.runUntil(5.0);
    ASSERT_EQ(published_.size(), 1u);
    EXPECT_DOUBLE_EQ(published_[0].time, 0.25);
    EXPECT_EQ(published_[0].paths, (std::vector<std::string>{device("1-8"), interface("1-8", 1)}));
    EXPECT_EQ(rule_.settlingCount(), 0u);
    EXPECT_FALSE(rule_.remove(device("1-8"))) << "published: the registry's business now";
}

TEST_F(UsbSettleRuleTest, ClearingOrDestroyingTheRuleForgetsSettlingDevicesSilently) {
    rule_.offer(device("1-11"), usbDevice());
    rule_.clear();
    EXPECT_EQ(rule_.settlingCount(), 0u);
    loop_.runUntil(5.0);
    EXPECT_TRUE(published_.empty());

    int published = 0;
    {
        qv::UsbSettleRule shortLived(loop_, [&](auto) { ++published; });
        shortLived.offer(device("1-12"), usbDevice());
    }
    loop_.runUntil(10.0);
    EXPECT_EQ(published, 0);
    EXPECT_EQ(loop_.scheduledTimerCount(), 0u);
}

TEST_F(UsbSettleRuleTest, OddSettleTimesAreClamped) {
    // A negative quiet time counts as none; a longest wait below the quiet time is the quiet
    // time.
    rule_.setTimes(-1.0, 5.0);
    rule_.offer(device("1-13"), usbDevice());
    loop_.runPending();
    ASSERT_EQ(published_.size(), 1u);
    EXPECT_DOUBLE_EQ(published_[0].time, 0.0);

    rule_.setTimes(0.5, 0.1);
    at(1.0, [this] { rule_.offer(device("1-14"), usbDevice()); });
    at(1.3, [this] { rule_.offer(interface("1-14", 0), usbInterface("")); });
    loop_.runUntil(10.0);
    ASSERT_EQ(published_.size(), 2u);
    EXPECT_DOUBLE_EQ(published_[1].time, 1.5);
}

TEST(DeclaredInterfaceCount, ReadsTheSysfsAttributeStrictly) {
    auto count = [](const std::string& text) {
        return qv::declaredInterfaceCount(usbDevice(text));
    };
    EXPECT_EQ(count(" 3"), 3u);
    EXPECT_EQ(count("\t12\n"), 12u);
    EXPECT_EQ(count("255"), 255u);
    EXPECT_EQ(count("1000"), 0u);
    EXPECT_EQ(count("3x"), 0u);
    EXPECT_EQ(count("-1"), 0u);
    EXPECT_EQ(count(" "), 0u);
    EXPECT_EQ(qv::declaredInterfaceCount(usbDevice()), 0u);
}

}  // namespace
