#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Knowledge/QVDeviceDatabaseChecker.h"

namespace {

qv::Value entry(int id, int ancestor) {
    return qv::Dictionary{{"DeviceDatabase.QuorvelID", id},
                          {"DeviceDatabase.AncestorQuorvelID", ancestor}};
}

std::vector<std::string> problemTexts(const qv::Value& root) {
    std::vector<std::string> texts;
    QVDeviceDatabaseChecker checker(root);
    for (const auto& problem : checker.problems()) {
        texts.push_back(problem.text());
    }
    return texts;
}

TEST(QVDeviceDatabaseChecker, LongChainsAndLargeCyclesGiveOneLineEach) {
    qv::Array members;
    for (int id = 1; id <= 40; ++id) {
        members.push_back(entry(id, id == 1 ? -1 : id - 1));
    }
    for (int id = 101; id <= 110; ++id) {
        members.push_back(entry(id, id == 110 ? 101 : id + 1));
    }
    members.push_back(entry(200, 105));  // leads into the cycle: its lookups fail there
    EXPECT_EQ(problemTexts(qv::Value(members)),
              (std::vector<std::string>{
                  "entry #34 (Quorvel ID 34): ancestor chain deeper than 32 entries",
                  "entry #41 (Quorvel ID 101): ancestor cycle 101 -> 102 -> 103 -> 104 -> 105 -> "
                  "106 -> 107 -> 108 -> ... (10 entries) -> 101: a lookup of a key none of them "
                  "has never ends"}));

    EXPECT_EQ(problemTexts(qv::Value("x")),
              (std::vector<std::string>{"file: the root is a string, not a list of entries"}));
    // Escapes keep a hostile key from writing to the terminal.
    qv::Value hostile = entry(5, -1);
    hostile.set("\x1b[2J\"", 1);
    EXPECT_EQ(problemTexts(qv::Value(qv::Array{hostile})),
              (std::vector<std::string>{"entry #1 (Quorvel ID 5): unknown key \"\\x1b[2J\\\"\""}));
}

}  // namespace
