#include "Value.h"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

namespace qv {

// ---- Dictionary ----

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    entries_.reserve(entries.size());
    for (const auto& e : entries) {
        set(e.first, e.second);
    }
}

Dictionary::Dictionary(const Dictionary& other)
    : entries_(other.entries_),
      index_(other.indexed() ? std::make_unique<Index>(*other.index_) : nullptr) {}

Dictionary& Dictionary::operator=(const Dictionary& other) {
    if (this != &other) {
        entries_ = other.entries_;
        index_ = other.indexed() ? std::make_unique<Index>(*other.index_) : nullptr;
    }
    return *this;
}

std::ptrdiff_t Dictionary::position(std::string_view key) const {
    if (indexed()) {
        auto it = index_->find(key);
        return it == index_->end() ? -1 : static_cast<std::ptrdiff_t>(it->second);
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i].first == key) {
            return static_cast<std::ptrdiff_t>(i);
        }
    }
    return -1;
}

void Dictionary::rebuildIndex() {
    index_.reset();
    if (entries_.size() <= kIndexThreshold) {
        return;
    }
    index_ = std::make_unique<Index>();
    index_->reserve(entries_.size());
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        index_->emplace(entries_[i].first, i);
    }
}

const Value* Dictionary::find(std::string_view key) const {
    std::ptrdiff_t i = position(key);
    return i < 0 ? nullptr : &entries_[static_cast<std::size_t>(i)].second;
}

Value* Dictionary::find(std::string_view key) {
    std::ptrdiff_t i = position(key);
    return i < 0 ? nullptr : &entries_[static_cast<std::size_t>(i)].second;
}

void Dictionary::set(std::string key, Value value) {
    if (Value* existing = find(key)) {
        *existing = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
    if (indexed()) {
        index_->emplace(entries_.back().first, entries_.size() - 1);
    } else if (entries_.size() > kIndexThreshold) {
        rebuildIndex();
    }
}

void Dictionary::addNew(std::string key, Value value) {
    assert(find(key) == nullptr);
    entries_.emplace_back(std::move(key), std::move(value));
    if (indexed()) {
        index_->emplace(entries_.back().first, entries_.size() - 1);
    }
}

void Dictionary::setFirst(std::string key, Value value) {
    const std::ptrdiff_t i = position(key);
    if (i < 0) {
        entries_.emplace(entries_.begin(), std::move(key), std::move(value));
    } else {
        entries_[static_cast<std::size_t>(i)].second = std::move(value);
        std::rotate(entries_.begin(), entries_.begin() + i, entries_.begin() + i + 1);
    }
    if (i != 0 && (indexed() || entries_.size() > kIndexThreshold)) {
        rebuildIndex();
    }
}

bool Dictionary::erase(std::string_view key) {
    std::ptrdiff_t i = position(key);
    if (i < 0) {
        return false;
    }
    entries_.erase(entries_.begin() + i);
    if (indexed()) {
        rebuildIndex();
    }
    return true;
}

// Out of line: Value is still incomplete where Dictionary is declared.
void Dictionary::reserve(std::size_t count) {
    entries_.reserve(count);
}

void Dictionary::clear() {
    entries_.clear();
    index_.reset();
}
std::size_t Dictionary::size() const {
    return entries_.size();
}
bool Dictionary::empty() const {
    return entries_.empty();
}
std::vector<Dictionary::Entry>::const_iterator Dictionary::begin() const {
    return entries_.begin();
}
std::vector<Dictionary::Entry>::const_iterator Dictionary::end() const {
    return entries_.end();
}

bool Dictionary::operator==(const Dictionary& other) const {
    if (size() != other.size()) {
        return false;
    }
    for (const auto& e : entries_) {
        const Value* o = other.find(e.first);
        if (o == nullptr || !(*o == e.second)) {
            return false;
        }
    }
    return true;
}

// ---- Value ----

Value::Value(const char* s) : storage_(std::string(s != nullptr ? s : "")) {
    if (s == nullptr) {
        storage_ = std::monostate{};
    }
}
Value::Value(std::string s) : storage_(std::move(s)) {}
Value::Value(std::string_view s) : storage_(std::string(s)) {}
Value::Value(int i) : storage_(static_cast<long long>(i)) {}
Value::Value(long i) : storage_(static_cast<long long>(i)) {}
Value::Value(long long i) : storage_(i) {}
Value::Value(unsigned int i) : storage_(static_cast<long long>(i)) {}
Value::Value(double d) : storage_(d) {}
Value::Value(bool b) : storage_(b) {}
Value::Value(qv::Data d) : storage_(std::move(d)) {}
Value::Value(qv::Date d) : storage_(d) {}
Value::Value(qv::Array a) : storage_(std::move(a)) {}
Value::Value(qv::Dictionary d) : storage_(std::move(d)) {}

Value::Type Value::type() const {
    return static_cast<Type>(storage_.index());
}

const std::string* Value::asString() const {
    return std::get_if<std::string>(&storage_);
}
const qv::Data* Value::asData() const {
    return std::get_if<qv::Data>(&storage_);
}
const qv::Date* Value::asDate() const {
    return std::get_if<qv::Date>(&storage_);
}
const qv::Array* Value::asArray() const {
    return std::get_if<qv::Array>(&storage_);
}
qv::Array* Value::asArray() {
    return std::get_if<qv::Array>(&storage_);
}
const qv::Dictionary* Value::asDictionary() const {
    return std::get_if<qv::Dictionary>(&storage_);
}
qv::Dictionary* Value::asDictionary() {
    return std::get_if<qv::Dictionary>(&storage_);
}

namespace {

// NSString's integer scan: blanks, an optional sign, then decimal digits; saturates.
long long scanInteger(const std::string& s, long long min, long long max) {
    std::size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i])) != 0) {
        ++i;
    }
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
        negative = s[i] == '-';
        ++i;
    }
    long long value = 0;
    bool saturated = false;
    for (; i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])) != 0; ++i) {
        if (saturated) {
            continue;
        }
        int digit = s[i] - '0';
        if (!negative) {
            if (value > (max - digit) / 10) {
                value = max;
                saturated = true;
            } else {
                value = value * 10 + digit;
            }
        } else {
            if (value < (min + digit) / 10) {
                value = min;
                saturated = true;
            } else {
                value = value * 10 - digit;
            }
        }
    }
    return value;
}

long long clampDouble(double d, long long min, long long max) {
    if (std::isnan(d)) {
        return 0;
    }
    if (d <= static_cast<double>(min)) {
        return min;
    }
    if (d >= static_cast<double>(max)) {
        return max;
    }
    return static_cast<long long>(d);
}

}  // namespace

std::int64_t Value::integerValue() const {
    constexpr long long kMin = std::numeric_limits<long long>::min();
    constexpr long long kMax = std::numeric_limits<long long>::max();
    switch (type()) {
        case Type::Integer:
            return std::get<long long>(storage_);
        case Type::Real:
            return clampDouble(std::get<double>(storage_), kMin, kMax);
        case Type::Boolean:
            return std::get<bool>(storage_) ? 1 : 0;
        case Type::String:
            return scanInteger(std::get<std::string>(storage_), kMin, kMax);
        default:
            return 0;
    }
}

std::int32_t Value::intValue() const {
    constexpr long long kMin = std::numeric_limits<std::int32_t>::min();
    constexpr long long kMax = std::numeric_limits<std::int32_t>::max();
    switch (type()) {
        case Type::Integer:
            // NSNumber's intValue of a wider integer keeps the low 32 bits.
            return static_cast<std::int32_t>(
                static_cast<std::uint32_t>(std::get<long long>(storage_) & 0xffffffffLL));
        case Type::Real:
            return static_cast<std::int32_t>(clampDouble(std::get<double>(storage_), kMin, kMax));
        case Type::Boolean:
            return std::get<bool>(storage_) ? 1 : 0;
        case Type::String:
            return static_cast<std::int32_t>(
                scanInteger(std::get<std::string>(storage_), kMin, kMax));
        default:
            return 0;
    }
}

double Value::doubleValue() const {
    switch (type()) {
        case Type::Integer:
            return static_cast<double>(std::get<long long>(storage_));
        case Type::Real:
            return std::get<double>(storage_);
        case Type::Boolean:
            return std::get<bool>(storage_) ? 1.0 : 0.0;
        case Type::String: {
            const std::string& s = std::get<std::string>(storage_);
            char* end = nullptr;
            double d = std::strtod(s.c_str(), &end);
            return end == s.c_str() ? 0.0 : d;
        }
        default:
            return 0.0;
    }
}

bool Value::boolValue() const {
    switch (type()) {
        case Type::Integer:
            return std::get<long long>(storage_) != 0;
        case Type::Real:
            return std::get<double>(storage_) != 0.0;
        case Type::Boolean:
            return std::get<bool>(storage_);
        case Type::String: {
            const std::string& s = std::get<std::string>(storage_);
            std::size_t i = 0;
            while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i])) != 0) {
                ++i;
            }
            if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
                ++i;
            }
            while (i < s.size() && s[i] == '0') {
                ++i;
            }
            if (i >= s.size()) {
                return false;
            }
            char c = s[i];
            return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
        }
        default:
            return false;
    }
}

namespace {

std::string realDescription(double d) {
    if (std::isfinite(d) && d == std::floor(d) && std::fabs(d) < 1e15) {
        return std::to_string(static_cast<long long>(d));
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", d);
    // Prefer the shortest text that reads back as the same number.
    for (int precision = 1; precision <= 17; ++precision) {
        char shorter[64];
        std::snprintf(shorter, sizeof shorter, "%.*g", precision, d);
        if (std::strtod(shorter, nullptr) == d) {
            return shorter;
        }
    }
    return buf;
}

}  // namespace

std::string Value::stringValue() const {
    switch (type()) {
        case Type::String:
            return std::get<std::string>(storage_);
        case Type::Integer:
            return std::to_string(std::get<long long>(storage_));
        case Type::Real:
            return realDescription(std::get<double>(storage_));
        case Type::Boolean:
            return std::get<bool>(storage_) ? "1" : "0";
        default:
            return {};
    }
}

bool Value::isAbsent() const {
    switch (type()) {
        case Type::Nil:
            return true;
        case Type::String:
            return std::get<std::string>(storage_).empty();
        case Type::Array:
            return std::get<qv::Array>(storage_).empty();
        case Type::Dictionary:
            return std::get<qv::Dictionary>(storage_).empty();
        case Type::Data:
            return std::get<qv::Data>(storage_).empty();
        default:
            return false;
    }
}

std::size_t Value::count() const {
    switch (type()) {
        case Type::String: {
            std::size_t units = 0;
            for (unsigned char c : std::get<std::string>(storage_)) {
                if ((c & 0xC0) != 0x80) {
                    units += (c >= 0xF0) ? 2 : 1;  // four-byte sequences are surrogate pairs
                }
            }
            return units;
        }
        case Type::Array:
            return std::get<qv::Array>(storage_).size();
        case Type::Dictionary:
            return std::get<qv::Dictionary>(storage_).size();
        case Type::Data:
            return std::get<qv::Data>(storage_).size();
        default:
            return 0;
    }
}

const Value& Value::nil() {
    static const Value kNil;
    return kNil;
}

const Value& Value::operator[](std::string_view key) const {
    if (const auto* dict = asDictionary()) {
        if (const Value* v = dict->find(key)) {
            return *v;
        }
    }
    return nil();
}

const Value& Value::at(std::size_t index) const {
    if (const auto* array = asArray()) {
        if (index < array->size()) {
            return (*array)[index];
        }
    }
    return nil();
}

void Value::set(std::string key, Value value) {
    if (isNil()) {
        storage_ = qv::Dictionary{};
    }
    if (auto* dict = asDictionary()) {
        dict->set(std::move(key), std::move(value));
    }
}

void Value::append(Value value) {
    if (isNil()) {
        storage_ = qv::Array{};
    }
    if (auto* array = asArray()) {
        array->push_back(std::move(value));
    }
}

bool Value::operator==(const Value& other) const {
    // Numbers compare by value across integer, real and boolean, as NSNumber does.
    if (isNumber() && other.isNumber()) {
        if (isReal() || other.isReal()) {
            return doubleValue() == other.doubleValue();
        }
        return integerValue() == other.integerValue();
    }
    return storage_ == other.storage_;
}

std::string quotedDescription(std::string_view s) {
    bool plain = !s.empty();
    for (unsigned char c : s) {
        if (std::isalnum(c) == 0 && c != '_' && c != '.' && c != '$' && c != '/' && c != ':') {
            plain = false;
            break;
        }
    }
    if (plain) {
        return std::string(s);
    }
    std::string out = "\"";
    for (char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += c;
        }
    }
    out += '"';
    return out;
}

namespace {

std::string dateDescription(const Date& d) {
    // 978307200 is the Unix time of the reference date.
    double unix = d.secondsSinceReferenceDate + 978307200.0;
    std::time_t t = static_cast<std::time_t>(std::floor(unix));
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
    return buf;
}

void describe(const Value& v, int indent, bool nested, std::string& out) {
    const std::string pad(static_cast<std::size_t>(indent) * 4, ' ');
    switch (v.type()) {
        case Value::Type::Nil:
            out += "(null)";
            break;
        case Value::Type::String:
            out += nested ? quotedDescription(*v.asString()) : *v.asString();
            break;
        case Value::Type::Integer:
        case Value::Type::Real:
        case Value::Type::Boolean:
            out += v.stringValue();
            break;
        case Value::Type::Data: {
            out += '<';
            const auto& data = *v.asData();
            static const char* kHex = "0123456789abcdef";
            for (std::size_t i = 0; i < data.size(); ++i) {
                if (i > 0 && i % 4 == 0) {
                    out += ' ';
                }
                out += kHex[data[i] >> 4];
                out += kHex[data[i] & 0xF];
            }
            out += '>';
            break;
        }
        case Value::Type::Date:
            out += dateDescription(*v.asDate());
            break;
        case Value::Type::Array: {
            out += "(\n";
            const auto& array = *v.asArray();
            for (std::size_t i = 0; i < array.size(); ++i) {
                out += pad + "    ";
                describe(array[i], indent + 1, true, out);
                out += (i + 1 < array.size()) ? ",\n" : "\n";
            }
            out += pad + ")";
            break;
        }
        case Value::Type::Dictionary: {
            out += "{\n";
            std::vector<const Dictionary::Entry*> sorted;
            for (const auto& e : *v.asDictionary()) {
                sorted.push_back(&e);
            }
            std::stable_sort(sorted.begin(), sorted.end(),
                             [](const auto* a, const auto* b) { return a->first < b->first; });
            for (const auto* e : sorted) {
                out += pad + "    " + quotedDescription(e->first) + " = ";
                describe(e->second, indent + 1, true, out);
                out += ";\n";
            }
            out += pad + "}";
            break;
        }
    }
}

}  // namespace

std::string Value::description() const {
    std::string out;
    describe(*this, 0, false, out);
    return out;
}

}  // namespace qv
