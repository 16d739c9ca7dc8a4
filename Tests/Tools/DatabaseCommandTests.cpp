#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "Foundation/Platform.h"
#include "Support/ToolRunner.h"

namespace {

std::string fixture(const char* name) {
    return std::string(QV_TEST_DATA_DIR) + "/Database/" + name;
}

TEST(DatabaseCommand, CheckPassesAGoodFileWithOneSummaryLine) {
    ToolRun run = runQvdevice({"db", "check", fixture("Family.plist")});
    EXPECT_EQ(run.code, 0) << run.out << run.err;
    EXPECT_EQ(run.out, fixture("Family.plist") + ": 3 entries, no problems\n");
}

// The model coverage of the shipped file is tested in Knowledge/DeviceDatabaseFileTests.cpp.
TEST(DatabaseCommand, TheShippedDatabasePassesTheCheck) {
    qv::Bundle::setResourcesDirectory(QV_BUILD_RESOURCES_DIR);
    ToolRun run = runQvdevice({"db", "check"});
    qv::Bundle::setResourcesDirectory(std::nullopt);
    EXPECT_EQ(run.code, 0) << run.out << run.err;
    EXPECT_EQ(run.out, std::string(QV_BUILD_RESOURCES_DIR) +
                           "/DeviceDatabase.plist: 154 entries, no problems\n");
}

TEST(DatabaseCommand, CheckNamesTheEntryOfEveryProblem) {
    ToolRun run = runQvdevice({"db", "check", fixture("Problems.plist")});
    EXPECT_EQ(run.code, 1);
    // Entry #3 inherits entry #2's problems without repeating them; the cycle is reported once.
    EXPECT_EQ(run.out,
              R"(entry #1: has no DeviceDatabase.QuorvelID; the framework refuses the whole file
entry #2 (Quorvel ID 20): unknown key "DeviceDatabase.Capabilites.Port-1"
entry #2 (Quorvel ID 20): DeviceDatabase.Pattern.Port-0 does not compile as a regular expression: U_REGEX_INVALID_RANGE at offset 18
entry #2 (Quorvel ID 20): DeviceDatabase.Pattern.Port-2 is never read: DeviceDatabase.Pattern.Port-1 is missing, which ends the list of ports
entry #2 (Quorvel ID 20): unknown capability "GroundInit,SignalStrength" in DeviceDatabase.Capabilities.Port-0 (capabilities are separated by a comma and a blank)
entry #2 (Quorvel ID 20): DeviceDatabase.ShouldSupressDriverDisk is a boolean: only the string "YES" suppresses the driver disk (write "YES" or "NO")
entry #2 (Quorvel ID 20): unknown manufacturer "Sierra Wireless"
entry #3 (Quorvel ID 21): DeviceDatabase.SupressNetworkQueryWhileConnecting is "NO", which turns the suppression on: any non-empty value does (leave the key out, or empty, to keep it off)
entry #4 (Quorvel ID 20): Quorvel ID 20 is taken by entry #2 (Quorvel ID 20) already; lookups find only that one
entry #4 (Quorvel ID 20): ancestor 999 names no entry
entry #5 (Quorvel ID 30): ancestor cycle 30 -> 31 -> 30: a lookup of a key none of them has never ends
entry #6 (Quorvel ID 31): DeviceDatabase.Pattern.Port-0 is "first", not a port number (it reads as 0)
entry #6 (Quorvel ID 31): DeviceDatabase.PatternAlternative-1.Port-0 is never read: DeviceDatabase.PatternAlternative-0.Port-0 is missing, which ends the alternatives
entry #6 (Quorvel ID 31): DeviceDatabase.NetworkAccessTechnology is "gsm"; known values: GSM, CDMA (anything else reads as -1)
entry #7: is a string, not a dictionary
entry #8: DeviceDatabase.QuorvelID is "forty", not a number
entry #8: unknown port identification strategy "ByName" (known: ByFileEnding, ByPortNumber, ByRegex)
)");
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
        ToolRun run = runQvdevice({"db", "check", path});
        EXPECT_EQ(run.code, 2) << path;
        EXPECT_EQ(run.out, "") << path;
        EXPECT_EQ(run.err.rfind("qvdevice db check: refused: ", 0), 0u) << run.err;
    }
    std::filesystem::remove(deep);
}

TEST(DatabaseCommand, ShowSaysWhyAFileIsRefused) {
    const std::pair<std::string, const char*> cases[] = {
        {fixture("Missing.plist"), "No such file or directory"},
        {fixture("NotUTF8.plist"), "is not UTF-8 text"},
        {fixture("Binary.plist"), "is not UTF-8 text"},
        {testing::TempDir(), "is a directory"},
        {"/dev/zero", "is not a regular file"},
    };
    for (const auto& [path, reason] : cases) {
        ToolRun run = runQvdevice({"db", "show", "1", "--file", path});
        EXPECT_EQ(run.code, 2) << path;
        EXPECT_EQ(run.err, "qvdevice db show: refused: " + path + ": " + reason + "\n");
    }
}

TEST(DatabaseCommand, ShowResolvesInheritance) {
    ToolRun json = runQvdevice({"db", "show", "1001", "--file", fixture("Family.plist"), "--json"});
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

    ToolRun text = runQvdevice({"db", "show", "1002", "--file", fixture("Family.plist")});
    ASSERT_EQ(text.code, 0) << text.err;
    EXPECT_NE(text.out.find("  0: \"/dev/cu\\\\.ttyACM[0-9]+\", capabilities: "), std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("     alternative 0: \"/dev/cu\\\\.ttyUSB0\"\n"), std::string::npos);
    EXPECT_NE(text.out.find("\"DeviceDatabase.Manufacturer\" = \"Huawei\"  (from 15354)\n"),
              std::string::npos);
    EXPECT_NE(text.out.find("Driver disk suppressed: NO\n"), std::string::npos);

    ToolRun missing = runQvdevice({"db", "show", "77", "--file", fixture("Family.plist")});
    EXPECT_EQ(missing.code, 1);
    EXPECT_NE(missing.err.find("has no entry with Quorvel ID 77"), std::string::npos);

    // A looping chain: nothing half-printed, and it is called a cycle, not a missing entry.
    std::filesystem::path loop = std::filesystem::path(testing::TempDir()) / "Loop.plist";
    std::ofstream(loop)
        << R"(({ "DeviceDatabase.QuorvelID" = 30; "DeviceDatabase.AncestorQuorvelID" = 31; },
                               { "DeviceDatabase.QuorvelID" = 31; "DeviceDatabase.AncestorQuorvelID" = 30; }))";
    ToolRun looping = runQvdevice({"db", "show", "30", "--file", loop.string()});
    std::filesystem::remove(loop);
    EXPECT_EQ(looping.code, 1);
    EXPECT_EQ(looping.out, "");
    EXPECT_NE(looping.err.find("the ancestor chain of 30 loops"), std::string::npos) << looping.err;
    EXPECT_NE(looping.err.find("inherit in a cycle"), std::string::npos) << looping.err;
    EXPECT_EQ(looping.err.find("no entry"), std::string::npos) << looping.err;

    // A mistaken ID is a usage mistake whatever its form; an ID the file lacks is an answer.
    for (const char* id : {"abc", "-1", "0", "2147483648"}) {
        EXPECT_EQ(runQvdevice({"db", "show", id, "--file", fixture("Family.plist")}).code, 2) << id;
    }
}

}  // namespace
