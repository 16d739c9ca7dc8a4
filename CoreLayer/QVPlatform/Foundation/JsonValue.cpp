#include "JsonValue.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "BoundedFileReader.h"
#include "JsonNesting.h"

namespace qv {

namespace {

constexpr std::size_t kMaxJsonDepth = kMaxJsonNesting;

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int sextet(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '/') {
        return 63;
    }
    return -1;
}

std::optional<Value> convert(const Json& json, const std::string& where, std::size_t depth,
                             std::string* error) {
    auto fail = [&](const std::string& message) -> std::optional<Value> {
        if (error != nullptr) {
            *error = where + ": " + message;
        }
        return std::nullopt;
    };
    if (depth > kMaxJsonDepth) {
        return fail("nested too deeply");
    }
    switch (json.type()) {
        case nlohmann::json::value_t::string:
            return Value(json.get<std::string>());
        case nlohmann::json::value_t::boolean:
            return Value(json.get<bool>());
        case nlohmann::json::value_t::number_integer:
            return Value(static_cast<long long>(json.get<std::int64_t>()));
        case nlohmann::json::value_t::number_unsigned: {
            auto u = json.get<std::uint64_t>();
            if (u > static_cast<std::uint64_t>(INT64_MAX)) {
                return fail("integer out of range");
            }
            return Value(static_cast<long long>(u));
        }
        case nlohmann::json::value_t::number_float:
            return Value(json.get<double>());
        case nlohmann::json::value_t::array: {
            Array array;
            array.reserve(json.size());
            for (std::size_t i = 0; i < json.size(); ++i) {
                auto v = convert(json[i], where + "[" + std::to_string(i) + "]", depth + 1, error);
                if (!v) {
                    return std::nullopt;
                }
                array.push_back(std::move(*v));
            }
            return Value(std::move(array));
        }
        case nlohmann::json::value_t::object: {
            if (json.size() == 1 && json.contains("$data")) {
                const auto& text = json["$data"];
                if (!text.is_string()) {
                    return fail("\"$data\" must be a base64 string");
                }
                auto data = base64Decode(text.get<std::string>());
                if (!data) {
                    return fail("\"$data\" is not valid base64");
                }
                return Value(std::move(*data));
            }
            Dictionary dict;
            for (const auto& [key, item] : json.items()) {
                auto v = convert(item, where + "." + key, depth + 1, error);
                if (!v) {
                    return std::nullopt;
                }
                dict.set(key, std::move(*v));
            }
            return Value(std::move(dict));
        }
        case nlohmann::json::value_t::null:
            return fail("null is not a property-list value");
        default:
            return fail("unsupported JSON value");
    }
}

}  // namespace

std::optional<Value> valueFromJson(const Json& json, const std::string& where, std::string* error) {
    return convert(json, where, 0, error);
}

Json jsonFromValue(const Value& value) {
    switch (value.type()) {
        case Value::Type::Nil:
            return nullptr;
        case Value::Type::String:
            return *value.asString();
        case Value::Type::Integer:
            return value.integerValue();
        case Value::Type::Real:
            return value.doubleValue();
        case Value::Type::Boolean:
            return value.boolValue();
        case Value::Type::Data:
            return Json{{"$data", base64Encode(*value.asData())}};
        case Value::Type::Date:
            return Json{{"$date", value.asDate()->secondsSinceReferenceDate}};
        case Value::Type::Array: {
            Json::array_t array;
            array.reserve(value.asArray()->size());
            for (const auto& item : *value.asArray()) {
                array.push_back(jsonFromValue(item));
            }
            return Json(std::move(array));
        }
        case Value::Type::Dictionary: {
            // Keys in the dictionary's own order. They are unique already, so they are appended
            // without the ordered map's search for each one.
            Json::object_t object;
            auto& members = static_cast<Json::object_t::Container&>(object);
            members.reserve(value.asDictionary()->size());
            for (const auto& [key, item] : *value.asDictionary()) {
                members.emplace_back(key, jsonFromValue(item));
            }
            return Json(std::move(object));
        }
    }
    return nullptr;
}

namespace {

std::string dumpLine(const Json& json) {
    return jsonLineText(json);
}

// The bytes a JSON string cannot hold as they stand, and those that may not be UTF-8.
constexpr std::array<bool, 256> kNotPlainText = [] {
    std::array<bool, 256> table{};
    for (int c = 0; c < 256; ++c) {
        table[c] = c < 0x20 || c >= 0x7F || c == '"' || c == '\\';
    }
    return table;
}();

// Plain printable ASCII is written as it stands; anything else (escapes, UTF-8, bytes that are
// not UTF-8) goes through the JSON library, so both writers always agree.
void appendJsonString(std::string& out, const std::string& text) {
    for (unsigned char c : text) {
        if (kNotPlainText[c]) {
            out += dumpLine(Json(text));
            return;
        }
    }
    const std::size_t at = out.size();
    out.resize(at + text.size() + 2);
    char* end = out.data() + at;
    *end++ = '"';
    end = std::copy(text.begin(), text.end(), end);
    *end = '"';
}

}  // namespace

std::string jsonLineText(const Json& json) {
    std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    // The dump is well-formed UTF-8, so 0xC2 always leads a two-byte character here, and these
    // bytes can only stand inside strings.
    bool plain = true;
    for (char c : text) {
        if (c == '\x7f' || c == '\xc2') {
            plain = false;
            break;
        }
    }
    if (plain) {
        return text;
    }
    std::string escaped;
    escaped.reserve(text.size() + 16);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == 0x7F) {
            escaped += "\\u007f";
        } else if (c == 0xC2 && i + 1 < text.size() &&
                   static_cast<unsigned char>(text[i + 1]) <= 0x9F) {
            static const char kHex[] = "0123456789abcdef";
            const auto low = static_cast<unsigned char>(text[++i]);
            escaped += "\\u00";
            escaped += kHex[low >> 4];
            escaped += kHex[low & 0xF];
        } else {
            escaped += static_cast<char>(c);
        }
    }
    return escaped;
}

void appendJsonText(std::string& out, const Value& value) {
    switch (value.type()) {
        case Value::Type::Nil:
            out += "null";
            return;
        case Value::Type::String:
            appendJsonString(out, *value.asString());
            return;
        case Value::Type::Integer:
            out += std::to_string(value.integerValue());
            return;
        case Value::Type::Boolean:
            out += value.boolValue() ? "true" : "false";
            return;
        case Value::Type::Real:
        case Value::Type::Data:
        case Value::Type::Date:
            // Rare in records, and their number and base64 forms are the library's own.
            out += dumpLine(jsonFromValue(value));
            return;
        case Value::Type::Array: {
            out += '[';
            bool first = true;
            for (const auto& item : *value.asArray()) {
                if (!first) {
                    out += ',';
                }
                first = false;
                appendJsonText(out, item);
            }
            out += ']';
            return;
        }
        case Value::Type::Dictionary: {
            out += '{';
            bool first = true;
            for (const auto& [key, item] : *value.asDictionary()) {
                if (!first) {
                    out += ',';
                }
                first = false;
                appendJsonString(out, key);
                out += ':';
                appendJsonText(out, item);
            }
            out += '}';
            return;
        }
    }
}

std::string jsonTextFromValue(const Value& value) {
    // Written into a buffer that keeps its room between calls, then copied at its exact size:
    // the texts are kept, and growing each one by doubling would cost more than the copy.
    thread_local std::string scratch;
    scratch.clear();
    appendJsonText(scratch, value);
    return scratch;
}

std::string base64Encode(const Data& data) {
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < data.size(); i += 3) {
        unsigned v = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (i + 1 == data.size()) {
        unsigned v = data[i] << 16;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += "==";
    } else if (i + 2 == data.size()) {
        unsigned v = (data[i] << 16) | (data[i + 1] << 8);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

std::optional<Data> base64Decode(std::string_view text) {
    while (!text.empty() && text.back() == '=') {
        text.remove_suffix(1);
    }
    if (text.size() % 4 == 1) {
        return std::nullopt;
    }
    Data out;
    out.reserve(text.size() * 3 / 4);
    unsigned buffer = 0;
    int bits = 0;
    for (char c : text) {
        int v = sextet(c);
        if (v < 0) {
            return std::nullopt;
        }
        buffer = (buffer << 6) | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<std::uint8_t>((buffer >> bits) & 0xFF));
        }
    }
    return out;
}

std::optional<Json> readJsonFile(const std::string& path, std::size_t maxBytes,
                                 std::string* error) {
    auto failWith = [&](const std::string& reason) -> std::optional<Json> {
        if (error != nullptr) {
            *error = path + ": " + reason;
        }
        return std::nullopt;
    };
    std::string reason;
    const std::optional<std::string> text =
        readFileUpTo(path, maxBytes, FileKinds::AnyReadable, &reason);
    if (!text) {
        return failWith(reason);
    }
    std::optional<Json> json = parseJsonText(*text, &reason);
    if (!json) {
        return failWith(reason);
    }
    return json;
}

std::optional<Json> parseJsonText(std::string_view text, std::string* error) {
    auto failWith = [&](std::string reason) -> std::optional<Json> {
        if (error != nullptr) {
            *error = std::move(reason);
        }
        return std::nullopt;
    };
    if (std::optional<std::string> nesting = jsonNestingProblem(text)) {
        return failWith(std::move(*nesting));
    }
    try {
        return Json::parse(text);
    } catch (const Json::exception& e) {
        // The library's text names the place: "parse error at line 2, column 7: ...".
        std::string detail = e.what();
        const std::size_t at = detail.find("parse error");
        return failWith("not valid JSON: " +
                        (at == std::string::npos ? detail : detail.substr(at)));
    }
}

}  // namespace qv
