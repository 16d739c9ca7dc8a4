#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// Literal text at the start of a pattern (or a whole literal pattern) is answered without the
// matcher; every answer must be the matcher's own. Wrapping a pattern in "(?:...)" keeps its
// meaning and hides any literal start, so the wrapped pattern is the reference.
TEST(RegexTests, LiteralShortcutsAnswerAsTheMatcherDoes) {
    const std::vector<std::string> patterns = {"/dev/cu\\.ttyUSB7",
                                               "/dev/cu\\.ttyACM[0-9]+",
                                               "abc",
                                               "ab?c",
                                               "abc+",
                                               "ab*",
                                               "a{2}b",
                                               "ab|cd",
                                               "x\\.y",
                                               "ab\\+",
                                               "a\\\\b",
                                               "a-b_c:d",
                                               "abc$",
                                               "^abc",
                                               "abc.*",
                                               "\\d+",
                                               "(?i)abc",
                                               "a\\|b",
                                               "",
                                               "ab{0}c",
                                               "ab\\?"};
    const std::vector<std::string> subjects = {"",
                                               "a",
                                               "ab",
                                               "abc",
                                               "ac",
                                               "abcc",
                                               "abcd",
                                               "aab",
                                               "cd",
                                               "x.y",
                                               "xzy",
                                               "ab+",
                                               "a\\b",
                                               "a-b_c:d",
                                               "ABC",
                                               "a|b",
                                               "123",
                                               "/dev/cu.ttyUSB7",
                                               "/dev/cu.ttyUSB70",
                                               "/dev/cu.ttyUSB",
                                               "/dev/cu.ttyACM12",
                                               "/dev/cu.ttyACM",
                                               "/dev/cu.ttyACMx",
                                               "ab?",
                                               "ab\xc3\xa9"};
    for (const auto& pattern : patterns) {
        auto regex = qv::Regex::compile(pattern, false);
        auto reference = qv::Regex::compile("(?:" + pattern + ")", false);
        ASSERT_TRUE(regex && reference) << pattern;
        for (const auto& subject : subjects) {
            EXPECT_EQ(regex->matchesWhole(subject), reference->matchesWhole(subject))
                << "pattern " << pattern << " subject " << subject;
        }
    }
    // The letter case of a case-insensitive pattern is not taken literally.
    auto anyCase = qv::Regex::compile("/dev/cu\\.ttyusb0", true);
    ASSERT_TRUE(anyCase);
    EXPECT_TRUE(anyCase->matches("/dev/cu.ttyUSB0"));
}

// The cache answers like a fresh compile, keeps letter-case modes apart, remembers errors, and
// still answers right after patterns have been pushed out by many others.
TEST(RegexTests, CachedPatternsAnswerLikeFreshOnes) {
    auto sensitive = qv::Regex::compileCached("e220", false);
    auto insensitive = qv::Regex::compileCached("e220", true);
    ASSERT_TRUE(sensitive && insensitive);
    EXPECT_FALSE(sensitive->matches("E220"));
    EXPECT_TRUE(insensitive->matches("E220"));
    EXPECT_EQ(qv::Regex::compileCached("e220", false), sensitive);

    std::string first;
    std::string again;
    EXPECT_FALSE(qv::Regex::compileCached("K38(", false, &first));
    EXPECT_FALSE(qv::Regex::compileCached("K38(", false, &again));
    EXPECT_FALSE(first.empty());
    EXPECT_EQ(again, first);

    for (int i = 0; i < 300; ++i) {
        auto numbered = qv::Regex::compileCached("port" + std::to_string(i) + "[a-c]?", i % 2 == 0);
        ASSERT_TRUE(numbered);
        EXPECT_TRUE(numbered->matches("port" + std::to_string(i) + "b"));
        EXPECT_EQ(numbered->matches("PORT" + std::to_string(i)), i % 2 == 0);
    }
    auto back = qv::Regex::compileCached("e220", true);
    ASSERT_TRUE(back);
    EXPECT_TRUE(back->matches("E220"));
}

}  // namespace
