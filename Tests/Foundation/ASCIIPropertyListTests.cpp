#include <gtest/gtest.h>

#include <string>

#include "Foundation/PropertyList.h"
#include "SmallStack.h"

namespace qv {
namespace {

Value read(const std::string& text) {
    auto result = readPropertyList(text);
    EXPECT_TRUE(result.ok()) << text << ": " << result.error;
    return result.value;
}

TEST(ASCIIPropertyListTest, ReadsNestedValuesStringsAndData) {
    const Value v = read(
        "// devices\n"
        "{\n"
        "  name = \"E220 \\\"stick\\\"\";  /* quoted, with escapes */\n"
        "  'single' = 'say \"hi\"';\n"
        "  bare = com.example/path:1.0-beta_$;\n"
        "  id = 4711;\n"
        "  blob = <0fbd77 1c 2735AE>;\n"
        "  empty = <>;\n"
        "  ports = (modem, \"pc ui\", (), {},);\n"
        "  short;\n"
        "  nested = { inner = (1, 2); };\n"
        "}\n");
    ASSERT_TRUE(v.isDictionary());
    std::vector<std::string> keys;
    for (const auto& entry : *v.asDictionary()) {
        keys.push_back(entry.first);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"name", "single", "bare", "id", "blob", "empty",
                                              "ports", "short", "nested"}));
    EXPECT_EQ(v["name"], Value("E220 \"stick\""));
    EXPECT_EQ(v["single"], Value("say \"hi\""));
    EXPECT_EQ(v["bare"], Value("com.example/path:1.0-beta_$"));
    // Numbers stay strings in this form; the reading rules make them numbers.
    EXPECT_EQ(v["id"], Value("4711"));
    EXPECT_EQ(v["id"].intValue(), 4711);
    EXPECT_EQ(v["blob"], Value(Data{0x0f, 0xbd, 0x77, 0x1c, 0x27, 0x35, 0xae}));
    EXPECT_EQ(v["empty"], Value(Data{}));
    EXPECT_EQ(v["ports"].count(), 4u);
    EXPECT_EQ(v["ports"].at(1), Value("pc ui"));
    EXPECT_TRUE(v["ports"].at(3).isDictionary());
    EXPECT_EQ(v["short"], Value("short"));
    EXPECT_EQ(v["nested"]["inner"].at(1), Value("2"));
}

TEST(ASCIIPropertyListTest, DecodesEscapes) {
    EXPECT_EQ(read(R"("\a\b\f\n\r\t\v\\\q")"), Value("\a\b\f\n\r\t\v\\q"));
    // \U takes up to four hex digits of a UTF-16 unit; pairs of surrogates join.
    EXPECT_EQ(read(R"("\U00e9\U20AC\UD83D\UDE00\U41")"),
              Value("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"
                    "A"));
    EXPECT_EQ(read(R"("\UD83Dx\UDE00")"), Value("\xEF\xBF\xBDx\xEF\xBF\xBD"));
    // Octal escapes are NeXTSTEP characters: 0x80 is a no-break space, 0xE8 is Ł.
    EXPECT_EQ(read(R"("\101\12\200\350")"), Value("A\n\xC2\xA0\xC5\x81"));
    EXPECT_EQ(read("\"caf\xC3\xA9\""), Value("caf\xC3\xA9"));
}

TEST(ASCIIPropertyListTest, ReadsStringsFilesAndBareTopLevels) {
    EXPECT_EQ(read("\"greeting\" = \"hello\";\n/* note */ farewell = bye;\nshort;\n"),
              Value(Dictionary{{"greeting", "hello"}, {"farewell", "bye"}, {"short", "short"}}));
    EXPECT_EQ(read("  /* nothing */ \n"), Value(Dictionary{}));
    EXPECT_EQ(read("word"), Value("word"));
    EXPECT_EQ(read("(a, b)"), Value(Array{"a", "b"}));
}

TEST(ASCIIPropertyListTest, RefusesMalformedTextWithTheLine) {
    const char* refused[] = {
        "{ a = b }",       // missing ';'
        "{ a = b; ",       // truncated
        "(a b)",           // missing ','
        "(,)",             // empty element
        "(a,,b)",          //
        "{ = b; }",        // missing key
        "{ (a) = b; }",    // a key must be a string
        "{ a = ; }",       // missing value
        "<0f1>",           // odd number of digits
        "<0 f>",           // blanks inside a byte
        "<zz>",            //
        "\"unterminated",  //
        "\"x\\",           //
        "(a) junk",        // text after the value
        "key = value",     // strings file without ';'
        "a = b; }",        //
        "\xC3(",           // not UTF-8
        "",                //
    };
    for (const char* text : refused) {
        auto result = readASCIIPropertyList(text);
        EXPECT_FALSE(result.ok()) << text;
        EXPECT_TRUE(result.value.isNil()) << text;
    }
    EXPECT_NE(readASCIIPropertyList("{\n a = b;\n c = d\n}").error.find("line 4"),
              std::string::npos);
}

TEST(ASCIIPropertyListTest, BoundsNestingAndRoundTripsThroughXML) {
    runOnSmallStack([] {
        for (const std::string& open : {std::string("("), std::string("{a=")}) {
            std::string deep;
            for (int i = 0; i < 100000; ++i) {
                deep += open;
            }
            auto result = readPropertyList(deep);
            EXPECT_NE(result.error.find("nested deeper"), std::string::npos) << result.error;
        }
    });
    std::string deepest;
    for (int i = 0; i < kMaxNestingDepth; ++i) {
        deepest = "(" + deepest + ")";
    }
    EXPECT_TRUE(readPropertyList(deepest).ok());

    const Value original = read("{ a = (x, <00ff>, { b = \"\\U00e9 & <tag>\"; }); c = (); }");
    auto xml = writeXMLPropertyList(original);
    ASSERT_TRUE(xml.ok()) << xml.error;
    EXPECT_EQ(read(xml.xml), original);
}

}  // namespace
}  // namespace qv
