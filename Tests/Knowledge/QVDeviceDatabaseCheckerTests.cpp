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

// A layout against what the model's driver gives: more ports than ttys, a position past the last
// tty (main or alternative pattern), interface lists that do not fit the ports.
TEST(QVDeviceDatabaseChecker, LayoutsNamingMorePortsThanTheDriverGives) {
    auto stick = [](int id, int driverPorts) {
        qv::Value value = entry(id, -1);
        value.set("DeviceDatabase.PortIdentificationStrategy", "ByPortNumber");
        value.set("DeviceDatabase.Pattern.Port-0", "1");
        value.set("DeviceDatabase.Capabilities.Port-0", "DataTransport");
        value.set("DeviceDatabase.Pattern.Port-1", "3");
        value.set("DeviceDatabase.PatternAlternative-0.Port-1", "2");
        value.set("DeviceDatabase.Capabilities.Port-1", "NetworkQuery");
        value.set("DeviceDatabase.Interfaces", qv::Array{2, 4});
        value.set("DeviceDatabase.DriverPortCount", driverPorts);
        return value;
    };
    // Four ttys: positions 1, 3 and 2 all exist.
    EXPECT_TRUE(problemTexts(qv::Value(qv::Array{stick(1, 4)})).empty());
    // Three: position 3 is past the last.
    EXPECT_EQ(problemTexts(qv::Value(qv::Array{stick(1, 3)})),
              (std::vector<std::string>{"entry #1 (Quorvel ID 1): DeviceDatabase.Pattern.Port-1 "
                                        "is position 3, past the last of the 3 ports the "
                                        "model's driver gives"}));
    // One: two ports described, and every position past the last.
    EXPECT_EQ(problemTexts(qv::Value(qv::Array{stick(1, 1)})).size(), 4u);
    EXPECT_EQ(problemTexts(qv::Value(qv::Array{stick(1, 1)}))[0],
              "entry #1 (Quorvel ID 1): the layout names 2 ports, but the model's driver gives 1");
    // A child that inherits the layout and says its driver gives fewer ports is reported itself.
    qv::Value child = entry(2, 1);
    child.set("DeviceDatabase.DriverPortCount", 2);
    auto texts = problemTexts(qv::Value(qv::Array{stick(1, 4), child}));
    ASSERT_EQ(texts.size(), 2u);
    for (const std::string& text : texts) {
        EXPECT_EQ(text.rfind("entry #2 (Quorvel ID 2): DeviceDatabase.Pattern", 0), 0u) << text;
        EXPECT_NE(text.find("past the last of the 2 ports"), std::string::npos) << text;
    }
    // Interface lists: one number per described port.
    qv::Value wrong = stick(1, 4);
    wrong.set("DeviceDatabase.Interfaces", qv::Array{2});
    EXPECT_EQ(problemTexts(qv::Value(qv::Array{wrong})),
              (std::vector<std::string>{"entry #1 (Quorvel ID 1): DeviceDatabase.Interfaces names "
                                        "1 interfaces for 2 described ports"}));
    wrong.set("DeviceDatabase.Interfaces", "2, 4");
    wrong.set("DeviceDatabase.DriverPortCount", "many");
    EXPECT_EQ(problemTexts(qv::Value(qv::Array{wrong})),
              (std::vector<std::string>{
                  "entry #1 (Quorvel ID 1): DeviceDatabase.Interfaces is a string, not a list of "
                  "interface numbers",
                  "entry #1 (Quorvel ID 1): DeviceDatabase.DriverPortCount is \"many\", not a "
                  "number of ports"}));
}

}  // namespace
