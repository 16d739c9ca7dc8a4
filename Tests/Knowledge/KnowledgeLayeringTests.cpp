// The built-in tables sit below both the framework and the modem query library: the tables
// include nothing of either, and the modem query library includes only the tables. So the
// dependency runs one way, framework -> modem_query_tools -> tables.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace {

// The quoted includes of every source file in `directory` that do not start with one of `allowed`.
std::vector<std::string> foreignIncludes(const std::string& directory,
                                         const std::vector<std::string>& allowed) {
    const std::regex include(R"(^\s*#\s*include\s*"([^"]+)\")");
    std::vector<std::string> foreign;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        std::ifstream in(entry.path());
        std::string line;
        std::smatch match;
        while (std::getline(in, line)) {
            if (!std::regex_search(line, match, include)) {
                continue;
            }
            const std::string target = match[1];
            bool ok = false;
            for (const auto& prefix : allowed) {
                ok = ok || target.rfind(prefix, 0) == 0;
            }
            if (!ok) {
                foreign.push_back(entry.path().filename().string() + ": " + target);
            }
        }
    }
    return foreign;
}

}  // namespace

TEST(KnowledgeLayering, TablesAndModemQueryToolsIncludeNothingAboveThem) {
    const std::string core = std::string(QV_SOURCE_DIR) + "/CoreLayer";
    EXPECT_EQ(foreignIncludes(core + "/QVDeviceKnowledge", {"QVDeviceKnowledge/"}),
              std::vector<std::string>{});
    EXPECT_EQ(
        foreignIncludes(core + "/modem_query_tools", {"QVDeviceKnowledge/", "ModemQueryTools.h"}),
        std::vector<std::string>{});
}
