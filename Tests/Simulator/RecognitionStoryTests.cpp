// Whole stories through the simulator's library entry: what the monitor tells the observer, what
// the application hears, what runs and when, on the virtual clock.
#include <gtest/gtest.h>

#include "StoryBuilder.h"

using qvtest::eventsOf;
using qvtest::firstTime;
using qvtest::hasLogLine;
using qvtest::huaweiE1750WithDriverCd;
using qvtest::StickSpec;
using qvtest::StoryBuilder;

namespace {

qv::Json answeringModem(double latency = 0.25) {
    return {{"identify", {{"deviceId", 320}}},
            {"modelInfo", {{"pmn", "E1750"}, {"manSpecificNumber", "GT-1750"}, {"model", "E1750"}}},
            {"groundInit", 7},
            {"deviceInfo", {{"IMEI", "350000000000001"}}},
            {"networkInfo",
             qv::Json::array({{{"code", 7}, {"complete", 1}, {"info", {{"Operator", "Alpha"}}}},
                              {{"code", 7}, {"complete", 1}, {"info", {{"Operator", "Beta"}}}}})},
            {"latency", latency}};
}

std::vector<std::string> interfacePaths(const qv::Json& device) {
    std::vector<std::string> paths;
    for (const auto& interface : device.value("_interfaces", qv::Json::array())) {
        if (interface.contains("_path"))
            paths.push_back(interface["_path"].get<std::string>());
    }
    return paths;
}

}  // namespace

TEST(RecognitionStory, AllowedStickIsAnnouncedEjectedInitialisedPolledAndReportedMissing) {
    auto result = StoryBuilder()
                      .plug(1.0, huaweiE1750WithDriverCd())
                      .unplug(30.0, "stick")
                      .option("defaultDevice", 0)
                      .option("startQueue", true)
                      .modem("ttyUSB2", answeringModem())
                      .run(40.0);

    // Scheduler starts at arrival, the first tick one second later finds the stick old enough.
    EXPECT_DOUBLE_EQ(firstTime(result, "monitor", "noteDeviceIdentificationStarted"), 1.0);
    EXPECT_DOUBLE_EQ(firstTime(result, "monitor", "noteStartedIdentifyingDevice:"), 2.0);
    auto available = eventsOf(result, "monitor", "noteDeviceBecameAvailable:");
    ASSERT_EQ(available.size(), 1u);
    EXPECT_DOUBLE_EQ(available[0].t, 2.0);
    const qv::Json& device = available[0].device();
    EXPECT_EQ(device["_quorvelID"], 320);
    EXPECT_EQ(device["_vendorID"], 0x12D1);
    EXPECT_EQ(interfacePaths(device),
              (std::vector<std::string>{"/dev/cu.ttyUSB0", "/dev/cu.ttyUSB2", "/dev/cu.ttyUSB1"}));
    EXPECT_TRUE(hasLogLine(result, "Pushing device HUAWEI Mobile, with UUID 1A100000"));
    EXPECT_DOUBLE_EQ(firstTime(result, "application", "noteDeviceBecameAvailable:"), 2.0);
    // Nothing pending any more: the next tick stops the examination.
    EXPECT_DOUBLE_EQ(firstTime(result, "monitor", "noteDeviceIdentificationStopped"), 3.0);

    // The driver CD: the ejector's first tick (3 s) sees the ports, the unmount follows a second
    // later, once.
    auto execs = eventsOf(result, "exec");
    ASSERT_EQ(execs.size(), 1u);
    EXPECT_DOUBLE_EQ(execs[0].t, 4.0);
    ASSERT_EQ(execs[0].fields["argv"].size(), 3u);
    EXPECT_EQ(execs[0].fields["argv"][1], "unmountDisk");
    EXPECT_EQ(execs[0].fields["argv"][2], "sr0");

    // The application chose the stick: initialisation, then network polling every five seconds
    // after each answer.
    EXPECT_DOUBLE_EQ(firstTime(result, "gsm", "startGroundInitEx"), 2.0);
    EXPECT_DOUBLE_EQ(firstTime(result, "application", "noteDeviceDidRecognize:"), 2.25);
    auto updates = eventsOf(result, "application", "noteNetworkInfoDidUpdate:sender:");
    ASSERT_GE(updates.size(), 4u);
    EXPECT_DOUBLE_EQ(updates[0].t, 2.5);
    EXPECT_EQ(updates[0].fields["info"]["Operator"], "Alpha");
    EXPECT_EQ(updates[1].fields["info"]["Operator"], "Beta");
    EXPECT_EQ(updates[3].fields["info"]["Operator"], "Beta");  // the last answer repeats
    for (std::size_t i = 1; i < updates.size(); ++i) {
        EXPECT_NEAR(updates[i].t - updates[i - 1].t, 5.25, 1e-9);
    }

    auto missing = eventsOf(result, "application", "noteDeviceBecameMissing:");
    ASSERT_EQ(missing.size(), 1u);
    EXPECT_DOUBLE_EQ(missing[0].t, 30.0);
    EXPECT_DOUBLE_EQ(firstTime(result, "monitor", "noteDeviceBecameMissing:"), 30.0);
    EXPECT_EQ(result.pendingAtEnd, 0u);
}

TEST(RecognitionStory, RejectionsFollowTheDecisionTable) {
    // Not in the database (Huawei EC1260 has a table ID but no entry in the test database).
    StickSpec ec1260 = huaweiE1750WithDriverCd();
    ec1260.productID = 0x140B;
    ec1260.cdrom.reset();
    auto notInDatabase = StoryBuilder().plug(1.0, ec1260).run(10.0);
    EXPECT_TRUE(
        hasLogLine(notInDatabase, "Device is recognized, but not in database. Throwing it away!"));
    EXPECT_EQ(eventsOf(notInDatabase, "monitor", "noteCouldNotIdentifyDevice:").size(), 1u);
    EXPECT_TRUE(eventsOf(notInDatabase, "monitor", "noteDeviceBecameAvailable:").empty());

    // Forbidden by the rules.
    auto forbidden = StoryBuilder()
                         .plug(1.0, huaweiE1750WithDriverCd())
                         .option("rules", qv::Json::array({{{"QuorvelID", 320}, {"Allowed", 0}}}))
                         .run(10.0);
    EXPECT_TRUE(hasLogLine(forbidden, "Device is recognized but not allowed. Throwing it away!"));
    EXPECT_EQ(eventsOf(forbidden, "monitor", "noteCouldNotIdentifyDevice:").size(), 1u);
    EXPECT_TRUE(eventsOf(forbidden, "exec").empty());

    // ...unless the system is older than 10.5, which accepted devices the rules did not allow.
    auto lenient = StoryBuilder()
                       .plug(1.0, huaweiE1750WithDriverCd())
                       .option("rules", qv::Json::array({{{"QuorvelID", 320}, {"Allowed", 0}}}))
                       .option("systemVersion", 0x104F)
                       .run(10.0);
    EXPECT_EQ(eventsOf(lenient, "monitor", "noteDeviceBecameAvailable:").size(), 1u);

    // Rules that do not speak of the device.
    auto noRule = StoryBuilder()
                      .plug(1.0, huaweiE1750WithDriverCd())
                      .option("rules", qv::Json::array({{{"QuorvelID", 4010}}}))
                      .run(10.0);
    EXPECT_TRUE(hasLogLine(noRule, "Device is recognized but no rule could be found for it"));
    EXPECT_EQ(eventsOf(noRule, "monitor", "noteCouldNotIdentifyDevice:").size(), 1u);

    // None of the rejections reaches the application.
    for (const auto* run : {&notInDatabase, &forbidden, &noRule}) {
        for (const auto& event : eventsOf(*run, "application")) {
            EXPECT_NE(event.fields.value("call", ""), "noteDeviceBecameAvailable:");
        }
        EXPECT_EQ(run->pendingAtEnd, 0u);
    }
}

TEST(RecognitionStory, WaitsForPortsAndPowerUpAndTimesOutJustAfterThirtySeconds) {
    // Ports published 4.5 seconds after arrival: retried silently, announced at the next tick.
    auto late = StoryBuilder()
                    .plugBare(1.0, huaweiE1750WithDriverCd())
                    .addPorts(5.5, huaweiE1750WithDriverCd())
                    .run(15.0);
    EXPECT_DOUBLE_EQ(firstTime(late, "monitor", "noteStartedIdentifyingDevice:"), 6.0);
    EXPECT_DOUBLE_EQ(firstTime(late, "monitor", "noteDeviceBecameAvailable:"), 6.0);

    // ZTE K3805-Z: five seconds of power-up delay, no AT questioning needed: announced five
    // seconds after arrival, not at the first tick.
    StickSpec zte;
    zte.id = "zte";
    zte.vendorID = 0x19D2;
    zte.productID = 0x1002;
    zte.ttys = {"ttyUSB0", "ttyUSB1", "ttyUSB2"};
    auto slow = StoryBuilder().plug(1.0, zte).run(15.0);
    EXPECT_DOUBLE_EQ(firstTime(slow, "monitor", "noteStartedIdentifyingDevice:"), 2.0);
    EXPECT_DOUBLE_EQ(firstTime(slow, "monitor", "noteDeviceBecameAvailable:"), 6.0);

    // A Huawei product the table does not know: questioned after the wait, the modem does not
    // answer, so the device stays undecided until the handling time-out.
    StickSpec unknown = huaweiE1750WithDriverCd();
    unknown.productID = 0x1001;  // shared by several models: Quorvel ID 0, two seconds of delay
    unknown.cdrom.reset();
    auto silent = StoryBuilder().plug(1.0, unknown).run(40.0);
    auto started = eventsOf(silent, "monitor", "noteStartedIdentifyingDevice:");
    // One attempt per tick from 2 s to 32 s, except 3 s: the first attempt held the thread until
    // then, and a repeating timer skips the firings it missed.
    ASSERT_EQ(started.size(), 30u);
    EXPECT_DOUBLE_EQ(started[1].t, 4.0);
    EXPECT_TRUE(
        hasLogLine(silent, "PowerUpDelayFromIODevice waiting  before portAccess 2 seconds\n"));
    EXPECT_DOUBLE_EQ(firstTime(silent, "monitor", "noteCouldNotIdentifyDevice:"), 32.0);
    EXPECT_TRUE(hasLogLine(silent, "Dumping Device for analysis..."));
    EXPECT_EQ(eventsOf(silent, "monitor", "noteCouldNotIdentifyDevice:").size(), 1u);
    EXPECT_EQ(silent.pendingAtEnd, 0u);

    // The same product whose modem names its model is identified by AT commands.
    auto answered = StoryBuilder()
                        .plug(1.0, unknown)
                        .modem("ttyUSB0", {{"identify", {{"deviceId", 310}}}})
                        .run(10.0);
    auto identified = eventsOf(answered, "monitor", "noteDeviceBecameAvailable:");
    ASSERT_EQ(identified.size(), 1u);
    EXPECT_EQ(identified[0].device()["_quorvelID"], 310);
    // The two seconds of delay are counted from arrival: the first attempt at 2 s waits to 3 s.
    EXPECT_DOUBLE_EQ(identified[0].t, 3.0);
}

TEST(RecognitionStory, GenericRecognitionTakesUnlistedProductsOfKnownMakers) {
    // An unlisted Huawei product: standard recognition times out, the Huawei family takes it.
    StickSpec huawei = huaweiE1750WithDriverCd();
    huawei.productID = 0x15FF;
    auto generic = StoryBuilder().plug(1.0, huawei).option("monitor", "generic").run(40.0);
    EXPECT_TRUE(qvtest::hasLogPrefix(generic, "Standard recognition timed out: "));
    auto announced = eventsOf(generic, "monitor", "noteDeviceBecameAvailable:");
    ASSERT_EQ(announced.size(), 1u);
    EXPECT_EQ(announced[0].device()["_quorvelID"], 15355);
    EXPECT_DOUBLE_EQ(announced[0].t, 32.0);
    // Huawei devices go to the ejector as soon as the generic attempt looks at them.
    EXPECT_FALSE(eventsOf(generic, "exec").empty());

    // An unlisted Option product is matched under the Option family without AT questioning.
    StickSpec option = huaweiE1750WithDriverCd("option");
    option.vendorID = 0x0AF0;
    option.productID = 0x7FFF;
    option.cdrom.reset();
    auto optionRun = StoryBuilder().plug(1.0, option).option("monitor", "generic").run(40.0);
    auto optionAnnounced = eventsOf(optionRun, "monitor", "noteDeviceBecameAvailable:");
    ASSERT_EQ(optionAnnounced.size(), 1u);
    EXPECT_EQ(optionAnnounced[0].device()["_quorvelID"], 15354);
    bool inGenericAttempt = false;
    for (const auto& event : optionRun.events) {
        if (event.kind == "log" && event.fields["message"].get<std::string>().rfind(
                                       "Standard recognition timed out", 0) == 0) {
            inGenericAttempt = true;
        }
        EXPECT_FALSE(inGenericAttempt && event.kind == "gsm")
            << "no AT questioning in the generic attempt";
    }
    EXPECT_TRUE(inGenericAttempt);

    // A maker the table does not know at all is dropped without a word.
    StickSpec stranger = huaweiE1750WithDriverCd("stranger");
    stranger.vendorID = 0x1234;
    auto strangerRun = StoryBuilder().plug(1.0, stranger).option("monitor", "generic").run(40.0);
    EXPECT_TRUE(eventsOf(strangerRun, "monitor", "noteStartedIdentifyingDevice:").empty());
    EXPECT_TRUE(eventsOf(strangerRun, "monitor", "noteCouldNotIdentifyDevice:").empty());

    // Ports never published, driver requests allowed for Huawei: the request is announced.
    auto bare =
        StoryBuilder()
            .plugBare(1.0, huawei)
            .option("monitor", "generic")
            .option("rules",
                    qv::Json::array({{{"VendorID", 0x12D1}, {"AllowesDriverRequest", "yes"}}}))
            .run(40.0);
    auto notes = eventsOf(bare, "notification");
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0].fields["name"], "NoteDeviceForDriverRequestDetected");
    EXPECT_TRUE(hasLogLine(bare, "Generic device could not be recognized"));
    EXPECT_FALSE(eventsOf(bare, "syslog").empty());

    // A generic device whose name the rules exclude.
    StickSpec e3372 = huawei;
    e3372.productName = "E3372";
    auto excluded = StoryBuilder()
                        .plug(1.0, e3372)
                        .option("monitor", "generic")
                        .option("rules", qv::Json::array({{{"VendorID", 0x12D1},
                                                           {"ExcludedModelNamePattern", "E33.*"}}}))
                        .run(40.0);
    EXPECT_TRUE(hasLogLine(
        excluded,
        "Device is rcognized but excluded (generic exclusion pattern). Throwing it away!"));
    EXPECT_TRUE(eventsOf(excluded, "monitor", "noteDeviceBecameAvailable:").empty());
}
