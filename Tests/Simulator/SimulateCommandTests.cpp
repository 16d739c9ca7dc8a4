// The shipped example stories, the command's output format, and refused scenarios.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "StoryBuilder.h"
#include "Support/ToolRunner.h"

using qvtest::eventsOf;
using qvtest::firstTime;
using qvtest::hasLogLine;

namespace {

qvdevice::SimulationResult playExample(const std::string& name) {
    std::string error;
    auto scenario = qvdevice::SimulationScenario::fromFile(
        std::string(QV_SOURCE_DIR) + "/Examples/" + name, &error);
    if (!scenario) {
        ADD_FAILURE() << error;
        return {};
    }
    return qvdevice::Simulator::run(*scenario);
}

int runTool(std::vector<std::string> args, std::string& out, std::string& err) {
    ToolRun run = runQvdevice(std::move(args));
    out = run.out;
    err = run.err;
    return run.code;
}

std::string writeTemporary(const std::string& name, const std::string& text) {
    std::string path = ::testing::TempDir() + name;
    std::ofstream(path) << text;
    return path;
}

}  // namespace

TEST(SimulateCommand, ShippedExamplesTellTheirStories) {
    auto stick = playExample("stick-with-driver-cd.json");
    ASSERT_TRUE(stick.ok) << stick.error;
    EXPECT_DOUBLE_EQ(firstTime(stick, "application", "noteDeviceBecameAvailable:"), 2.0);
    EXPECT_GE(eventsOf(stick, "application", "noteNetworkInfoDidUpdate:sender:").size(), 5u);
    ASSERT_EQ(eventsOf(stick, "exec").size(), 1u);
    EXPECT_EQ(eventsOf(stick, "exec")[0].fields["argv"][2], "sr0");
    EXPECT_DOUBLE_EQ(firstTime(stick, "application", "noteDeviceBecameMissing:"), 40.0);

    auto two = playExample("two-sticks-and-unplug.json");
    EXPECT_EQ(eventsOf(two, "application", "noteDeviceBecameAvailable:").size(), 2u);
    EXPECT_EQ(eventsOf(two, "application", "noteDeviceBecameMissing:").size(), 1u);
    // The default index stays 0: once the first stick has gone it names the second one.
    auto updates = eventsOf(two, "application", "noteNetworkInfoDidUpdate:sender:");
    ASSERT_FALSE(updates.empty());
    EXPECT_EQ(updates.back().device()["_quorvelID"], 15412);

    auto generic = playExample("generic-huawei.json");
    auto announced = eventsOf(generic, "application", "noteDeviceBecameAvailable:");
    ASSERT_EQ(announced.size(), 1u);
    EXPECT_EQ(announced[0].device()["_quorvelID"], 15355);

    auto rejected = playExample("rejected-device.json");
    EXPECT_TRUE(hasLogLine(rejected, "Device is recognized but not allowed. Throwing it away!"));
    EXPECT_TRUE(eventsOf(rejected, "application", "noteDeviceBecameAvailable:").empty());
}

TEST(SimulateCommand, WritesOneJsonObjectPerLineInTimeOrder) {
    std::string out, err;
    std::string example = std::string(QV_SOURCE_DIR) + "/Examples/stick-with-driver-cd.json";
    ASSERT_EQ(runTool({"simulate", example, "--until", "12"}, out, err), 0) << err;
    std::istringstream lines(out);
    std::string line;
    double last = 0.0;
    std::size_t count = 0;
    while (std::getline(lines, line)) {
        qv::Json event = qv::Json::parse(line, nullptr, false);
        ASSERT_FALSE(event.is_discarded()) << line;
        ASSERT_TRUE(event["t"].is_number() && event["kind"].is_string()) << line;
        EXPECT_GE(event["t"].get<double>(), last);
        EXPECT_LE(event["t"].get<double>(), 12.0);
        last = event["t"].get<double>();
        ++count;
    }
    EXPECT_GT(count, 10u);

    ASSERT_EQ(runTool({"simulate", example, "--pretty", "--until", "3"}, out, err), 0);
    EXPECT_NE(out.find("     2.000  application  noteDeviceBecameAvailable:"), std::string::npos)
        << out;
}

TEST(SimulateCommand, BadScenariosAreRefusedWithOneLineBeforeAnythingRuns) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"timeline": [], "colour": 1})", "unknown key \"colour\""},
        {R"({"options": {"defaultDevice": "0"}, "timeline": []})", "options.defaultDevice"},
        {R"({"options": {"monitor": "clever"}, "timeline": []})", "options.monitor"},
        {R"({"timeline": [{"at": 1, "add": {"parent": "nowhere", "entry": {"id": "a", "class": "IOUSBDevice"}}}]})",
         "nowhere"},
        {R"({"timeline": [], "modems": {"/dev/cu.ttyUSB0": {"latency": "slow"}}})", "latency"},
        {R"({"options": {"database": "/nonexistent/db.plist"}, "timeline": []})",
         "options.database"},
        {R"({"options": {"rulesFile": "/nonexistent/rules.plist"}, "timeline": []})",
         "options.rulesFile"},
        {"{not json", "not valid JSON"},
    };
    int index = 0;
    for (const auto& [text, expected] : cases) {
        std::string path =
            writeTemporary("bad-scenario-" + std::to_string(index++) + ".json", text);
        std::string out, err;
        EXPECT_EQ(runTool({"simulate", path}, out, err), 2) << text;
        EXPECT_TRUE(out.empty()) << text;
        EXPECT_NE(err.find(expected), std::string::npos) << text << " -> " << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }
}

// Command-line mistakes exit 2 with a message on standard error and nothing on standard output;
// a time that is not a finite number is one of them, not a silent fallback to the scenario's.
TEST(SimulateCommand, UsageMistakesExitTwoWithAReason) {
    const std::string example = std::string(QV_SOURCE_DIR) + "/Examples/stick-with-driver-cd.json";
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"simulate", example, "--until", "nan"}, "not a number of seconds"},
        {{"simulate", example, "--until", "inf"}, "not a number of seconds"},
        {{"simulate", example, "--until", "-5"}, "not a number of seconds"},
        {{"simulate", example, "--until", "12s"}, "not a number of seconds"},
        {{"registry", example, "--at", "nan"}, "not a number of seconds"},
        {{"simulate", example, "--colour"}, "--colour"},
        {{"simulate", ::testing::TempDir()}, "is a directory"},
        {{"simulate", "/nonexistent/story.json"}, "No such file or directory"},
    };
    for (const auto& [args, expected] : cases) {
        std::string out, err;
        EXPECT_EQ(runTool(args, out, err), 2) << args.back();
        EXPECT_TRUE(out.empty()) << args.back();
        EXPECT_NE(err.find(expected), std::string::npos) << args.back() << " -> " << err;
    }
    std::string out, err;
    EXPECT_EQ(runTool({"simulate", "--help"}, out, err), 0);
    EXPECT_NE(out.find("--until"), std::string::npos);
}
