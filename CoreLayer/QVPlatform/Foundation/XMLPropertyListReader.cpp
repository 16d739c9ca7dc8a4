// The XML reader: libplist parses, we convert its tree into a qv::Value. libplist 2.2 recurses
// without a bound, stores every integer as unsigned 64 bits and reads a malformed number as 0, so
// a scan of the text runs first: it bounds the nesting and checks that every integer fits.
#include <plist/plist.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>

#include "Format.h"
#include "PropertyList.h"
#include "UTF8.h"

namespace qv {

namespace {

bool startsWith(std::string_view text, std::size_t at, std::string_view prefix) {
    return text.compare(at, prefix.size(), prefix) == 0;
}

// Checks the text of one <integer> element: an optional sign, decimal or 0x-hexadecimal
// digits, within the signed 64-bit range. Answers an error text, empty when the number is good.
std::string checkIntegerText(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])) != 0) {
        ++i;
    }
    std::size_t end = text.size();
    while (end > i && std::isspace(static_cast<unsigned char>(text[end - 1])) != 0) {
        --end;
    }
    const std::string_view number = text.substr(i, end - i);
    std::size_t p = 0;
    bool negative = false;
    if (p < number.size() && (number[p] == '-' || number[p] == '+')) {
        negative = number[p] == '-';
        ++p;
    }
    unsigned base = 10;
    if (number.size() - p > 2 && number[p] == '0' &&
        (number[p + 1] == 'x' || number[p + 1] == 'X')) {
        base = 16;
        p += 2;
    }
    if (p == number.size()) {
        return format("integer \"%s\" is not a number", number);
    }
    // The magnitude may reach 2^63 for a negative number, 2^63 - 1 otherwise.
    const std::uint64_t limit =
        negative ? std::uint64_t{1} << 63 : std::uint64_t(std::numeric_limits<std::int64_t>::max());
    std::uint64_t magnitude = 0;
    for (; p < number.size(); ++p) {
        const auto c = static_cast<unsigned char>(number[p]);
        unsigned digit = 0;
        if (std::isdigit(c) != 0) {
            digit = c - '0';
        } else if (base == 16 && std::isxdigit(c) != 0) {
            digit = static_cast<unsigned>(std::tolower(c) - 'a' + 10);
        } else {
            return format("integer \"%s\" is not a number", number);
        }
        if (magnitude > (limit - digit) / base) {
            return format("integer %s does not fit in 64 bits", number);
        }
        magnitude = magnitude * base + digit;
    }
    return {};
}

// Tag names are ASCII: the locale has no say.
bool isASCIIAlnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// The '>' that ends the tag opened at `from`, skipping quoted attribute values (a quoted "/>"
// does not make a tag empty).
std::size_t tagEnd(std::string_view xml, std::size_t from) {
    char quote = 0;
    for (std::size_t i = from; i < xml.size(); ++i) {
        const char c = xml[i];
        if (quote != 0) {
            quote = c == quote ? 0 : quote;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            return i;
        }
    }
    return std::string_view::npos;
}

// Scans the tags of an XML document: nesting of <array> and <dict> within kMaxNestingDepth,
// and integers in range. Comments, CDATA, processing instructions and the DOCTYPE are skipped.
// Anything else malformed is left for libplist to refuse.
std::string scanXML(std::string_view xml) {
    int depth = 0;
    std::size_t i = xml.find('<');
    while (i != std::string_view::npos) {
        std::size_t close = std::string_view::npos;
        // Only "<!" and "<?" can open a comment, CDATA or an instruction; testing the second
        // character first spares the three comparisons for every ordinary tag.
        const char marker = i + 1 < xml.size() ? xml[i + 1] : '\0';
        const bool special = marker == '!' || marker == '?';
        if (special && startsWith(xml, i, "<!--")) {
            close = xml.find("-->", i + 4);
            if (close != std::string_view::npos) {
                close += 2;
            }
        } else if (special && startsWith(xml, i, "<![CDATA[")) {
            close = xml.find("]]>", i + 9);
            if (close != std::string_view::npos) {
                close += 2;
            }
        } else if (marker == '?') {
            close = xml.find("?>", i + 2);
            if (close != std::string_view::npos) {
                close += 1;
            }
        } else {
            const bool closing = marker == '/';
            const std::size_t nameStart = i + (closing ? 2 : 1);
            std::size_t nameEnd = nameStart;
            while (nameEnd < xml.size() && isASCIIAlnum(xml[nameEnd])) {
                ++nameEnd;
            }
            // The name holds no quote and no '>', so the tag's end is searched for after it.
            close = tagEnd(xml, nameEnd);
            if (close == std::string_view::npos) {
                break;
            }
            const std::string_view name = xml.substr(nameStart, nameEnd - nameStart);
            const bool empty = xml[close - 1] == '/';
            if (name == "array" || name == "dict") {
                if (closing) {
                    --depth;
                } else if (!empty && ++depth > kMaxNestingDepth) {
                    return format("nested deeper than %d levels", kMaxNestingDepth);
                }
            } else if (name == "integer" && !closing) {
                if (empty) {
                    return "empty integer";
                }
                const std::size_t textEnd = xml.find('<', close + 1);
                std::string error = checkIntegerText(
                    xml.substr(close + 1, textEnd == std::string_view::npos ? std::string_view::npos
                                                                            : textEnd - close - 1));
                if (!error.empty()) {
                    return error;
                }
            }
        }
        if (close == std::string_view::npos) {
            break;
        }
        i = xml.find('<', close + 1);
    }
    return {};
}

struct PlistDeleter {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

struct MallocDeleter {
    void operator()(char* p) const { std::free(p); }
};

// libplist counts dates from the platform's reference date as well.
// The document was checked as UTF-8 as a whole; only a character reference ("&#...;") can make
// a string or key that is not, so `checkText` is set only when the document has one.
bool convert(plist_t node, int depth, bool checkText, Value& out, std::string& error) {
    if (depth > kMaxNestingDepth) {
        error = format("nested deeper than %d levels", kMaxNestingDepth);
        return false;
    }
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            std::uint8_t b = 0;
            plist_get_bool_val(node, &b);
            out = Value(b != 0);
            return true;
        }
        case PLIST_UINT: {
            // Negative numbers come back as their two's complement; the scan refused anything
            // above the signed range, so the cast restores the written value.
            std::uint64_t u = 0;
            plist_get_uint_val(node, &u);
            out = Value::integer(static_cast<std::int64_t>(u));
            return true;
        }
        case PLIST_REAL: {
            double d = 0.0;
            plist_get_real_val(node, &d);
            out = Value(d);
            return true;
        }
        case PLIST_STRING: {
            std::uint64_t length = 0;
            const char* s = plist_get_string_ptr(node, &length);
            std::string text(s != nullptr ? s : "", s != nullptr ? length : 0);
            // A character reference can name a surrogate, which is no UTF-8.
            if (checkText && !isValidUTF8(text)) {
                error = "a string is not valid UTF-8";
                return false;
            }
            out = Value(std::move(text));
            return true;
        }
        case PLIST_DATA: {
            std::uint64_t length = 0;
            const auto* bytes =
                reinterpret_cast<const std::uint8_t*>(plist_get_data_ptr(node, &length));
            out = Value(bytes != nullptr ? Data(bytes, bytes + length) : Data{});
            return true;
        }
        case PLIST_DATE: {
            std::int32_t seconds = 0;
            std::int32_t micros = 0;
            plist_get_date_val(node, &seconds, &micros);
            out = Value(Date{static_cast<double>(seconds) + static_cast<double>(micros) / 1e6});
            return true;
        }
        case PLIST_UID: {
            // A keyed-archive reference: libplist folds the {"CF$UID": n} dictionary into one
            // node; unfold it so the value reads as it was written.
            std::uint64_t uid = 0;
            plist_get_uid_val(node, &uid);
            out = Value(Dictionary{{"CF$UID", Value::integer(static_cast<std::int64_t>(uid))}});
            return true;
        }
        case PLIST_ARRAY: {
            Array array;
            const std::uint32_t size = plist_array_get_size(node);
            array.reserve(size);
            for (std::uint32_t i = 0; i < size; ++i) {
                Value element;
                if (!convert(plist_array_get_item(node, i), depth + 1, checkText, element, error)) {
                    return false;
                }
                array.push_back(std::move(element));
            }
            out = Value(std::move(array));
            return true;
        }
        case PLIST_DICT: {
            // The iterator walks the keys in document order; a repeated key keeps its first
            // place and its last value, as libplist itself does.
            Dictionary dict;
            dict.reserve(plist_dict_get_size(node));
            plist_dict_iter rawIter = nullptr;
            plist_dict_new_iter(node, &rawIter);
            std::unique_ptr<void, void (*)(void*)> iter(rawIter, std::free);
            for (;;) {
                char* rawKey = nullptr;
                plist_t item = nullptr;
                plist_dict_next_item(node, iter.get(), &rawKey, &item);
                std::unique_ptr<char, MallocDeleter> key(rawKey);
                if (item == nullptr) {
                    break;
                }
                std::string keyText = key != nullptr ? std::string(key.get()) : std::string();
                if (checkText && !isValidUTF8(keyText)) {
                    error = "a key is not valid UTF-8";
                    return false;
                }
                Value value;
                if (!convert(item, depth + 1, checkText, value, error)) {
                    return false;
                }
                dict.set(std::move(keyText), std::move(value));
            }
            out = Value(std::move(dict));
            return true;
        }
        default:
            error = "unexpected element";
            return false;
    }
}

}  // namespace

PropertyListResult readXMLPropertyList(std::string_view bytes) {
    auto fail = [](std::string message) {
        return PropertyListResult{Value(), "XML property list: " + std::move(message)};
    };
    if (bytes.size() > kMaxPropertyListSize) {
        return fail(format("larger than %zu bytes", kMaxPropertyListSize));
    }
    if (!isValidUTF8(bytes)) {
        return fail("not valid UTF-8 text");
    }
    if (bytes.find('\0') != std::string_view::npos) {
        return fail("a NUL character is not allowed in XML");
    }
    if (std::string error = scanXML(bytes); !error.empty()) {
        return fail(std::move(error));
    }
    plist_t raw = nullptr;
    plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &raw);
    PlistPtr root(raw);
    if (root == nullptr) {
        return fail("malformed document");
    }
    PropertyListResult result;
    if (!convert(root.get(), 1, bytes.find("&#") != std::string_view::npos, result.value,
                 result.error)) {
        return fail(std::move(result.error));
    }
    return result;
}

}  // namespace qv
