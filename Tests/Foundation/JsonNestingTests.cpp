// JSON from outside nested deeper than any reader needs is refused before it is parsed, with its
// place, whatever reader it is handed to: the parsed value's copies and walks recurse per level.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "Foundation/JsonNesting.h"
#include "Foundation/JsonValue.h"
#include "IOKit/ScriptedTimeline.h"
#include "QVGsmKit/ModemModelTable.h"
#include "SmallStack.h"

namespace qv {
namespace {

std::string nested(std::size_t depth, const std::string& inner = "1") {
    return std::string(depth, '[') + inner + std::string(depth, ']');
}

TEST(JsonNesting, CountsBracketsOutsideStringsAndNamesThePlace) {
    EXPECT_EQ(jsonNestingProblem(nested(kMaxJsonNesting)), std::nullopt);
    EXPECT_EQ(jsonNestingProblem(nested(kMaxJsonNesting + 1)),
              "nested deeper than 256 levels at line 1, column 257");
    EXPECT_EQ(jsonNestingProblem("{\"a\":\n  [[[", 2),
              "nested deeper than 2 levels at line 2, column 4");
    // Siblings do not add up; brackets in strings, escaped quotes included, are text.
    EXPECT_EQ(jsonNestingProblem("[[1],[2],{\"k\":[3]}]", 3), std::nullopt);
    EXPECT_EQ(jsonNestingProblem(R"(["[[[[", "\"[[[[", {"{{{{": "\\"}])", 2), std::nullopt);
    EXPECT_EQ(jsonNestingProblem(R"(["\\", [[[]]]])", 2),
              "nested deeper than 2 levels at line 1, column 9");
    // Text that is not JSON at all is left to the parser: stray closers do not go below zero.
    EXPECT_EQ(jsonNestingProblem("]]]]][[[", 3), std::nullopt);
    EXPECT_EQ(jsonNestingProblem("", 1), std::nullopt);
}

TEST(JsonNesting, EveryJsonReaderRefusesDeepTextWithoutOverflowingTheStack) {
    runOnSmallStack([] {
        const std::string deepArray = nested(100000);
        const std::string deepObject = [] {
            std::string text;
            for (int i = 0; i < 100000; ++i) {
                text += "{\"k\":";
            }
            text += "1";
            text += std::string(100000, '}');
            return text;
        }();
        for (const std::string* text : {&deepArray, &deepObject}) {
            std::string error;
            EXPECT_FALSE(parseJsonText(*text, &error));
            EXPECT_NE(error.find("nested deeper than 256 levels at line 1"), std::string::npos)
                << error;
            std::string reason;
            EXPECT_FALSE(ModemModelTable::fromJsonText(*text, &reason));
            EXPECT_NE(reason.find("nested deeper"), std::string::npos) << reason;
        }
        const std::string path = ::testing::TempDir() + "/qv-deep-timeline.json";
        std::ofstream(path) << "{\"timeline\": [{\"at\": 1, \"add\": {\"entry\": {\"id\": \"a\", "
                               "\"class\": \"C\", \"properties\": {\"x\": "
                            << deepArray << "}}}}]}";
        std::string error;
        EXPECT_FALSE(ScriptedTimeline::fromFile(path, &error));
        EXPECT_EQ(error, path + ": nested deeper than 256 levels at line 1, column 338");
        std::remove(path.c_str());
    });
    // The bound is generous for what the readers are given.
    std::string error;
    ASSERT_TRUE(parseJsonText(nested(kMaxJsonNesting), &error)) << error;
    EXPECT_FALSE(parseJsonText("{\"a\": }", &error));
    EXPECT_EQ(error.rfind("not valid JSON: parse error at line 1, column 7", 0), 0u) << error;
}

}  // namespace
}  // namespace qv
