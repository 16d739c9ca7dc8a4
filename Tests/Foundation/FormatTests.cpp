#include <gtest/gtest.h>

#include "Foundation/Format.h"

namespace {

class Named : public qv::Object {
  public:
    std::string description() const override { return "named"; }
};

TEST(Format, PrintfSubsetAndObjects) {
    EXPECT_EQ(qv::format("%d_%i_%s", 4817, -1, "x"), "4817_-1_x");
    EXPECT_EQ(qv::format("%02d|%-4s|%4s|%x", 7, "ab", "cd", 255u), "07|ab  |  cd|ff");
    EXPECT_EQ(qv::format("%.1f %g", 0.25, 30.0), "0.2 30");
    Named named;
    qv::Value dict(qv::Dictionary{{"b", 2}, {"a", "two words"}});
    EXPECT_EQ(qv::format("%@ and %@", named, dict),
              "named and {\n    a = \"two words\";\n    b = 2;\n}");
    std::shared_ptr<Named> none;
    EXPECT_EQ(qv::format("%@ %s", none, nullptr), "(null) (null)");
}

TEST(Format, OutsideTextIsNeverAFormat) {
    // A device string full of directives stays text when passed as an argument, and missing
    // arguments never read past the list.
    std::string hostile = "%s%s%n%@%99999999d";
    EXPECT_EQ(qv::format("%@", hostile), hostile);
    EXPECT_EQ(qv::format("%s %d %@"), "(null) 0 (null)");
    EXPECT_EQ(qv::format("100%% %k"), "100% %k");
    EXPECT_EQ(qv::format("%5000d", 1).size(), 4096u);
}

}  // namespace
