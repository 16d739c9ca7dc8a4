// qvdevice run on this machine, whatever it has plugged in: the output is the simulator's event
// lines and ends cleanly; usage mistakes are refused before anything starts.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Application/PlatformFactory.h"
#include "Application/ScriptedDevicePlatform.h"
#include "Foundation/Exception.h"
#include "Foundation/JsonValue.h"
#include "Foundation/Logging.h"
#include "Foundation/Platform.h"
#include "RunLoop/VirtualRunLoop.h"
#include "Support/ToolRunner.h"
#include "qvdevice/LiveSession.h"

namespace {

std::vector<qv::Json> jsonLines(const std::string& text) {
    std::vector<qv::Json> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(qv::Json::parse(line));
    }
    return lines;
}

TEST(RunCommand, RunsLiveForTheGivenTimeAndEndsWithAClosingLine) {
    qv::PlatformFactory::resetForTesting();
    qv::PlatformFactory::install(nullptr);  // the live platform, on this machine's udev
    ToolRun run = runQvdevice({"run", "--for", "0.3", "--no-modem"});
    qv::PlatformFactory::install(std::make_shared<qv::ScriptedDevicePlatform>());
    ASSERT_EQ(run.code, 0) << run.err;
    // Not a terminal: JSON lines, in time order, the last one the closing line.
    auto lines = jsonLines(run.out);
    ASSERT_FALSE(lines.empty());
    double previous = 0.0;
    for (const auto& line : lines) {
        ASSERT_TRUE(line["t"].is_number()) << line.dump();
        EXPECT_GE(line["t"].get<double>(), previous);
        previous = line["t"].get<double>();
        EXPECT_TRUE(line["kind"].is_string());
    }
    EXPECT_EQ(lines.back()["kind"], "run");
    EXPECT_LT(previous, 5.0);
    EXPECT_EQ(qv::PlatformFactory::observerCount(), 0);

    ToolRun pretty = runQvdevice({"run", "--for", "0", "--pretty"});
    ASSERT_EQ(pretty.code, 0) << pretty.err;
    EXPECT_NE(pretty.out.find("  run          "), std::string::npos) << pretty.out;
}

TEST(RunCommand, RefusesUsageMistakes) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"run", "--pretty", "--json"},
             {"run", "--for", "nan"},
             {"run", "--for", "-1"},
             {"run", "--default-device", "-1"},
             {"run", "--rules", "/nonexistent/rules.plist"},
             {"run", "--database", "/nonexistent/db.plist"},
             {"simulate", QV_SOURCE_DIR "/Examples/rejected-device.json", "--json", "--pretty"}}) {
        ToolRun run = runQvdevice(arguments);
        EXPECT_EQ(run.code, 2) << arguments[1] << " " << run.out;
        EXPECT_FALSE(run.err.empty());
    }
}

// The framework refuses the database as the monitor is made: the session has started nothing,
// and stopping it (or dropping it) afterwards must not touch what was never made.
TEST(RunCommand, ASessionWhoseDatabaseIsRefusedStopsCleanly) {
    qv::RunLoop::setCurrent(std::make_shared<qv::VirtualRunLoop>());
    qv::Bundle::setPathForResource("DeviceDatabase", "plist",
                                   std::string(QV_TEST_DATA_DIR) + "/Database/Truncated.plist");
    std::ostringstream out;
    {
        qvdevice::LiveSession session(out, qvdevice::LiveSessionOptions{});
        EXPECT_THROW(session.start(), qv::Exception);
        session.stop();
    }
    qv::Bundle::setPathForResource("DeviceDatabase", "plist", std::nullopt);
    qv::RunLoop::setCurrent(nullptr);
    EXPECT_EQ(out.str(), "") << "no closing line for a session that never ran";
    // The session's log sinks went with it: a later line goes nowhere near the dead session.
    qv::logToNamedLog("DeviceRecognition", "after the session");
}

}  // namespace
