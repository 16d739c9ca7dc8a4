// Conversion between JSON (scenarios, timelines, tool output) and property-list values.
// JSON numbers stay numbers (integers as integers, others as reals), booleans booleans, and
// {"$data": "<base64>"} stands for data. JSON null has no property-list form and is refused.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Value.h"

namespace qv {

// Objects keep the order of their keys: scenarios and tool output read as written.
using Json = nlohmann::ordered_json;

// nullopt and a message naming the place (`where`, then the path inside) on failure.
std::optional<Value> valueFromJson(const Json& json, const std::string& where, std::string* error);
Json jsonFromValue(const Value& value);
// `json` on one line as the tools print it: bytes that are not UTF-8 replaced, and DEL and the C1
// controls (U+0080 to U+009F), which the JSON library writes as they are, escaped like the other
// control characters, so that no line can drive the terminal it is read on.
std::string jsonLineText(const Json& json);
// The text jsonLineText(jsonFromValue(value)) gives (bytes that are not UTF-8 replaced), written
// straight from the value without building the JSON tree: device records go into every line the
// tools print.
void appendJsonText(std::string& out, const Value& value);
std::string jsonTextFromValue(const Value& value);

// Parses JSON from outside: text nested deeper than kMaxJsonNesting is refused before the parse
// (see JsonNesting.h). nullopt and the reason, with its place, on failure.
std::optional<Json> parseJsonText(std::string_view text, std::string* error);

// Reads a whole JSON file of at most `maxBytes`; nullopt and "PATH: reason" on failure.
std::optional<Json> readJsonFile(const std::string& path, std::size_t maxBytes, std::string* error);

std::string base64Encode(const Data& data);
// nullopt for anything that is not canonical base64 (padding optional, blanks refused).
std::optional<Data> base64Decode(std::string_view text);

}  // namespace qv
