#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "Foundation/JsonValue.h"

namespace qv {
namespace {

// Strings mixing plain text with the bytes a writer can get wrong: quotes, backslashes, control
// characters, DEL, UTF-8, and bytes that are not UTF-8.
std::string randomText(std::mt19937& random) {
    static const std::string pieces[] = {"ttyUSB0",
                                         "\"",
                                         "\\",
                                         "\n",
                                         "\t",
                                         "\x01",
                                         "\x1f",
                                         "\x7f",
                                         "\xc2\x9b",
                                         "\xc2\x85",
                                         "\xc2\xa0",
                                         "\xc3\xa9",
                                         "\xe2\x82\xac",
                                         "\xf0\x9f\x93\xb6",
                                         "\xff",
                                         "\xc3",
                                         " ",
                                         "/dev/cu.",
                                         "capability-00"};
    std::string text;
    const int count = static_cast<int>(random() % 5);
    for (int i = 0; i < count; ++i) {
        text += pieces[random() % std::size(pieces)];
    }
    return text;
}

Value randomValue(std::mt19937& random, int depth) {
    switch (random() % (depth < 3 ? 10 : 7)) {
        case 0:
            return Value();
        case 1:
            return Value(randomText(random));
        case 2: {
            const long long integers[] = {0,
                                          -1,
                                          42,
                                          0x1A000000,
                                          std::numeric_limits<long long>::min(),
                                          std::numeric_limits<long long>::max()};
            return Value(integers[random() % std::size(integers)]);
        }
        case 3: {
            const double reals[] = {0.5, -0.0,         1e300,
                                    0.1, std::nan(""), std::numeric_limits<double>::infinity()};
            return Value(reals[random() % std::size(reals)]);
        }
        case 4:
            return Value(random() % 2 == 0);
        case 5:
            return Value(Data{0x00, 0xff, static_cast<std::uint8_t>(random())});
        case 6:
            return Value(Date{12.25});
        case 7:
        case 8: {
            Dictionary dictionary;
            const int count = static_cast<int>(random() % 4);
            for (int i = 0; i < count; ++i) {
                dictionary.set(randomText(random) + std::to_string(i),
                               randomValue(random, depth + 1));
            }
            return Value(std::move(dictionary));
        }
        default: {
            Array array;
            const int count = static_cast<int>(random() % 4);
            for (int i = 0; i < count; ++i) {
                array.push_back(randomValue(random, depth + 1));
            }
            return Value(std::move(array));
        }
    }
}

// The direct writer must print exactly what the JSON library prints for the converted value, or
// the device records of the tools' lines would differ from every other field.
TEST(JsonTextTest, WritesWhatTheJsonLibraryPrints) {
    std::mt19937 random(11);
    for (int round = 0; round < 3000; ++round) {
        const Value value = randomValue(random, 0);
        const std::string expected = jsonLineText(jsonFromValue(value));
        ASSERT_EQ(jsonTextFromValue(value), expected) << "round " << round;
    }
    std::string out = "prefix ";
    appendJsonText(out, Value(Dictionary{{"a", Value(1)}}));
    EXPECT_EQ(out, R"(prefix {"a":1})");
}

// A line read on a terminal carries no control character of any kind: the JSON library escapes
// C0 controls but writes DEL and the C1 controls (CSI is U+009B) as they are.
TEST(JsonTextTest, LinesCarryNoControlCharacters) {
    const Value hostile(Dictionary{{"name\x7f", Value("\x1b[31mred\x07\xc2\x9b"
                                                      "2J\xc2\x85\xc2\xa0")}});
    const std::string line = jsonTextFromValue(hostile);
    EXPECT_EQ(line, "{\"name\\u007f\":\"\\u001b[31mred\\u0007\\u009b2J\\u0085\xc2\xa0\"}");
    EXPECT_EQ(jsonLineText(jsonFromValue(hostile)), line);
    EXPECT_EQ(Json::parse(line), jsonFromValue(hostile)) << "still the same JSON";
}

}  // namespace
}  // namespace qv
