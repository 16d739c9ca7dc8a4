#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "qvdevice/CommandLine.h"

namespace {

struct ToolRun {
    int code;
    std::string out;
    std::string err;
};

ToolRun runTool(std::vector<std::string> args) {
    args.insert(args.begin(), "qvdevice");
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    std::ostringstream out;
    std::ostringstream err;
    int code = qvdevice::run(static_cast<int>(argv.size()), argv.data(), out, err);
    return {code, out.str(), err.str()};
}

std::string fixture(const char* name) { return std::string(QV_TEST_DATA_DIR) + "/Database/" + name; }

TEST(DatabaseCommand, CheckPassesAGoodFileWithOneSummaryLine) {
    ToolRun run = runTool({"db", "check", fixture("Family.plist")});
    EXPECT_EQ(run.code, 0) << run.out << run.err;
    EXPECT_EQ(run.out, fixture("Family.plist") + ": 3 entries, no problems\n");
}

TEST(DatabaseCommand, CheckNamesTheEntryOfEveryProblem) {
    ToolRun run = runTool({"db", "check", fixture("Problems.plist")});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.out, "EXPECTED_PROBLEMS");
}

TEST(DatabaseCommand, CheckRefusesFilesThatAreNoTextPropertyList) {
    std::filesystem::path deep = std::filesystem::path(testing::TempDir()) / "Deep.plist";
    {
        std::ofstream file(deep);
        file << "<plist>";
        for (int i = 0; i < 5000; ++i) {
            file << "<array>";
        }
    }
    for (const std::string& path :
         {fixture("Binary.plist"), fixture("Truncated.plist"), fixture("NotUTF8.plist"),
          fixture("Missing.plist"), deep.string()}) {
        ToolRun run = runTool({"db", "check", path});
        EXPECT_EQ(run.code, 2) << path;
        EXPECT_EQ(run.out, "") << path;
        EXPECT_EQ(run.err.rfind("qvdevice db check: refused: ", 0), 0u) << run.err;
    }
    std::filesystem::remove(deep);
}

TEST(DatabaseCommand, ShowResolvesInheritance) {
    ToolRun json = runTool({"db", "show", "1001", "--file", fixture("Family.plist"), "--json"});
    ASSERT_EQ(json.code, 0) << json.err;
    qv::Json entry = qv::Json::parse(json.out);
    EXPECT_EQ(entry["ancestors"], qv::Json::parse("[15354]"));
    EXPECT_EQ(entry["manufacturer"], "Huawei");
    EXPECT_EQ(entry["manufacturerID"], 3);
    ASSERT_EQ(entry["ports"].size(), 3u);
    EXPECT_EQ(entry["ports"][2]["capabilities"],
              qv::Json::parse(R"(["GPSControl", "GPSData", "Optional"])"));
    EXPECT_EQ(entry["ports"][2]["required"], false);
    EXPECT_EQ(entry["ports"][0]["capabilities"].size(), 18u);
    EXPECT_EQ(entry["shouldSupressDisk"], true);
    EXPECT_EQ(entry["networkIPv6Support"], 1);
    EXPECT_EQ(entry["keys"]["DeviceDatabase.QuorvelID"], 1001);

    ToolRun text = runTool({"db", "show", "1002", "--file", fixture("Family.plist")});
    ASSERT_EQ(text.code, 0) << text.err;
    EXPECT_NE(text.out.find("  0: \"/dev/cu\\\\.ttyACM[0-9]+\", capabilities: "), std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("     alternative 0: \"/dev/cu\\\\.ttyUSB0\"\n"), std::string::npos);
    EXPECT_NE(text.out.find("\"DeviceDatabase.Manufacturer\" = \"Huawei\"  (from 15354)\n"),
              std::string::npos);
    EXPECT_NE(text.out.find("Driver disk suppressed: NO\n"), std::string::npos);

    ToolRun missing = runTool({"db", "show", "77", "--file", fixture("Family.plist")});
    EXPECT_EQ(missing.code, 1);
    EXPECT_NE(missing.err.find("has no entry with Quorvel ID 77"), std::string::npos);
}

}  // namespace
