#include <gtest/gtest.h>

#include <string>

#include "Foundation/StringCompare.h"

namespace {

TEST(StringCompareTests, CaseInsensitiveEqualityFoldsUnicodeCase) {
    EXPECT_TRUE(qv::caseInsensitiveEqual("Vodafone K3565-Z", "VODAFONE k3565-z"));
    EXPECT_TRUE(
        qv::caseInsensitiveEqual("stra\xc3\x9f"
                                 "e",
                                 "STRASSE"));
    EXPECT_TRUE(qv::caseInsensitiveEqual("", ""));
    EXPECT_FALSE(qv::caseInsensitiveEqual("K3565", "K3565 "));
    EXPECT_FALSE(qv::caseInsensitiveEqual("YES", std::string_view("YES\0", 4)));
    // Bad UTF-8 is not repaired into a match.
    EXPECT_FALSE(qv::caseInsensitiveEqual("a\xff", "A\xfe"));
    EXPECT_TRUE(qv::caseInsensitiveEqual("a\xff", "a\xff"));
}

}  // namespace
