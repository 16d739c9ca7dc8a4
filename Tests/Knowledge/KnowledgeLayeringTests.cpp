// The built-in tables sit below both the framework and the modem query library: the tables
// include nothing of either, and the modem query library includes only the tables. So the
// dependency runs one way, framework -> modem_query_tools -> tables.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

// The file named by a line `#include "FILE"` (blanks allowed around `#`), or "" for any other line.
std::string quotedInclude(const std::string& line) {
    std::size_t at = line.find_first_not_of(" \t");
    if (at == std::string::npos || line[at] != '#') {
        return {};
    }
    at = line.find_first_not_of(" \t", at + 1);
    if (at == std::string::npos || line.compare(at, 7, "include") != 0) {
        return {};
    }
    at = line.find_first_not_of(" \t", at + 7);
    if (at == std::string::npos || line[at] != '"') {
        return {};
    }
    const std::size_t close = line.find('"', at + 1);
    return close == std::string::npos ? std::string() : line.substr(at + 1, close - at - 1);
}

// The quoted includes of every source file in `directory` that do not start with one of `allowed`.
std::vector<std::string> foreignIncludes(const std::string& directory,
                                         const std::vector<std::string>& allowed) {
    std::vector<std::string> foreign;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        std::ifstream in(entry.path());
        std::string line;
        while (std::getline(in, line)) {
            const std::string target = quotedInclude(line);
            if (target.empty()) {
                continue;
            }
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
