#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "IOKit/IOKitLib.h"
#include "IOKit/Registry.h"
#include "RunLoop/VirtualRunLoop.h"
#include "Support/VirtualRegistryTest.h"

namespace {

// Each test gets a fresh process registry on a virtual run loop.
class RegistryTest : public VirtualRegistryTest {
  protected:
    qv::Registry& registry() { return qv::Registry::shared(); }

    io_registry_entry_t addUsb(int vendor, int product, int location) {
        return registry().addEntry(
            IO_OBJECT_NULL, "IOUSBDevice", "",
            qv::Value(qv::Dictionary{
                {"idVendor", vendor}, {"idProduct", product}, {"locationID", location}}));
    }
};

// Collects what a matching callback sees; the callback drains its iterator (which arms it).
struct Batches {
    std::vector<std::vector<io_object_t>> batches;
    bool drain = true;
};

void collect(void* refCon, io_iterator_t iterator) {
    auto* batches = static_cast<Batches*>(refCon);
    std::vector<io_object_t> batch;
    if (batches->drain) {
        while (io_object_t o = IOIteratorNext(iterator)) {
            batch.push_back(o);
            IOObjectRelease(o);
        }
    }
    batches->batches.push_back(batch);
}

std::vector<io_object_t> drain(io_iterator_t iterator) {
    std::vector<io_object_t> items;
    while (io_object_t o = IOIteratorNext(iterator)) {
        items.push_back(o);
        IOObjectRelease(o);
    }
    return items;
}

TEST_F(RegistryTest, MatchingByClassSubclassNameAndProperties) {
    io_registry_entry_t stick = addUsb(4817, 4099, 0x01200000);
    io_registry_entry_t other = addUsb(6610, 49, 0x01300000);
    io_registry_entry_t cd = registry().addEntry(stick, "IOCDMedia", "CD", {});
    io_registry_entry_t disk =
        registry().addEntry(stick, "IOMedia", "", qv::Value(qv::Dictionary{{"Leaf", false}}));

    qv::Value byIds = IOServiceMatching("IOUSBDevice");
    byIds.set("idVendor", 4817);
    byIds.set("idProduct", 4099);
    io_iterator_t it = IO_OBJECT_NULL;
    ASSERT_EQ(IOServiceGetMatchingServices(kIOMasterPortDefault, byIds, &it), kIOReturnSuccess);
    EXPECT_EQ(drain(it), std::vector<io_object_t>{stick});
    IOObjectRelease(it);

    // A string where the number belongs does not match a number.
    byIds.set("idVendor", "4817");
    ASSERT_EQ(IOServiceGetMatchingServices(kIOMasterPortDefault, byIds, &it), kIOReturnSuccess);
    EXPECT_TRUE(drain(it).empty());
    IOObjectRelease(it);

    // IOCDMedia is an IOMedia; the exact class is still reported as IOCDMedia.
    ASSERT_EQ(IOServiceGetMatchingServices(0, IOServiceMatching("IOMedia"), &it), KERN_SUCCESS);
    EXPECT_EQ(drain(it), (std::vector<io_object_t>{cd, disk}));
    IOObjectRelease(it);
    io_name_t className;
    ASSERT_EQ(IOObjectGetClass(cd, className), KERN_SUCCESS);
    EXPECT_STREQ(className, "IOCDMedia");
    EXPECT_TRUE(IOObjectConformsTo(cd, "IOMedia"));
    EXPECT_FALSE(IOObjectConformsTo(disk, "IOCDMedia"));

    ASSERT_EQ(IOServiceGetMatchingServices(0, IOServiceNameMatching("CD"), &it), KERN_SUCCESS);
    EXPECT_EQ(drain(it), std::vector<io_object_t>{cd});
    IOObjectRelease(it);
    ASSERT_EQ(IOServiceGetMatchingServices(0, IOServiceMatching("IOUSBDevice"), &it), 0);
    EXPECT_EQ(drain(it), (std::vector<io_object_t>{stick, other}));
    IOObjectRelease(it);
}

TEST_F(RegistryTest, NotificationsArriveThroughTheRunLoopInOrderAndOnlyWhenArmed) {
    IONotificationPortRef port = IONotificationPortCreate(kIOMasterPortDefault);
    qv::CFRunLoopSourceRef source = IONotificationPortGetRunLoopSource(port);
    qv::CFRunLoopAddSource(qv::CFRunLoopGetCurrent(), source, qv::kCFRunLoopCommonModes);

    io_registry_entry_t present = addUsb(4817, 4099, 1);
    Batches matched;
    Batches terminated;
    io_iterator_t matchedIt = IO_OBJECT_NULL;
    io_iterator_t terminatedIt = IO_OBJECT_NULL;
    ASSERT_EQ(IOServiceAddMatchingNotification(port, kIOMatchedNotification,
                                               IOServiceMatching("IOUSBDevice"), collect, &matched,
                                               &matchedIt),
              kIOReturnSuccess);
    ASSERT_EQ(IOServiceAddMatchingNotification(port, kIOTerminatedNotification,
                                               IOServiceMatching("IOUSBDevice"), collect,
                                               &terminated, &terminatedIt),
              kIOReturnSuccess);
    // The matched iterator starts with what is present; draining it arms the notification.
    EXPECT_EQ(drain(matchedIt), std::vector<io_object_t>{present});
    EXPECT_TRUE(drain(terminatedIt).empty());

    io_registry_entry_t a = addUsb(1, 2, 2);
    io_registry_entry_t b = addUsb(3, 4, 3);
    // Nothing is delivered from inside the feeder's call.
    EXPECT_TRUE(matched.batches.empty());
    loop_->runPending();
    ASSERT_EQ(matched.batches.size(), 1u);
    EXPECT_EQ(matched.batches[0], (std::vector<io_object_t>{a, b}));

    // A removed device is still readable by whoever holds it during the callback.
    IOObjectRetain(a);
    ASSERT_TRUE(registry().removeEntry(a));
    loop_->runPending();
    ASSERT_EQ(terminated.batches.size(), 1u);
    EXPECT_EQ(terminated.batches[0], std::vector<io_object_t>{a});
    EXPECT_EQ(IORegistryEntryCreateCFProperty(a, "idVendor").intValue(), 1);
    IOObjectRelease(a);
    EXPECT_TRUE(IORegistryEntryCreateCFProperty(a, "idVendor").isNil());

    // A callback that leaves its iterator undrained disarms the notification.
    matched.drain = false;
    addUsb(5, 6, 4);
    loop_->runPending();
    EXPECT_EQ(matched.batches.size(), 2u);
    addUsb(7, 8, 5);
    loop_->runPending();
    EXPECT_EQ(matched.batches.size(), 2u);

    // A destroyed port delivers nothing more, even for signals already queued.
    addUsb(9, 9, 6);
    registry().removeEntry(b);
    IONotificationPortDestroy(port);
    loop_->runPending();
    EXPECT_EQ(terminated.batches.size(), 1u);
    IOObjectRelease(matchedIt);
    IOObjectRelease(terminatedIt);
}

TEST_F(RegistryTest, IteratorsNamesPathsAndReferenceCounts) {
    io_registry_entry_t stick = addUsb(4817, 4099, 7);
    io_registry_entry_t iface = registry().addEntry(stick, "IOUSBInterface", "", {});
    io_registry_entry_t tty =
        registry().addEntry(iface, "IOSerialBSDClient", "",
                            qv::Value(qv::Dictionary{{"IOCalloutDevice", "/dev/cu.ttyUSB0"}}));
    io_registry_entry_t net = registry().addEntry(stick, "IOEthernetInterface", "en5", {});
    std::size_t baseline = registry().liveObjectCount();

    io_iterator_t it = IO_OBJECT_NULL;
    ASSERT_EQ(
        IORegistryEntryCreateIterator(stick, kIOServicePlane, kIORegistryIterateRecursively, &it),
        KERN_SUCCESS);
    EXPECT_EQ(drain(it), (std::vector<io_object_t>{iface, tty, net}));
    IOIteratorReset(it);
    EXPECT_EQ(IOIteratorNext(it), iface);
    IOObjectRelease(iface);
    IOObjectRelease(it);
    ASSERT_EQ(IORegistryEntryGetChildIterator(stick, kIOServicePlane, &it), KERN_SUCCESS);
    EXPECT_EQ(drain(it), (std::vector<io_object_t>{iface, net}));
    IOObjectRelease(it);
    ASSERT_EQ(IORegistryEntryGetParentIterator(tty, kIOServicePlane, &it), KERN_SUCCESS);
    EXPECT_EQ(drain(it), std::vector<io_object_t>{iface});
    IOObjectRelease(it);
    ASSERT_EQ(IORegistryEntryGetParentIterator(stick, kIOServicePlane, &it), KERN_SUCCESS);
    EXPECT_TRUE(drain(it).empty());
    IOObjectRelease(it);
    // Everything handed out was given back.
    EXPECT_EQ(registry().liveObjectCount(), baseline);

    io_name_t name;
    ASSERT_EQ(IORegistryEntryGetName(stick, name), KERN_SUCCESS);
    EXPECT_STREQ(name, "IOUSBDevice");
    ASSERT_EQ(IORegistryEntryGetNameInPlane(net, kIOServicePlane, name), KERN_SUCCESS);
    EXPECT_STREQ(name, "en5");
    io_string_t path;
    ASSERT_EQ(IORegistryEntryGetPath(tty, kIOServicePlane, path), KERN_SUCCESS);
    EXPECT_STREQ(path, "IOService:/IOUSBDevice/IOUSBInterface/IOSerialBSDClient");
    EXPECT_NE(IORegistryEntryGetPath(tty, "IODeviceTree", path), KERN_SUCCESS);

    qv::Value props;
    ASSERT_EQ(IORegistryEntryCreateCFProperties(tty, &props), KERN_SUCCESS);
    EXPECT_EQ(props["IOCalloutDevice"], qv::Value("/dev/cu.ttyUSB0"));

    // Removing the device frees the subtree once nobody holds it; stale handles answer errors.
    ASSERT_TRUE(registry().removeEntry(stick));
    EXPECT_FALSE(registry().removeEntry(stick));
    EXPECT_EQ(registry().liveObjectCount(), 1u);  // the root
    EXPECT_NE(IORegistryEntryGetName(tty, name), KERN_SUCCESS);
    EXPECT_NE(IOObjectRelease(tty), KERN_SUCCESS);
    EXPECT_EQ(registry().addEntry(stick, "IOUSBInterface", "", {}), IO_OBJECT_NULL);
}

TEST_F(RegistryTest, SetPropertiesMergesAndRemovesKeys) {
    io_registry_entry_t stick = addUsb(4817, 4099, 7);
    ASSERT_TRUE(registry().setProperties(
        stick, qv::Value(qv::Dictionary{{"USB Product Name", "E220"}, {"locationID", {}}})));
    EXPECT_EQ(IORegistryEntryCreateCFProperty(stick, "USB Product Name"), qv::Value("E220"));
    EXPECT_TRUE(IORegistryEntryCreateCFProperty(stick, "locationID").isNil());
    EXPECT_EQ(IORegistryEntryCreateCFProperty(stick, "idVendor").intValue(), 4817);
    EXPECT_FALSE(registry().setProperties(stick, qv::Value("not a dictionary")));
}

// A reader may skip a walk while the stamp is unchanged: so every change it could see must move
// the stamp, and changes elsewhere need not.
TEST_F(RegistryTest, ChangeStampsMoveWithEverythingAReaderCanSee) {
    io_registry_entry_t hub = registry().addEntry(IO_OBJECT_NULL, "IOService", "hub", {});
    io_registry_entry_t stick =
        registry().addEntry(hub, "IOUSBDevice", "", qv::Value(qv::Dictionary{{"idVendor", 1}}));
    io_registry_entry_t port = registry().addEntry(stick, "IOSerialBSDClient", "", {});
    io_registry_entry_t other = addUsb(4817, 4099, 9);
    auto stamp = [&] { return qvRegistryEntryGetChangeStamp(stick); };

    std::uint64_t last = stamp();
    EXPECT_NE(last, 0u);
    auto moved = [&] {
        const std::uint64_t now = stamp();
        const bool changed = now != last;
        last = now;
        return changed;
    };
    EXPECT_FALSE(moved());
    // Elsewhere in the tree: a sibling device, its properties, a new device.
    registry().setProperties(other, qv::Value(qv::Dictionary{{"x", 1}}));
    addUsb(1, 2, 3);
    EXPECT_FALSE(moved());
    // The entry itself, a descendant's properties, a new and a removed descendant.
    registry().setProperties(stick, qv::Value(qv::Dictionary{{"USB Product Name", "E220"}}));
    EXPECT_TRUE(moved());
    registry().setProperties(port, qv::Value(qv::Dictionary{{"IOTTYDevice", "ttyUSB0"}}));
    EXPECT_TRUE(moved());
    io_registry_entry_t cd = registry().addEntry(port, "IOCDMedia", "", {});
    EXPECT_TRUE(moved());
    registry().removeEntry(cd);
    EXPECT_TRUE(moved());
    // An ancestor's properties (a driver bundle above the device is read by climbing).
    registry().setProperties(hub, qv::Value(qv::Dictionary{{"CFBundleIdentifier", "com.x"}}));
    EXPECT_TRUE(moved());
    // The device's own removal: a holder of the handle now sees it detached.
    IOObjectRetain(stick);
    registry().removeEntry(stick);
    EXPECT_TRUE(moved());
    IOObjectRelease(stick);

    EXPECT_EQ(qvRegistryEntryGetChangeStamp(IO_OBJECT_NULL), 0u);
    // A new registry may hand out the same handles, never the same stamps.
    const std::uint64_t before = qvRegistryEntryGetChangeStamp(other);
    qv::Registry::resetShared();
    io_registry_entry_t again = addUsb(4817, 4099, 9);
    EXPECT_GT(qvRegistryEntryGetChangeStamp(again), before);
}

// A notification made pending by a callback of a later one (behind the walk) is delivered by the
// next turn of the loop, not lost; one made pending ahead of the walk comes in the same delivery.
TEST_F(RegistryTest, NotificationsMadePendingByACallbackAreDeliveredAfterIt) {
    IONotificationPortRef port = IONotificationPortCreate(kIOMasterPortDefault);
    qv::CFRunLoopAddSource(qv::CFRunLoopGetCurrent(), IONotificationPortGetRunLoopSource(port),
                           qv::kCFRunLoopCommonModes);
    struct Arm {
        std::vector<std::string> order;
        std::function<void()> then;
    } heard;
    struct Listener {
        Arm* arm;
        std::string name;
    };
    auto hear = [](void* refCon, io_iterator_t iterator) {
        auto* listener = static_cast<Listener*>(refCon);
        drain(iterator);
        listener->arm->order.push_back(listener->name);
        if (listener->name == "second" && listener->arm->then) {
            auto then = std::move(listener->arm->then);
            listener->arm->then = nullptr;
            then();
        }
    };
    Listener first{&heard, "first"};
    Listener second{&heard, "second"};
    Listener third{&heard, "third"};
    std::vector<io_iterator_t> iterators(3);
    int vendor = 1;
    for (Listener* listener : {&first, &second, &third}) {
        qv::Value matching = IOServiceMatching("IOUSBDevice");
        matching.set("idVendor", vendor++);
        ASSERT_EQ(IOServiceAddMatchingNotification(port, kIOMatchedNotification, matching, hear,
                                                   listener, &iterators[vendor - 2]),
                  kIOReturnSuccess);
        drain(iterators[vendor - 2]);
    }
    // The second's callback plugs devices for the first (behind it) and the third (ahead).
    heard.then = [&] {
        addUsb(1, 1, 10);
        addUsb(3, 1, 11);
    };
    addUsb(2, 1, 12);
    loop_->runPending();
    loop_->runPending();
    EXPECT_EQ(heard.order, (std::vector<std::string>{"second", "third", "first"}));
    for (io_iterator_t iterator : iterators) {
        IOObjectRelease(iterator);
    }
    IONotificationPortDestroy(port);
}

}  // namespace
