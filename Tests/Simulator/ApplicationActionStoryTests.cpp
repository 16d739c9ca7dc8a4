// Stories in which the application acts at given moments: stop and start the observer, choose a
// default device, change the rules, start the queue, turn polling off; and what a stop ends.
#include <gtest/gtest.h>

#include "StoryBuilder.h"
#include "qvdevice/SimulationScenario.h"

using qvtest::eventsOf;
using qvtest::firstTime;
using qvtest::hasLogLine;
using qvtest::huaweiE1750WithDriverCd;
using qvtest::StickSpec;
using qvtest::StoryBuilder;

namespace {

qv::Json answeringModem(double latency = 0.25) {
    return {{"identify", {{"deviceId", 320}}},
            {"groundInit", 7},
            {"deviceInfo", {{"IMEI", "350000000000001"}}},
            {"networkInfo",
             qv::Json::array({{{"code", 7}, {"complete", 1}, {"info", {{"Operator", "Alpha"}}}}})},
            {"latency", latency}};
}

// Adds application events to a built story and plays it.
qvdevice::SimulationResult play(const StoryBuilder& builder, const qv::Json& actions,
                                double until) {
    qv::Json json = builder.json();
    for (const auto& action : actions) {
        json["timeline"].push_back(action);
    }
    return qvtest::runScenario(json, until);
}

// Every event after `from` that is not the application's own action.
std::vector<qvdevice::SimulationEvent> workAfter(const qvdevice::SimulationResult& result,
                                                 double from) {
    std::vector<qvdevice::SimulationEvent> work;
    for (const auto& event : result.events) {
        if (event.t > from && event.kind != "app") {
            work.push_back(event);
        }
    }
    return work;
}

std::string refusal(const qv::Json& json) {
    std::string error;
    EXPECT_FALSE(qvdevice::SimulationScenario::fromJson(json, &error)) << json.dump();
    return error;
}

}  // namespace

TEST(ApplicationActionStory, AStopEndsAllWorkAndAStartBeginsAgain) {
    // The stick's ports appear only at 6 s: at the stop it is still pending.
    StoryBuilder builder;
    builder.plugBare(1.0, huaweiE1750WithDriverCd()).addPorts(6.0, huaweiE1750WithDriverCd());
    auto result =
        play(builder, {{{"at", 3.5}, {"app", "stop"}}, {{"at", 60.0}, {"app", "start"}}}, 70.0);

    const auto actions = eventsOf(result, "app");
    ASSERT_EQ(actions.size(), 2u);
    EXPECT_EQ(actions[0].fields["call"], "stop");
    EXPECT_DOUBLE_EQ(actions[0].t, 3.5);
    EXPECT_TRUE(hasLogLine(result, "QVDeviceMonitor: teardown"));
    std::vector<std::string> between;
    for (const auto& event : workAfter(result, 3.5)) {
        if (event.t < 60.0 && event.fields.value("message", "") != "QVDeviceMonitor: teardown") {
            between.push_back(event.jsonLine());
        }
    }
    EXPECT_TRUE(between.empty()) << between.front();

    // The new start finds the stick attached and identifies it a second later.
    EXPECT_DOUBLE_EQ(firstTime(result, "application", "noteDeviceBecameAvailable:"), 61.0);
    EXPECT_EQ(result.identifiedAtEnd, 1u);
}

TEST(ApplicationActionStory, PollingUnderWayEndsWithTheStop) {
    StoryBuilder builder;
    builder.plug(1.0, huaweiE1750WithDriverCd()).modem("ttyUSB2", answeringModem());
    auto result = play(builder,
                       {{{"at", 0.0}, {"app", "startQueue"}},
                        {{"at", 3.0}, {"app", {{"setDefaultDevice", 0}}}},
                        {{"at", 3.0}, {"app", "devicesChanged"}},
                        {{"at", 20.0}, {"app", "stop"}}},
                       60.0);
    const auto polls = eventsOf(result, "application", "noteNetworkInfoDidUpdate:sender:");
    ASSERT_GE(polls.size(), 2u) << "polling ran before the stop";
    EXPECT_DOUBLE_EQ(firstTime(result, "gsm", "startGroundInitEx"), 3.0);
    for (const auto& event : workAfter(result, 20.0)) {
        EXPECT_NE(event.kind, "gsm") << event.jsonLine();
        EXPECT_NE(event.kind, "application") << event.jsonLine();
        EXPECT_NE(event.kind, "exec") << event.jsonLine();
    }
}

TEST(ApplicationActionStory, RulesDefaultDeviceAndAutorepeatActAtTheirTime) {
    StoryBuilder builder;
    StickSpec second = huaweiE1750WithDriverCd();
    second.id = "second";
    second.locationID = 0x1A200000;
    second.ttys = {"ttyUSB3", "ttyUSB4", "ttyUSB5"};
    second.cdrom.reset();
    builder.plug(1.0, huaweiE1750WithDriverCd())
        .plug(10.0, second)
        .modem("ttyUSB2", answeringModem())
        .modem("ttyUSB5", answeringModem(3.0));
    auto result =
        play(builder,
             {// Rules that name another model: the first stick is not allowed at 1 s.
              {{"at", 0.0},
               {"app",
                {{"setAllowedDevicesRules",
                  qv::Json::array({{{"QuorvelID", 15412}, {"Allowed", "YES"}}})}}}},
              {{"at", 5.0}, {"app", {{"setAllowedDevicesRules", qv::Json::array()}}}},
              {{"at", 12.0}, {"app", "startQueue"}},
              {{"at", 12.0}, {"app", {{"setDefaultDevice", 0}}}},
              {{"at", 12.0}, {"app", "devicesChanged"}},
              // Ground initialisation answers at 15 s and queues the first network query, which
              // is in flight until 18 or 19 s: turned off meanwhile, polling ends with its answer.
              {{"at", 17.5}, {"app", {{"setAutorepeatNetInfo", false}}}}},
             40.0);
    const auto available = eventsOf(result, "application", "noteDeviceBecameAvailable:");
    ASSERT_EQ(available.size(), 1u) << "only the stick plugged after the rules changed";
    EXPECT_EQ(available[0].device()["_locationID"], 0x1A200000);
    // Ground initialisation and one network query on the only device, then no repeat.
    const auto groundInits = eventsOf(result, "gsm", "startGroundInitEx");
    ASSERT_EQ(groundInits.size(), 1u);
    EXPECT_EQ(groundInits[0].fields["port"], "/dev/cu.ttyUSB5");
    EXPECT_EQ(eventsOf(result, "gsm", "startGetNetworkInfoEx").size(), 1u);
    EXPECT_EQ(eventsOf(result, "application", "noteNetworkInfoDidUpdate:sender:").size(), 1u);
    const auto actions = eventsOf(result, "app");
    ASSERT_EQ(actions.size(), 6u);
    EXPECT_EQ(actions[3].fields["call"], "setDefaultDevice:");
    EXPECT_EQ(actions[3].fields["arguments"], qv::Json::array({0}));
    EXPECT_EQ(actions[5].fields["call"], "setAutorepeatNetInfo:");
}

TEST(ApplicationActionStory, UnknownOrMalformedActionsAreRefusedWithTheirPlace) {
    const qv::Json stick = {{"at", 0},
                            {"add", {{"entry", {{"id", "s"}, {"class", "IOUSBDevice"}}}}}};
    auto withEvent = [&](qv::Json event) {
        return qv::Json{{"timeline", qv::Json::array({stick, std::move(event)})}};
    };
    EXPECT_EQ(refusal(withEvent({{"at", 1}, {"app", "explode"}})),
              "timeline[1].app: unknown application action \"explode\"");
    EXPECT_EQ(refusal(withEvent({{"at", 1}, {"app", {{"setVolume", 3}}}})),
              "timeline[1].app: unknown application action \"setVolume\"");
    EXPECT_EQ(refusal(withEvent({{"at", 1}, {"app", {{"setDefaultDevice", "0"}}}})),
              "timeline[1].app.setDefaultDevice: must be an integer");
    EXPECT_EQ(refusal(withEvent({{"at", 1}, {"app", {{"setAutorepeatNetInfo", 1}}}})),
              "timeline[1].app.setAutorepeatNetInfo: must be true or false");
    EXPECT_EQ(refusal(withEvent({{"at", 1}, {"app", {{"setAllowedDevicesRules", {1}}}}})),
              "timeline[1].app.setAllowedDevicesRules[0]: must be a dictionary");
    EXPECT_EQ(refusal(withEvent({{"at", 1}, {"app", {{"start", 1}, {"stop", 1}}}})),
              "timeline[1].app: must name one action");
    EXPECT_EQ(refusal(withEvent({{"app", "stop"}})), "timeline[1]: has no \"at\"");
    EXPECT_EQ(refusal(withEvent({{"at", -1}, {"app", "stop"}})).rfind("timeline[1].at: ", 0), 0u);
    EXPECT_EQ(refusal(withEvent({{"at", 1}, {"app", "stop"}, {"remove", "s"}})),
              "timeline[1]: unknown key \"remove\" beside \"app\"");
    EXPECT_EQ(refusal(withEvent({{"at", 1}, {"app", 7}})),
              "timeline[1].app: must be an action name or a one-key object");
    // A registry event behind an application event keeps its own place in the message.
    qv::Json json = {{"timeline", qv::Json::array({{{"at", 0}, {"app", "stop"}},
                                                   {{"at", 1}, {"remove", "nowhere"}}})}};
    EXPECT_EQ(refusal(json).rfind("timeline[1]", 0), 0u) << refusal(json);
}

// The application stops and starts again while the next network query is five seconds away: the
// old run's re-query must not come back beside the new run's polling.
TEST(ApplicationActionStory, ARestartWithinTheRequeryTimeBringsBackNoOldPolling) {
    StoryBuilder builder;
    builder.plug(1.0, huaweiE1750WithDriverCd()).modem("ttyUSB2", answeringModem());
    auto result = play(builder,
                       {{{"at", 0.0}, {"app", "startQueue"}},
                        {{"at", 3.0}, {"app", {{"setDefaultDevice", 0}}}},
                        {{"at", 3.0}, {"app", "devicesChanged"}},
                        {{"at", 4.0}, {"app", "stop"}},
                        {{"at", 4.5}, {"app", "start"}},
                        {{"at", 12.0}, {"app", "devicesChanged"}}},
                       40.0);
    // Before the stop: initialised at 3.25, one query answered at 3.5, the next due at 8.5.
    std::vector<double> queries;
    for (const auto& event : eventsOf(result, "gsm", "startGetNetworkInfoEx")) {
        queries.push_back(event.t);
    }
    const auto inits = eventsOf(result, "gsm", "startGroundInitEx");
    ASSERT_EQ(inits.size(), 2u);
    EXPECT_DOUBLE_EQ(inits[1].t, 12.0);
    ASSERT_GE(queries.size(), 4u);
    EXPECT_DOUBLE_EQ(queries[0], 3.25);
    // Nothing between the stop and the new run's initialisation, then one query every 5.25 s.
    EXPECT_DOUBLE_EQ(queries[1], 12.25);
    for (std::size_t i = 2; i < queries.size(); ++i) {
        EXPECT_DOUBLE_EQ(queries[i] - queries[i - 1], 5.25) << "query " << i;
    }
    EXPECT_EQ(eventsOf(result, "application", "noteNetworkInfoDidUpdate:sender:").size(),
              queries.size());
}
