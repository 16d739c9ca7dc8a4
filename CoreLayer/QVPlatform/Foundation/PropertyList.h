// Property-list codecs: read XML property lists (through libplist) and the older ASCII/OpenStep
// text form (our own parser), write XML. Binary property lists and anything else are refused with
// an error text. Input from outside is hostile: nesting is bounded (kMaxNestingDepth) and every
// failure is an error, never a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Value.h"

namespace qv {

inline constexpr int kMaxNestingDepth = 256;
// Larger input is refused before parsing: the framework's own lists are a few hundred kilobytes,
// and a parsed value takes many times the room of its text.
inline constexpr std::size_t kMaxPropertyListSize = 8 * 1024 * 1024;

struct PropertyListResult {
    Value value;        // nil on failure
    std::string error;  // empty on success
    bool ok() const { return error.empty(); }
};

// Reads either text form, deciding by the content (XML when it starts, after blanks and a byte
// order mark, with "<?xml" or "<plist" or "<!DOCTYPE"). Text must be UTF-8.
PropertyListResult readPropertyList(std::string_view bytes);
PropertyListResult readPropertyList(const Data& bytes);
PropertyListResult readXMLPropertyList(std::string_view bytes);
// The old text form: "quoted" and bare strings, <hex data>, ( arrays ), { key = value; }, // and
// /* */ comments; a top level of bare "key = value;" pairs (a strings file) reads as a dictionary.
PropertyListResult readASCIIPropertyList(std::string_view bytes);
PropertyListResult readPropertyListFile(const std::string& path);

// Writes a value as an XML property list (the platform's layout: tabs, a DOCTYPE). A nil value
// anywhere in the tree cannot be written and gives an error.
struct PropertyListWriteResult {
    std::string xml;
    std::string error;
    bool ok() const { return error.empty(); }
};
PropertyListWriteResult writeXMLPropertyList(const Value& value);

}  // namespace qv
