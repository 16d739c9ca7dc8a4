// The recorder turns registry changes into a timeline that the scripted feeder accepts and that
// rebuilds the same tree: devices whole at their first sight, later changes below them, removals,
// the --device filter, masked properties, and properties taken away.
#include <gtest/gtest.h>

#include "IOKit/Registry.h"
#include "IOKit/ScriptedFeeder.h"
#include "IOKit/ScriptedTimeline.h"
#include "qvdevice/IdentifierMasker.h"
#include "qvdevice/RegistryTimelineRecorder.h"

namespace {

using qvdevice::RegistryTimelineRecorder;
using qvdevice::USBDeviceID;

qv::Value stickProperties(int product, int location) {
    qv::Value properties{qv::Dictionary{}};
    properties.set("idVendor", 0x12d1);
    properties.set("idProduct", product);
    properties.set("locationID", location);
    properties.set("USB Serial Number", "SN0042XY");
    return properties;
}

io_registry_entry_t addStick(qv::Registry& registry, int product, int location,
                             std::vector<std::string> ttys) {
    auto stick = registry.addEntry(IO_OBJECT_NULL, "IOUSBDevice", "IOUSBDevice",
                                   stickProperties(product, location));
    for (std::size_t i = 0; i < ttys.size(); ++i) {
        qv::Value interfaceProperties{qv::Dictionary{}};
        interfaceProperties.set("bInterfaceNumber", static_cast<int>(i));
        auto interface =
            registry.addEntry(stick, "IOUSBInterface", "IOUSBInterface", interfaceProperties);
        qv::Value tty{qv::Dictionary{}};
        tty.set("IOTTYDevice", ttys[i]);
        tty.set("IOCalloutDevice", "/dev/cu." + ttys[i]);
        registry.addEntry(interface, "IOSerialBSDClient", "IOSerialBSDClient", tty);
    }
    return stick;
}

TEST(RegistryTimelineRecorder, RecordsDevicesWholeThenTheirChangesAndRemovalsAsAValidTimeline) {
    qv::Registry registry;
    auto first = addStick(registry, 0x1406, 0x01200000, {"ttyUSB0", "ttyUSB1"});
    RegistryTimelineRecorder recorder(registry, std::nullopt, nullptr);
    recorder.record(0.0);
    recorder.record(0.5);  // nothing changed: nothing written
    ASSERT_EQ(recorder.timeline().size(), 1u);
    const qv::Json& add = recorder.timeline()[0];
    EXPECT_EQ(add["at"], 0.0);
    EXPECT_TRUE(add["add"]["parent"].is_null());
    EXPECT_EQ(add["add"]["entry"]["class"], "IOUSBDevice");
    EXPECT_EQ(add["add"]["entry"]["properties"]["USB Serial Number"], "SN0042XY");
    ASSERT_EQ(add["add"]["entry"]["children"].size(), 2u);
    EXPECT_EQ(add["add"]["entry"]["children"][1]["children"][0]["properties"]["IOTTYDevice"],
              "ttyUSB1");

    // A property changes, a disk appears below the stick, a second stick comes, the first goes.
    qv::Value bound{qv::Dictionary{}};
    bound.set("Driver", "option");
    auto interface = registry.entryChildren(first)[0];
    registry.setProperties(interface, bound);
    qv::Value disk{qv::Dictionary{}};
    disk.set("BSD Name", "sr0");
    registry.addEntry(first, "IOCDMedia", "IOCDMedia", disk);
    recorder.record(1.25);
    addStick(registry, 0x1001, 0x02100000, {"ttyUSB2"});
    recorder.record(2.0000004);
    registry.removeEntry(first);
    recorder.record(3.0);

    const qv::Json& events = recorder.timeline();
    ASSERT_EQ(events.size(), 5u) << events.dump(1);
    EXPECT_EQ(events[1]["set"]["properties"], (qv::Json{{"Driver", "option"}}));
    EXPECT_EQ(events[1]["at"], 1.25);
    EXPECT_EQ(events[2]["add"]["parent"], events[0]["add"]["entry"]["id"]);
    EXPECT_EQ(events[2]["add"]["entry"]["class"], "IOCDMedia");
    EXPECT_EQ(events[3]["at"], 2.0);  // to the microsecond
    EXPECT_EQ(events[4]["remove"], events[0]["add"]["entry"]["id"]);
    EXPECT_NE(events[3]["add"]["entry"]["id"], events[0]["add"]["entry"]["id"]);
    auto names = recorder.presentKernelNames();
    EXPECT_EQ(names.count("ttyUSB2"), 1u);
    EXPECT_EQ(names.count("ttyUSB0"), 0u);

    // The scripted feeder takes it, and plays it back into the same tree.
    std::string error;
    auto timeline = qv::ScriptedTimeline::fromJson(qv::Json{{"timeline", events}}, &error);
    ASSERT_TRUE(timeline) << error;
    EXPECT_EQ(timeline->events().size(), 5u);
}

TEST(RegistryTimelineRecorder, APropertyTakenAwayIsReplayedAsGone) {
    qv::Registry registry;
    auto stick = addStick(registry, 0x1406, 0x01200000, {"ttyUSB0"});
    auto interface = registry.entryChildren(stick)[0];
    qv::Value bound{qv::Dictionary{}};
    bound.set("Driver", "option");
    bound.set("CFBundleIdentifier", "org.kernel.option");
    registry.setProperties(interface, bound);
    RegistryTimelineRecorder recorder(registry, std::nullopt, nullptr);
    recorder.record(0.0);
    // The driver lets go of the interface; its bundle name stays, another key comes.
    qv::Value unbound{qv::Dictionary{}};
    unbound.set("Driver", qv::Value());
    unbound.set("bInterfaceClass", 255);
    registry.setProperties(interface, unbound);
    recorder.record(1.0);
    recorder.record(2.0);  // taken away once, written once

    const qv::Json& events = recorder.timeline();
    ASSERT_EQ(events.size(), 2u) << events.dump(1);
    const qv::Json& changed = events[1]["set"]["properties"];
    EXPECT_EQ(changed.size(), 2u) << changed.dump();
    EXPECT_TRUE(changed.contains("Driver") && changed["Driver"].is_null()) << changed.dump();
    EXPECT_EQ(changed["bInterfaceClass"], 255);

    // Played back, the key is there first and gone after the change; the rest stays.
    std::string error;
    auto timeline = qv::ScriptedTimeline::fromJson(qv::Json{{"timeline", events}}, &error);
    ASSERT_TRUE(timeline) << error;
    qv::Registry replayed;
    qv::ScriptedFeeder feeder(replayed, *timeline);
    const std::string id = events[0]["add"]["entry"]["children"][0]["id"].get<std::string>();
    feeder.apply(timeline->events()[0]);
    const qv::Value* before = replayed.entryProperties(feeder.handleFor(id));
    ASSERT_NE(before, nullptr);
    EXPECT_EQ((*before)["Driver"], qv::Value("option"));
    feeder.apply(timeline->events()[1]);
    const qv::Value* after = replayed.entryProperties(feeder.handleFor(id));
    ASSERT_NE(after, nullptr);
    EXPECT_TRUE((*after)["Driver"].isNil());
    EXPECT_EQ((*after)["CFBundleIdentifier"], qv::Value("org.kernel.option"));
    EXPECT_EQ((*after)["bInterfaceClass"].intValue(), 255);
}

TEST(RegistryTimelineRecorder, KeepsOnlyTheChosenDeviceAndMasksItsProperties) {
    qv::Registry registry;
    addStick(registry, 0x1406, 0x01200000, {"ttyUSB0"});
    addStick(registry, 0x1001, 0x01300000, {"ttyUSB1"});
    qvdevice::IdentifierMasker masker(5);
    RegistryTimelineRecorder recorder(registry, USBDeviceID::parse("12D1:1001"), &masker);
    recorder.record(0.0);
    ASSERT_EQ(recorder.timeline().size(), 1u);
    const qv::Json& entry = recorder.timeline()[0]["add"]["entry"];
    EXPECT_EQ(entry["properties"]["idProduct"], 0x1001);
    std::string serial = entry["properties"]["USB Serial Number"];
    EXPECT_NE(serial, "SN0042XY");
    EXPECT_EQ(serial.size(), 8u);
    EXPECT_EQ(serial, masker.maskWhole("SN0042XY"));

    for (const char* bad :
         {"", "12d1", "12d1:", ":1001", "12d1:1001x", "12345:1", "g2d1:1001", "12d1:10:01"}) {
        EXPECT_FALSE(USBDeviceID::parse(bad)) << bad;
    }
}

}  // namespace
