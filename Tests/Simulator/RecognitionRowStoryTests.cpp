// Recognition rows through the whole framework: renaming from the rules, the generic recogniser's
// reports when no rule or a refusing rule meets a device, the time-out and driver-request texts.
#include <gtest/gtest.h>

#include "StoryBuilder.h"

using qvtest::eventsOf;
using qvtest::hasLogLine;
using qvtest::hasLogPrefix;
using qvtest::logMessages;
using qvtest::StickSpec;
using qvtest::StoryBuilder;

namespace {

qv::Json modelAnswer(const std::string& model) {
    return {{"modelInfo", {{"pmn", model}, {"manSpecificNumber", "GT"}, {"model", model}}}};
}

std::vector<std::string> announcedNames(const qvdevice::SimulationResult& result) {
    std::vector<std::string> names;
    for (const auto& event : eventsOf(result, "application", "noteDeviceBecameAvailable:")) {
        names.push_back(event.device().value("_productName", ""));
    }
    return names;
}

std::size_t countLogPrefix(const qvdevice::SimulationResult& result, const std::string& prefix) {
    std::size_t count = 0;
    for (const auto& line : logMessages(result)) {
        count += line.rfind(prefix, 0) == 0 ? 1 : 0;
    }
    return count;
}

}  // namespace

TEST(RecognitionRowStory, RulesRenameFromTheirNameOrFromTheModemsModel) {
    // A plain name from the rule.
    auto named =
        StoryBuilder()
            .plug(1.0, qvtest::huaweiE1750())
            .option("rules",
                    qv::Json::array({{{"QuorvelID", 320}, {"DeviceName", "Office Stick"}}}))
            .run(10.0);
    EXPECT_EQ(announcedNames(named), std::vector<std::string>{"Office Stick"});

    // CGMM asked: the first stick's modem answers with its model, the second's does not and the
    // rule's name stands in.
    StickSpec quiet = qvtest::huaweiE1750("quiet", 0x1A200000);
    quiet.ttys = {"ttyUSB3", "ttyUSB4", "ttyUSB5"};
    StoryBuilder cgmm;
    cgmm.plug(1.0, qvtest::huaweiE1750())
        .plug(5.0, quiet)
        .option("rules", qv::Json::array({{{"QuorvelID", 320},
                                           {"DeviceName", "Fallback"},
                                           {"FetchDeviceNameUsingCGMM", "1"}}}));
    for (const char* tty : {"ttyUSB0", "ttyUSB1", "ttyUSB2"}) {
        cgmm.modem(tty, modelAnswer("E1750C"));
    }
    auto asked = cgmm.run(15.0);
    EXPECT_EQ(announcedNames(asked), (std::vector<std::string>{"E1750C", "Fallback"}));
    EXPECT_FALSE(eventsOf(asked, "gsm").empty());

    // Without a rule for the model the table's product name stays.
    auto unnamed = StoryBuilder().plug(1.0, qvtest::huaweiE1750()).run(10.0);
    ASSERT_EQ(announcedNames(unnamed).size(), 1u);
    EXPECT_NE(announcedNames(unnamed)[0], "Fallback");
}

TEST(RecognitionRowStory, GenericRecogniserReportsANoRuleDeviceThreeTimesAndARefusedOneToo) {
    // Rules only for a ZTE model: the E1750 has no rule, neither as itself nor as a Huawei.
    auto noRule = StoryBuilder()
                      .plug(1.0, qvtest::huaweiE1750())
                      .option("monitor", "generic")
                      .option("rules", qv::Json::array({{{"QuorvelID", 15412}}}))
                      .run(10.0);
    const auto reports = eventsOf(noRule, "monitor", "noteCouldNotIdentifyDevice:");
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[0].device()["_quorvelID"], 320);    // the standard attempt
    EXPECT_EQ(reports[1].device()["_quorvelID"], 15355);  // inside the generic one
    EXPECT_EQ(reports[2].device()["_quorvelID"], 320);    // the bare record
    EXPECT_EQ(countLogPrefix(noRule, "Device is recognized but no rule could be found for it"), 2u);
    EXPECT_EQ(countLogPrefix(noRule, "Try to recognize generic device: "), 1u);
    EXPECT_TRUE(hasLogLine(noRule, "Generic device could not be recognized"));
    EXPECT_TRUE(eventsOf(noRule, "application", "noteDeviceBecameAvailable:").empty());

    // The Huawei family refused by the rules: the generic attempt's code-3 branch.
    auto refused = StoryBuilder()
                       .plug(1.0, qvtest::huaweiE1750())
                       .option("monitor", "generic")
                       .option("rules", qv::Json::array({{{"QuorvelID", 15355}, {"Allowed", 0}}}))
                       .run(10.0);
    EXPECT_EQ(eventsOf(refused, "monitor", "noteCouldNotIdentifyDevice:").size(), 3u);
    // Once by the match, once by the generic attempt acting on its answer.
    EXPECT_EQ(countLogPrefix(refused, "Device is recognized but not allowed. Throwing it away!"),
              2u);
    EXPECT_TRUE(hasLogLine(refused, "Generic device could not be recognized"));
    EXPECT_TRUE(eventsOf(refused, "application", "noteDeviceBecameAvailable:").empty());
}

TEST(RecognitionRowStory, TimeoutAndDriverRequestLinesReadAsTheyAlwaysHave) {
    // A listed stick whose ports never appear, on the standard monitor: the time-out line.
    auto bare = StoryBuilder().plugBare(1.0, qvtest::huaweiE1750()).run(40.0);
    EXPECT_EQ(countLogPrefix(bare, "Timout trying to recognize device: "), 1u);
    EXPECT_TRUE(hasLogLine(bare, "Dumping Device for analysis..."));
    EXPECT_TRUE(hasLogLine(bare, "Starting Identifier"));
    EXPECT_TRUE(hasLogLine(bare, "Stopping Identifier"));
    EXPECT_FALSE(hasLogPrefix(bare, "Timeout handling device: "));

    // An unlisted Huawei without ports on the generic monitor, driver requests allowed.
    StickSpec unlisted = qvtest::huaweiE1750();
    unlisted.productID = 0x15FF;
    auto request =
        StoryBuilder()
            .plugBare(1.0, unlisted)
            .option("monitor", "generic")
            .option("rules",
                    qv::Json::array({{{"VendorID", 0x12D1}, {"AllowesDriverRequest", "YES"}}}))
            .run(40.0);
    std::vector<std::string> notes;
    for (const auto& event : eventsOf(request, "syslog")) {
        const std::string line = event.fields["message"];
        if (line.rfind("Notify that a driver request is allowed for ", 0) == 0) {
            notes.push_back(line);
        }
    }
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0].back(), '.') << notes[0];
    EXPECT_GT(notes[0].size(), std::string("Notify that a driver request is allowed for .").size())
        << "the device is named";
}
