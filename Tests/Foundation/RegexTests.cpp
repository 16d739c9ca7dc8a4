#include <gtest/gtest.h>

#include <string>

#include "Foundation/Regex.h"

namespace {

TEST(RegexTests, MatchesTheWholeSubjectWithTheRequestedCase) {
    auto k38 = qv::Regex::compile("K38.*", false);
    ASSERT_TRUE(k38);
    EXPECT_EQ(k38->matchesWhole("K3805-Z"), qv::Regex::Result::Match);
    EXPECT_EQ(k38->matchesWhole("LM K3805-Z"), qv::Regex::Result::NoMatch);
    EXPECT_EQ(k38->matchesWhole("k3805-z"), qv::Regex::Result::NoMatch);
    EXPECT_EQ(k38->matchesWhole(""), qv::Regex::Result::NoMatch);

    auto anyCase = qv::Regex::compile("e1[0-9]{2}", true);
    ASSERT_TRUE(anyCase);
    EXPECT_TRUE(anyCase->matches("E172"));
    EXPECT_FALSE(anyCase->matches("E1720"));

    // ICU syntax, UTF-8 subjects counted by character.
    auto unicode = qv::Regex::compile("\\p{L}{3}\\d", false);
    ASSERT_TRUE(unicode);
    EXPECT_TRUE(
        unicode->matches("\xc3\xa4\xc3\xb6\xc3\xbc"
                         "1"));
    EXPECT_EQ(unicode->pattern(), "\\p{L}{3}\\d");
}

TEST(RegexTests, BadPatternsAndHostileSubjectsGiveErrorsNotHangs) {
    std::string error;
    EXPECT_FALSE(qv::Regex::compile("K38(", false, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(qv::Regex::compile("[z-a]", false));
    EXPECT_FALSE(qv::Regex::compile(std::string("\xff*"), false, &error));

    auto regex = qv::Regex::compile(".*", false);
    ASSERT_TRUE(regex);
    EXPECT_EQ(regex->matchesWhole(std::string("ab\xc3(")), qv::Regex::Result::Error);

    // Catastrophic backtracking stops at the work limit.
    auto exponential = qv::Regex::compile("(a|aa)+$", false);
    ASSERT_TRUE(exponential);
    EXPECT_EQ(exponential->matchesWhole(std::string(60, 'a') + "b"), qv::Regex::Result::Error);
}

}  // namespace
