// qv::Value: one property-list value (what NSString, NSNumber, NSData, NSDate, NSArray and
// NSDictionary were to the original framework), with Foundation's reading rules.
// Values are plain C++ values: copying one copies the tree. Not thread-safe; each thread owns
// its own values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace qv {

class Value;

using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;

// A moment as seconds since 2001-01-01 00:00:00 UTC, the platform's reference date.
struct Date {
    double secondsSinceReferenceDate = 0.0;
    bool operator==(const Date&) const = default;
};

// A dictionary that keeps its keys in insertion order (property lists written by people are
// read back in the order they were written). Keys are unique; setting an existing key replaces
// its value in place. Past a few entries a hash index keeps lookups constant-time, so building a
// large dictionary from a file is linear.
class Dictionary {
  public:
    using Entry = std::pair<std::string, Value>;

    Dictionary() = default;
    Dictionary(std::initializer_list<Entry> entries);
    Dictionary(const Dictionary& other);
    Dictionary& operator=(const Dictionary& other);
    Dictionary(Dictionary&&) noexcept = default;
    Dictionary& operator=(Dictionary&&) noexcept = default;
    ~Dictionary() = default;

    const Value* find(std::string_view key) const;
    Value* find(std::string_view key);
    bool contains(std::string_view key) const { return find(key) != nullptr; }
    void set(std::string key, Value value);
    // For a key the caller has made unique (a record's numbered keys): appended without the
    // search set() makes, and without building the lookup index for a dictionary that is about
    // to be written out rather than searched. Lookups stay correct either way.
    void addNew(std::string key, Value value);
    // Sets the key's value and gives the key the first place; the other keys keep their order.
    void setFirst(std::string key, Value value);
    bool erase(std::string_view key);
    void clear();
    // Room for `count` entries, for a dictionary about to be filled.
    void reserve(std::size_t count);
    std::size_t size() const;
    bool empty() const;

    std::vector<Entry>::const_iterator begin() const;
    std::vector<Entry>::const_iterator end() const;

    // Equality ignores order, as NSDictionary's does.
    bool operator==(const Dictionary& other) const;

  private:
    struct KeyHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view key) const {
            return std::hash<std::string_view>{}(key);
        }
    };
    using Index = std::unordered_map<std::string, std::size_t, KeyHash, std::equal_to<>>;
    static constexpr std::size_t kIndexThreshold = 16;

    std::ptrdiff_t position(std::string_view key) const;
    void rebuildIndex();

    bool indexed() const { return index_ != nullptr && !index_->empty(); }

    std::vector<Entry> entries_;
    // key -> position in entries_: either absent or empty (a small dictionary, or one filled by
    // addNew) or complete. Held apart so that a value, and each entry of every dictionary, stays
    // small.
    std::unique_ptr<Index> index_;
};

class Value {
  public:
    enum class Type { Nil, String, Integer, Real, Boolean, Data, Date, Array, Dictionary };

    Value() = default;
    Value(std::nullptr_t) {}
    Value(const char* s);
    Value(std::string s);
    Value(std::string_view s);
    Value(int i);
    Value(long i);
    Value(long long i);
    Value(unsigned int i);
    Value(double d);
    Value(bool b);
    Value(qv::Data d);
    Value(qv::Date d);
    Value(qv::Array a);
    Value(qv::Dictionary d);

    static Value integer(std::int64_t i) { return Value(static_cast<long long>(i)); }

    Type type() const;
    bool isNil() const { return type() == Type::Nil; }
    bool isString() const { return type() == Type::String; }
    bool isInteger() const { return type() == Type::Integer; }
    bool isReal() const { return type() == Type::Real; }
    bool isBoolean() const { return type() == Type::Boolean; }
    bool isNumber() const { return isInteger() || isReal() || isBoolean(); }
    bool isData() const { return type() == Type::Data; }
    bool isDate() const { return type() == Type::Date; }
    bool isArray() const { return type() == Type::Array; }
    bool isDictionary() const { return type() == Type::Dictionary; }

    // Typed access: nullptr when the value is of another type.
    const std::string* asString() const;
    const qv::Data* asData() const;
    const qv::Date* asDate() const;
    const qv::Array* asArray() const;
    qv::Array* asArray();
    const qv::Dictionary* asDictionary() const;
    qv::Dictionary* asDictionary();

    // Foundation's reading rules. A number answers its value; a string answers the number it
    // starts with (leading blanks, a sign and digits; 0 when there are none; clamped to the
    // range); anything else answers 0 / NO, as a message to nil would.
    std::int64_t integerValue() const;
    std::int32_t intValue() const;
    double doubleValue() const;
    // YES for a non-zero number; for a string, YES when it starts (after blanks, a sign and
    // zeros) with Y, y, T, t or a digit 1-9, so "YES" and "1" are YES and "NO" and "0" are NO.
    bool boolValue() const;
    // The string itself, a number in decimal, or "" for anything else.
    std::string stringValue() const;

    // Absent: nil, a string of length 0, or a collection with no members.
    bool isAbsent() const;
    bool isPresent() const { return !isAbsent(); }

    // Count of a string's characters in UTF-16 units, or of a collection's members; 0 otherwise.
    std::size_t count() const;

    // Lookups that answer nil for a missing key, an index out of range or a value that is not a
    // collection: a message to nil answers nil.
    const Value& operator[](std::string_view key) const;
    const Value& at(std::size_t index) const;

    // Mutation. set() turns a nil value into an empty dictionary first, append() into an array.
    void set(std::string key, Value value);
    void append(Value value);

    bool operator==(const Value& other) const;

    // The platform's description text: a string as itself, numbers in decimal, collections in
    // the old-style property-list form with four-space indentation and keys in ascending order.
    std::string description() const;

    static const Value& nil();

  private:
    using Storage = std::variant<std::monostate, std::string, long long, double, bool, qv::Data,
                                 qv::Date, qv::Array, qv::Dictionary>;
    Storage storage_;
};

// Description of a string inside a collection: quoted unless it is a plain word.
std::string quotedDescription(std::string_view s);

}  // namespace qv
