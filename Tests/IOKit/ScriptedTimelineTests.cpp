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
    EXPECT_EQ(parseError(R"({"timeline":[{"at":1,"add":{"entry":{"id":"a","class":"C",
        "properties":{"x":null}}}}]})"),
              "timeline[0].add.entry.properties.x: null is not a property-list value");
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
