#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Foundation/Value.h"

namespace qv {
namespace {

TEST(ValueTest, FoundationReadingRules) {
    EXPECT_EQ(Value("  42abc").intValue(), 42);
    EXPECT_EQ(Value("-7").intValue(), -7);
    EXPECT_EQ(Value("+12").integerValue(), 12);
    EXPECT_EQ(Value("abc").intValue(), 0);
    EXPECT_EQ(Value("99999999999").intValue(), INT32_MAX);
    EXPECT_EQ(Value("-99999999999999999999").integerValue(), INT64_MIN);
    EXPECT_EQ(Value(2.9).intValue(), 2);
    EXPECT_EQ(Value(true).intValue(), 1);
    EXPECT_EQ(Value(Array{Value(1)}).intValue(), 0);
    EXPECT_EQ(Value().intValue(), 0);

    for (const char* yes : {"YES", "yes", "true", "T", "1", "  +01", "9"}) {
        EXPECT_TRUE(Value(yes).boolValue()) << yes;
    }
    for (const char* no : {"NO", "no", "false", "0", "000", "", "-", "maybe"}) {
        EXPECT_FALSE(Value(no).boolValue()) << no;
    }
    EXPECT_TRUE(Value(-1).boolValue());
    EXPECT_FALSE(Value(0.0).boolValue());

    for (const Value& absent : {Value(), Value(""), Value(Array{}), Value(Dictionary{})}) {
        EXPECT_TRUE(absent.isAbsent()) << absent.description();
    }
    for (const Value& present : {Value(0), Value(false), Value(" "), Value(Array{Value()})}) {
        EXPECT_TRUE(present.isPresent()) << present.description();
    }
    // Lookups through missing keys and non-collections answer nil, as messages to nil do.
    const Value dict(Dictionary{{"a", Value(Array{"x"})}});
    EXPECT_EQ(dict["a"].at(0), Value("x"));
    EXPECT_TRUE(dict["b"]["c"].at(3).isNil());
    EXPECT_TRUE(Value("text")["a"].isNil());
    // Numbers compare by value whatever their kind.
    EXPECT_EQ(Value(1), Value(true));
    EXPECT_EQ(Value(2), Value(2.0));
    EXPECT_NE(Value("2"), Value(2));
}

TEST(ValueTest, LargeDictionariesKeepOrderThroughReplaceAndErase) {
    Dictionary dict;
    const int count = 1000;
    for (int i = 0; i < count; ++i) {
        dict.set("key" + std::to_string(i), Value(i));
    }
    dict.set("key500", Value("replaced"));
    EXPECT_TRUE(dict.erase("key3"));
    EXPECT_FALSE(dict.erase("key3"));
    EXPECT_EQ(dict.size(), static_cast<std::size_t>(count - 1));
    EXPECT_EQ(*dict.find("key500"), Value("replaced"));
    EXPECT_EQ(*dict.find("key999"), Value(999));
    EXPECT_EQ(dict.find("key3"), nullptr);
    int expected = 0;
    for (const auto& [key, value] : dict) {
        if (expected == 3) {
            ++expected;
        }
        EXPECT_EQ(key, "key" + std::to_string(expected));
        ++expected;
    }
    // Erasing below the index threshold and growing again keeps lookups right.
    Dictionary copy = dict;
    while (copy.size() > 5) {
        copy.erase(copy.begin()->first);
    }
    EXPECT_EQ(copy.find("key999")->intValue(), 999);
    EXPECT_EQ(copy.find("key0"), nullptr);
    copy.set("again", Value(1));
    EXPECT_EQ(copy.find("again")->intValue(), 1);
    EXPECT_EQ(dict.size(), static_cast<std::size_t>(count - 1));

    Dictionary reversed;
    for (auto it = dict.end(); it != dict.begin();) {
        --it;
        reversed.set(it->first, it->second);
    }
    EXPECT_EQ(reversed, dict);
    reversed.set("key0", Value(-1));
    EXPECT_FALSE(reversed == dict);
}

// setFirst moves a key to the front (or adds it there) and keeps the rest in order; copies,
// assignments and moves of indexed dictionaries look keys up on their own.
TEST(ValueTest, SetFirstAndCopiesKeepLookupsRight) {
    for (const int count : {3, 16, 40}) {
        Dictionary dict;
        for (int i = 0; i < count; ++i) {
            dict.set("key" + std::to_string(i), Value(i));
        }
        dict.setFirst("key" + std::to_string(count - 1), Value("last"));
        dict.setFirst("new", Value("front"));
        dict.setFirst("new", Value("again"));
        std::vector<std::string> keys;
        for (const auto& entry : dict) {
            keys.push_back(entry.first);
        }
        ASSERT_EQ(keys.size(), static_cast<std::size_t>(count + 1)) << count;
        EXPECT_EQ(keys[0], "new");
        EXPECT_EQ(keys[1], "key" + std::to_string(count - 1));
        for (int i = 0; i + 1 < count; ++i) {
            EXPECT_EQ(keys[static_cast<std::size_t>(i) + 2], "key" + std::to_string(i));
            EXPECT_EQ(dict.find("key" + std::to_string(i))->intValue(), i);
        }
        EXPECT_EQ(*dict.find("new"), Value("again"));
        EXPECT_EQ(*dict.find("key" + std::to_string(count - 1)), Value("last"));

        Dictionary copy(dict);
        Dictionary assigned;
        assigned.set("stale", Value(1));
        assigned = dict;
        dict.set("key0", Value("changed"));
        dict.erase("new");
        for (const Dictionary* other : {&copy, &assigned}) {
            EXPECT_EQ(other->size(), static_cast<std::size_t>(count + 1));
            EXPECT_EQ(*other->find("new"), Value("again"));
            EXPECT_EQ(other->find("key0")->intValue(), 0);
            EXPECT_EQ(other->find("stale"), nullptr);
        }
        Dictionary moved(std::move(copy));
        EXPECT_EQ(moved.find("key1")->intValue(), 1);
        EXPECT_EQ(*dict.find("key0"), Value("changed"));
        EXPECT_EQ(dict.find("new"), nullptr);
    }
}

}  // namespace
}  // namespace qv
