// Scenarios as a hostile user writes them: databases that are no database, nesting without end,
// and device strings that try to drive the terminal. Each is refused with its reason and exit 2,
// or shown harmlessly; none crashes, hangs or quietly plays an empty story.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "Foundation/SmallStack.h"
#include "Support/ToolRunner.h"

namespace {

std::string readExample(const std::string& name) {
    std::ifstream in(std::string(QV_SOURCE_DIR) + "/Examples/" + name);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::string writeScenario(const std::string& name, const std::string& text) {
    const std::string path = ::testing::TempDir() + "/" + name;
    std::ofstream(path) << text;
    return path;
}

std::string withDatabase(const std::string& database) {
    return R"({"options": {"database": ")" + database + R"("}, "timeline": []})";
}

// The bytes of `text` that a terminal would take as controls (line ends aside).
std::string controlsIn(const std::string& text) {
    std::string found;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const bool c1 = c == 0xC2 && i + 1 < text.size() &&
                        static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                        static_cast<unsigned char>(text[i + 1]) <= 0x9F;
        if ((c < 0x20 && c != '\n') || c == 0x7F || c1) {
            found += std::to_string(c) + " ";
        }
    }
    return found;
}

TEST(HostileScenario, ADatabaseThatIsNoDatabaseIsRefusedByName) {
    const std::string data = std::string(QV_TEST_DATA_DIR) + "/Database/";
    const std::string directory = ::testing::TempDir() + "/qv-hostile-db";
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    const std::string fifo = directory + "/fifo.plist";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::filesystem::create_symlink(directory + "/loop-b", directory + "/loop-a");
    std::filesystem::create_symlink(directory + "/loop-a", directory + "/loop-b");

    const std::pair<std::string, const char*> cases[] = {
        {data + "Binary.plist", "is not UTF-8 text"},
        {data + "NotUTF8.plist", "is not UTF-8 text"},
        {data + "Truncated.plist", "Truncated.plist: "},
        {data + "Missing.plist", "No such file or directory"},
        {fifo, "is not a regular file"},  // and no wait for a writer
        {directory, "is a directory"},
        {directory + "/loop-a", "is a loop of symbolic links"},
    };
    for (const auto& [database, reason] : cases) {
        const std::string scenario = writeScenario("refused-database.json", withDatabase(database));
        ToolRun run = runQvdevice({"simulate", scenario});
        EXPECT_EQ(run.code, 2) << database;
        EXPECT_EQ(run.out, "") << database;
        EXPECT_EQ(run.err.rfind("qvdevice simulate: options.database: " + database + ": ", 0), 0u)
            << run.err;
        EXPECT_NE(run.err.find(reason), std::string::npos) << run.err;

        // `run` refuses the same files before anything starts, with the same reasons.
        ToolRun live = runQvdevice({"run", "--database", database, "--for", "0", "--no-modem"});
        EXPECT_EQ(live.code, 2) << database;
        EXPECT_NE(live.err.find(reason), std::string::npos) << live.err;
    }
    // A database the framework reads plays as before.
    ToolRun fine = runQvdevice(
        {"simulate", writeScenario("fine-database.json", withDatabase(data + "Family.plist"))});
    EXPECT_EQ(fine.code, 0) << fine.err;
    std::filesystem::remove_all(directory);
}

TEST(HostileScenario, NestingWithoutEndIsRefusedWithItsPlace) {
    qv::runOnSmallStack([] {
        const std::string deep = std::string(100000, '[') + std::string(100000, ']');
        const std::string places[] = {
            R"({"timeline": [], "modems": {"/dev/cu.ttyUSB0": {"x": )" + deep + "}}}",
            R"({"options": {"rules": [{"QuorvelID": )" + deep + "}]}, \"timeline\": []}",
            R"({"options": {"modeSwitches": [{"vendor": 1, "product": 2, "becomes": )" + deep +
                "}]}, \"timeline\": []}",
            "{\"timeline\": [{\"at\": 1, \"app\": " + deep + "}]}",
            "\n\n  " + deep,
        };
        for (const std::string& text : places) {
            ToolRun run = runQvdevice({"simulate", writeScenario("deep.json", text)});
            EXPECT_EQ(run.code, 2);
            EXPECT_NE(run.err.find("nested deeper than 256 levels at line"), std::string::npos)
                << run.err.substr(0, 200);
        }
        ToolRun registry = runQvdevice({"registry", writeScenario("deep.json", places[4])});
        EXPECT_EQ(registry.code, 2);
        EXPECT_NE(registry.err.find("at line 3, column 259"), std::string::npos) << registry.err;
    });
}

// A product name made of terminal controls: the aligned lines show it escaped, the JSON lines as
// JSON escapes; neither lets a control byte through.
TEST(HostileScenario, DeviceStringsCannotDriveTheTerminal) {
    std::string story = readExample("generic-huawei.json");
    const std::string name = "\"USB Product Name\": \"HUAWEI Mobile\"";
    ASSERT_NE(story.find(name), std::string::npos);
    story.replace(story.find(name), name.size(),
                  R"("USB Product Name": "HUAWEI\u001b]0;owned\u0007\u001b[2J\u009b6n\u007f")");
    const std::string path = writeScenario("hostile-name.json", story);

    ToolRun pretty = runQvdevice({"simulate", path, "--pretty", "--until", "20"});
    ASSERT_EQ(pretty.code, 0) << pretty.err;
    EXPECT_EQ(controlsIn(pretty.out), "");
    EXPECT_NE(pretty.out.find("HUAWEI\\x1b]0;owned\\x07\\x1b[2J\\u009b6n\\x7f"), std::string::npos)
        << pretty.out.substr(0, 2000);

    ToolRun json = runQvdevice({"simulate", path, "--json", "--until", "20"});
    ASSERT_EQ(json.code, 0) << json.err;
    EXPECT_EQ(controlsIn(json.out), "");
    EXPECT_NE(json.out.find(R"(HUAWEI\u001b]0;owned\u0007\u001b[2J\u009b6n\u007f)"),
              std::string::npos);
}

TEST(HostileScenario, TimesPastTheLongestStoryAreRefused) {
    for (const char* at : {"1e300", "10000001"}) {
        ToolRun run = runQvdevice(
            {"simulate",
             writeScenario("far.json", std::string(R"({"timeline": [{"at": )") + at +
                                           R"(, "add": {"entry": {"id": "a", "class": "C"}}}]})")});
        EXPECT_EQ(run.code, 2) << at;
        EXPECT_NE(run.err.find("timeline[0].at: must be a time from 0 to 10000000 seconds"),
                  std::string::npos)
            << run.err;
    }
}

}  // namespace
