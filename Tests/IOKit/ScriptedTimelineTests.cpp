#include <gtest/gtest.h>

#include <string>

#include "IOKit/IOKitLib.h"
#include "IOKit/ScriptedFeeder.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

std::string parseError(const char* text) {
    std::string error;
    auto timeline = qv::ScriptedTimeline::fromJson(qv::Json::parse(text), &error);
    return timeline ? std::string("accepted") : error;
}

TEST(ScriptedTimeline, RefusesBadStoriesNamingTheEvent) {
    EXPECT_EQ(parseError(
                  R"({"timeline":[{"at":1,"add":{"parent":"x","entry":{"id":"a","class":"C"}}}]})"),
              "timeline[0].add.parent: unknown parent \"x\"");
    EXPECT_EQ(parseError(R"({"timeline":[
        {"at":1,"add":{"entry":{"id":"a","class":"C","children":[{"id":"a","class":"D"}]}}}]})"),
              "timeline[0].add.entry: duplicate id \"a\"");
    EXPECT_EQ(
        parseError(R"({"timeline":[{"at":1,"add":{"entry":{"id":"a","class":"C","colour":1}}}]})"),
        "timeline[0].add.entry: unknown key \"colour\"");
    EXPECT_EQ(parseError(R"({"timeline":[{"at":"soon","remove":"a"}]})"),
              "timeline[0]: an event needs a number \"at\"");
    // Times are bounded like a story's end: a time past it would never be reached.
    EXPECT_EQ(
        parseError(R"({"timeline":[{"at":10000000.5,"add":{"entry":{"id":"a","class":"C"}}}]})"),
        "timeline[0].at: must be a time from 0 to 10000000 seconds");
    EXPECT_EQ(parseError(R"({"timeline":[{"at":1e300,"add":{"entry":{"id":"a","class":"C"}}}]})"),
              "timeline[0].at: must be a time from 0 to 10000000 seconds");
    EXPECT_EQ(
        parseError(R"({"timeline":[{"at":10000000,"add":{"entry":{"id":"a","class":"C"}}}]})"),
        "accepted");
    EXPECT_EQ(parseError(R"({"timeline":[{"at":1,"add":{"entry":{"id":"a","class":"C",
        "properties":{"x":null}}}}]})"),
              "timeline[0].add.entry.properties.x: null is not a property-list value");
    // In a change, a null at the top takes the key away; deeper down it is still no value.
    EXPECT_EQ(parseError(R"({"timeline":[{"at":1,"add":{"entry":{"id":"a","class":"C"}}},
        {"at":2,"set":{"id":"a","properties":{"x":null}}}]})"),
              "accepted");
    EXPECT_EQ(parseError(R"({"timeline":[{"at":1,"add":{"entry":{"id":"a","class":"C"}}},
        {"at":2,"set":{"id":"a","properties":{"x":null,"y":{"z":null}}}}]})"),
              "timeline[1].set.properties.y.z: null is not a property-list value");
    EXPECT_EQ(parseError(R"({"timeline":[{"at":1,"add":{"entry":{"id":"a","class":"C",
        "properties":{"x":{"$data":"!!"}}}}}]})"),
              "timeline[0].add.entry.properties.x: \"$data\" is not valid base64");
    // Time order decides, not file order: the removal at 2 comes after the add at 1.
    EXPECT_EQ(parseError(R"({"timeline":[{"at":2,"remove":"a"},
        {"at":1,"add":{"entry":{"id":"a","class":"C"}}}]})"),
              "accepted");
    // A child removed with its parent cannot be set afterwards; a replugged id is fine.
    EXPECT_EQ(parseError(R"({"timeline":[
        {"at":1,"add":{"entry":{"id":"a","class":"C","children":[{"id":"b","class":"D"}]}}},
        {"at":2,"remove":"a"},{"at":3,"set":{"id":"b","properties":{}}}]})"),
              "timeline[2].set.id: unknown id \"b\"");
    EXPECT_EQ(parseError(R"({"timeline":[
        {"at":1,"add":{"entry":{"id":"a","class":"C"}}},{"at":2,"remove":"a"},
        {"at":3,"add":{"entry":{"id":"a","class":"C"}}}]})"),
              "accepted");
}

// A chain of adds, each below the one before: `count` entries, the last `count - 1` levels deep.
std::string chainOfAdds(int count) {
    qv::Json events = qv::Json::array();
    for (int i = 0; i < count; ++i) {
        qv::Json add = {{"entry", {{"id", i}, {"class", "C"}}}};
        add["parent"] = i == 0 ? qv::Json(nullptr) : qv::Json(i - 1);
        events.push_back({{"at", i}, {"add", add}});
    }
    return events.dump();
}

TEST(ScriptedTimeline, RefusesATreeDeeperThanOneEntryMayNestWhateverEventsBuiltIt) {
    // Showing the registry walks it recursively: a long chain of small adds must not reach
    // further down than one deeply nested entry may.
    EXPECT_EQ(parseError(chainOfAdds(65).c_str()), "accepted");
    EXPECT_EQ(parseError(chainOfAdds(66).c_str()),
              "timeline[65].add.entry: entries nested too deeply");
    EXPECT_EQ(parseError(chainOfAdds(1000).c_str()),
              "timeline[65].add.entry: entries nested too deeply");

    // Removing an entry takes its whole subtree, so the same ids may come back below the root.
    qv::Json story = qv::Json::parse(chainOfAdds(65));
    story.push_back({{"at", 100}, {"remove", 0}});
    for (qv::Json event : qv::Json::parse(chainOfAdds(65))) {
        event["at"] = event["at"].get<int>() + 200;
        story.push_back(event);
    }
    story.push_back({{"at", 300}, {"remove", 40}});
    story.push_back({{"at", 301}, {"set", {{"id", 39}, {"properties", qv::Json::object()}}}});
    EXPECT_EQ(parseError(story.dump().c_str()), "accepted");
    story.push_back({{"at", 302}, {"set", {{"id", 41}, {"properties", qv::Json::object()}}}});
    EXPECT_EQ(parseError(story.dump().c_str()), "timeline[133].set.id: unknown id \"41\"");
}

TEST(ScriptedFeeder, AppliesEventsAtTheirVirtualTimes) {
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::RunLoop::setCurrent(loop);
    qv::Registry::resetShared();
    qv::Registry& registry = qv::Registry::shared();
    std::string error;
    auto timeline = qv::ScriptedTimeline::fromJson(qv::Json::parse(R"({"timeline":[
        {"at":1.5,"add":{"parent":null,"entry":{"id":"stick","class":"IOUSBDevice",
            "properties":{"idVendor":4817,"blob":{"$data":"AQID"}},
            "children":[{"id":"tty","class":"IOSerialBSDClient"}]}}},
        {"at":4,"set":{"id":"stick","properties":{"idProduct":4099}}},
        {"at":9,"remove":"stick"}]})"),
                                                   &error);
    ASSERT_TRUE(timeline) << error;
    qv::ScriptedFeeder feeder(registry, std::move(*timeline));
    feeder.schedule(*loop);

    loop->runUntil(1.4);
    EXPECT_EQ(feeder.handleFor("stick"), IO_OBJECT_NULL);
    loop->runUntil(1.5);
    io_registry_entry_t stick = feeder.handleFor("stick");
    ASSERT_NE(stick, IO_OBJECT_NULL);
    EXPECT_EQ(IORegistryEntryCreateCFProperty(stick, "blob"), qv::Value(qv::Data{1, 2, 3}));
    EXPECT_EQ(registry.entryChildren(stick),
              std::vector<io_registry_entry_t>{feeder.handleFor("tty")});
    loop->runUntil(5);
    EXPECT_EQ(IORegistryEntryCreateCFProperty(stick, "idProduct").intValue(), 4099);
    loop->runUntil(10);
    EXPECT_EQ(feeder.handleFor("stick"), IO_OBJECT_NULL);
    EXPECT_EQ(feeder.handleFor("tty"), IO_OBJECT_NULL);
    EXPECT_TRUE(feeder.finished());
    qv::RunLoop::setCurrent(nullptr);
    qv::Registry::resetShared();
}

}  // namespace
