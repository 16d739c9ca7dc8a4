#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "Foundation/PropertyList.h"
#include "SmallStack.h"

namespace qv {
namespace {

std::string plist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body +
           "</plist>";
}

std::string nested(const std::string& open, const std::string& close, int levels) {
    std::string text;
    for (int i = 0; i < levels; ++i) {
        text += open;
    }
    for (int i = 0; i < levels; ++i) {
        text += close;
    }
    return text;
}

TEST(XMLPropertyListTest, ReadsEveryTypeKeepingKeyOrder) {
    auto result = readPropertyList(plist(
        "<dict><key>zeta</key><string>a &amp; b</string>"
        "<key>minus</key><integer>-1</integer><key>big</key><integer>9223372036854775807</integer>"
        "<key>least</key><integer>-9223372036854775808</integer><key>hex</key><integer>0x1A</"
        "integer>"
        "<key>real</key><real>2.5</real><key>yes</key><true/><key>no</key><false/>"
        "<key>data</key><data>AAEC/w==</data><key>date</key><date>2001-01-02T00:00:00Z</date>"
        "<key>list</key><array><string>x</string><dict/></array>"
        "<key>zeta</key><string>again</string></dict>"));
    ASSERT_TRUE(result.ok()) << result.error;
    const Value& v = result.value;
    std::vector<std::string> keys;
    for (const auto& entry : *v.asDictionary()) {
        keys.push_back(entry.first);
    }
    // A repeated key keeps its first place and its last value.
    EXPECT_EQ(keys, (std::vector<std::string>{"zeta", "minus", "big", "least", "hex", "real", "yes",
                                              "no", "data", "date", "list"}));
    EXPECT_EQ(v["zeta"], Value("again"));
    EXPECT_EQ(v["minus"].integerValue(), -1);
    EXPECT_EQ(v["big"].integerValue(), INT64_MAX);
    EXPECT_EQ(v["least"].integerValue(), INT64_MIN);
    EXPECT_EQ(v["hex"].integerValue(), 26);
    EXPECT_TRUE(v["real"].isReal());
    EXPECT_EQ(v["real"].doubleValue(), 2.5);
    EXPECT_TRUE(v["yes"].isBoolean() && v["yes"].boolValue());
    EXPECT_FALSE(v["no"].boolValue());
    EXPECT_EQ(v["data"], Value(Data{0, 1, 2, 255}));
    EXPECT_EQ(v["date"], Value(Date{86400.0}));
    EXPECT_EQ(v["list"].count(), 2u);
    EXPECT_TRUE(v["list"].at(1).isDictionary());
}

TEST(XMLPropertyListTest, RefusesWhatItCannotReadFaithfully) {
    const std::string refused[] = {
        plist("<integer>18446744073709551615</integer>"),  // past the signed range
        plist("<integer>9223372036854775808</integer>"),
        plist("<integer>12abc</integer>"),
        plist("<integer></integer>"),
        plist("<array><string>x</string>"),  // truncated
        plist("<dict><integer>1</integer></dict>"),
        plist("<string>\xC3</string>"),      // not UTF-8
        plist("<string>&#xD800;</string>"),  // a reference to a surrogate is no UTF-8 either
        plist(std::string("<string>a\0b</string>", 20)),
        "bplist00\x01\x02",
        "\xFF\xFE<\0?\0",
        "",
    };
    for (const std::string& text : refused) {
        auto result = readPropertyList(text);
        EXPECT_FALSE(result.ok()) << text;
        EXPECT_TRUE(result.value.isNil());
    }
    EXPECT_NE(readPropertyList("bplist00").error.find("binary"), std::string::npos);
}

TEST(XMLPropertyListTest, BoundsNestingWithoutExhaustingTheStack) {
    runOnSmallStack([] {
        const std::string ok = plist(nested("<array>", "</array>", kMaxNestingDepth));
        EXPECT_TRUE(readPropertyList(ok).ok());
        for (int levels : {kMaxNestingDepth + 1, 100000}) {
            auto arrays = readPropertyList(plist(nested("<array>", "</array>", levels)));
            EXPECT_NE(arrays.error.find("nested deeper"), std::string::npos) << arrays.error;
            auto dicts = readPropertyList(plist(nested("<dict><key>k</key>", "</dict>", levels)));
            EXPECT_FALSE(dicts.ok());
            // An attribute does not hide an opening tag.
            auto disguised =
                readPropertyList(plist(nested("<array a=\"/>\">", "</array>", levels)));
            EXPECT_FALSE(disguised.ok());
        }
        // Tags inside comments do not count.
        EXPECT_TRUE(
            readPropertyList(plist("<!--" + nested("<array>", "", 1000) + "--><array/>")).ok());
    });
}

TEST(XMLPropertyListTest, WritesThePlatformLayoutAndReadsItBack) {
    Value value(Dictionary{{"name", "a<b>&c"},
                           {"id", -1},
                           {"ratio", 0.1},
                           {"on", true},
                           {"blob", Data{0, 1, 2}},
                           {"when", Date{3600.0}},
                           {"none", Array{}},
                           {"list", Array{Value(Dictionary{{"k", "v"}}), Value(Dictionary{})}}});
    auto written = writeXMLPropertyList(value);
    ASSERT_TRUE(written.ok()) << written.error;
    EXPECT_EQ(written.xml,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
              "<plist version=\"1.0\">\n<dict>\n"
              "\t<key>name</key>\n\t<string>a&lt;b&gt;&amp;c</string>\n"
              "\t<key>id</key>\n\t<integer>-1</integer>\n"
              "\t<key>ratio</key>\n\t<real>0.1</real>\n"
              "\t<key>on</key>\n\t<true/>\n"
              "\t<key>blob</key>\n\t<data>\n\tAAEC\n\t</data>\n"
              "\t<key>when</key>\n\t<date>2001-01-01T01:00:00Z</date>\n"
              "\t<key>none</key>\n\t<array/>\n"
              "\t<key>list</key>\n\t<array>\n\t\t<dict>\n\t\t\t<key>k</key>\n"
              "\t\t\t<string>v</string>\n\t\t</dict>\n\t\t<dict/>\n\t</array>\n"
              "</dict>\n</plist>\n");
    auto reread = readPropertyList(written.xml);
    ASSERT_TRUE(reread.ok()) << reread.error;
    EXPECT_EQ(reread.value, value);

    Data large(1000);
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<std::uint8_t>(i * 7);
    }
    auto dataRoundTrip = readPropertyList(writeXMLPropertyList(Value(large)).xml);
    EXPECT_EQ(dataRoundTrip.value, Value(large));

    EXPECT_FALSE(writeXMLPropertyList(Value()).ok());
    EXPECT_FALSE(writeXMLPropertyList(Value(Array{Value(), Value(1)})).ok());
    EXPECT_FALSE(writeXMLPropertyList(Value(Date{1e300})).ok());
    // XML cannot carry a NUL character, which the old text form can ("\000").
    EXPECT_FALSE(writeXMLPropertyList(Value(std::string("a\0b", 3))).ok());
}

TEST(XMLPropertyListTest, ReadsFilesAndRefusesMissingOrOversizedOnes) {
    const std::string path = ::testing::TempDir() + "/qv-plist-test.plist";
    { std::ofstream(path) << plist("<array><integer>7</integer></array>"); }
    auto result = readPropertyListFile(path);
    ASSERT_TRUE(result.ok()) << result.error;
    EXPECT_EQ(result.value.at(0).intValue(), 7);
    {
        std::ofstream out(path);
        out << plist("<string>");
        out << std::string(kMaxPropertyListSize, 'x') << "</string>";
    }
    auto huge = readPropertyListFile(path);
    EXPECT_NE(huge.error.find("larger than"), std::string::npos) << huge.error;
    std::remove(path.c_str());

    auto missing = readPropertyListFile(path);
    EXPECT_NE(missing.error.find(path), std::string::npos);
    EXPECT_FALSE(readPropertyListFile(::testing::TempDir()).ok());
}

}  // namespace
}  // namespace qv
