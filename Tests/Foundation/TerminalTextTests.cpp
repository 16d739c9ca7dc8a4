#include "Foundation/TerminalText.h"

#include <gtest/gtest.h>

namespace {

using qv::escapedForTerminal;

TEST(TerminalText, EveryControlIsShownAndOtherTextKept) {
    // C0 controls, DEL, C1 controls in UTF-8 and lone bytes that an 8-bit terminal obeys.
    EXPECT_EQ(escapedForTerminal("a\x1b[2Jb\x07\x7f\n\r\t\x01"),
              "a\\x1b[2Jb\\x07\\x7f\\n\\r\\t\\x01");
    EXPECT_EQ(escapedForTerminal("\xc2\x9b"
                                 "6n \xc2\x80\xc2\x9f"),
              "\\u009b6n \\u0080\\u009f");
    EXPECT_EQ(escapedForTerminal("\x9b"
                                 "6n\xff\xc3"),
              "\\x9b6n\\xff\\xc3");
    // Printable text outside ASCII stays as it is: U+00A0 and up, accents, the euro, emoji.
    EXPECT_EQ(escapedForTerminal("\xc2\xa0\xc3\xa9\xe2\x82\xac\xf0\x9f\x93\xb6"),
              "\xc2\xa0\xc3\xa9\xe2\x82\xac\xf0\x9f\x93\xb6");
    // Sequences cut short or overlong are bytes, each escaped on its own.
    EXPECT_EQ(escapedForTerminal("\xe2\x82"), "\\xe2\\x82");
    EXPECT_EQ(escapedForTerminal("\xc0\x9b"), "\\xc0\\x9b");
    EXPECT_EQ(escapedForTerminal(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(escapedForTerminal("HUAWEI E1750 /dev/cu.ttyUSB0"), "HUAWEI E1750 /dev/cu.ttyUSB0");
}

}  // namespace
