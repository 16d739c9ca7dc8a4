// The old ASCII (OpenStep) property-list form, parsed as the original platform's reader does:
// strings quoted with " or ' (escapes \a \b \f \n \r \t \v, \ooo in the NeXTSTEP encoding, \Uxxxx
// UTF-16 units) or bare ([A-Za-z0-9_$/:.-]+), <hex data> with blanks between bytes, ( arrays )
// with an optional trailing comma, { key = value; } dictionaries where "key;" means key = key,
// and // and /* */ comments between tokens. A top level made of pairs without braces is a
// "strings file" and reads as a dictionary; blanks alone read as an empty dictionary.
#include "Format.h"
#include "HexDigit.h"
#include "PropertyList.h"
#include "UTF8.h"

namespace qv {

namespace {

// Unicode code points of the NeXTSTEP encoding's upper half (0x80-0xFF), which octal escapes use.
constexpr char16_t kNextStepUpperHalf[128] = {
    0x00A0, 0x00C0, 0x00C1, 0x00C2, 0x00C3, 0x00C4, 0x00C5, 0x00C7, 0x00C8, 0x00C9, 0x00CA, 0x00CB,
    0x00CC, 0x00CD, 0x00CE, 0x00CF, 0x00D0, 0x00D1, 0x00D2, 0x00D3, 0x00D4, 0x00D5, 0x00D6, 0x00D9,
    0x00DA, 0x00DB, 0x00DC, 0x00DD, 0x00DE, 0x00B5, 0x00D7, 0x00F7, 0x00A9, 0x00A1, 0x00A2, 0x00A3,
    0x2044, 0x00A5, 0x0192, 0x00A7, 0x00A4, 0x2019, 0x201C, 0x00AB, 0x2039, 0x203A, 0xFB01, 0xFB02,
    0x00AE, 0x2013, 0x2020, 0x2021, 0x00B7, 0x00A6, 0x00B6, 0x2022, 0x201A, 0x201E, 0x201D, 0x00BB,
    0x2026, 0x2030, 0x00AC, 0x00BF, 0x00B9, 0x02CB, 0x00B4, 0x02C6, 0x02DC, 0x00AF, 0x02D8, 0x02D9,
    0x00A8, 0x00B2, 0x02DA, 0x00B8, 0x00B3, 0x02DD, 0x02DB, 0x02C7, 0x2014, 0x00B1, 0x00BC, 0x00BD,
    0x00BE, 0x00E0, 0x00E1, 0x00E2, 0x00E3, 0x00E4, 0x00E5, 0x00E7, 0x00E8, 0x00E9, 0x00EA, 0x00EB,
    0x00EC, 0x00C6, 0x00ED, 0x00AA, 0x00EE, 0x00EF, 0x00F0, 0x00F1, 0x0141, 0x00D8, 0x0152, 0x00BA,
    0x00F2, 0x00F3, 0x00F4, 0x00F5, 0x00F6, 0x00E6, 0x00F9, 0x00FA, 0x00FB, 0x0131, 0x00FC, 0x00FD,
    0x0142, 0x00F8, 0x0153, 0x00DF, 0x00FE, 0x00FF, 0xFFFD, 0xFFFD,
};
static_assert(sizeof kNextStepUpperHalf / sizeof kNextStepUpperHalf[0] == 128);

bool isBareStringCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '$' || c == '/' || c == ':' || c == '.' || c == '-';
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool isHighSurrogate(char32_t u) {
    return u >= 0xD800 && u <= 0xDBFF;
}
bool isLowSurrogate(char32_t u) {
    return u >= 0xDC00 && u <= 0xDFFF;
}

class ASCIIPropertyListParser {
  public:
    explicit ASCIIPropertyListParser(std::string_view text) : text_(text) {}

    PropertyListResult parse() {
        PropertyListResult result;
        skipBlanksAndComments();
        if (atEnd()) {
            result.value = Value(Dictionary{});
            return result;
        }
        if (!parseValue(0, result.value)) {
            return failure();
        }
        skipBlanksAndComments();
        if (atEnd()) {
            return result;
        }
        if (!result.value.isString()) {
            fail("unexpected text after the property list");
            return failure();
        }
        // A string followed by more text: the whole thing is a strings file.
        pos_ = 0;
        Dictionary pairs;
        if (!parsePairs(1, pairs) || (skipBlanksAndComments(), !atEnd())) {
            if (error_.empty()) {
                fail("expected a key");
            }
            return failure();
        }
        result.value = Value(std::move(pairs));
        return result;
    }

  private:
    bool atEnd() const { return pos_ >= text_.size(); }
    char peek() const { return atEnd() ? '\0' : text_[pos_]; }

    bool fail(std::string_view message) {
        if (error_.empty()) {
            std::size_t line = 1;
            for (std::size_t i = 0; i < pos_ && i < text_.size(); ++i) {
                line += text_[i] == '\n' ? 1 : 0;
            }
            error_ = format("line %zu: %s", line, message);
        }
        return false;
    }

    PropertyListResult failure() const { return {Value(), "ASCII property list: " + error_}; }

    void skipBlanksAndComments() {
        while (!atEnd()) {
            const char c = text_[pos_];
            if (isBlank(c)) {
                ++pos_;
            } else if (c == '/' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '/') {
                const std::size_t end = text_.find_first_of("\r\n", pos_ + 2);
                pos_ = end == std::string_view::npos ? text_.size() : end;
            } else if (c == '/' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '*') {
                const std::size_t end = text_.find("*/", pos_ + 2);
                pos_ = end == std::string_view::npos ? text_.size() : end + 2;
            } else {
                return;
            }
        }
    }

    // Whether a value can start at the current character.
    bool atValueStart() const {
        const char c = peek();
        return !atEnd() && (c == '{' || c == '(' || c == '<' || c == '"' || c == '\'' ||
                            isBareStringCharacter(c));
    }

    bool parseValue(int depth, Value& out) {
        skipBlanksAndComments();
        if (atEnd()) {
            return fail("unexpected end of text");
        }
        switch (peek()) {
            case '{': {
                if (depth >= kMaxNestingDepth) {
                    return fail(format("nested deeper than %d levels", kMaxNestingDepth));
                }
                ++pos_;
                Dictionary dict;
                if (!parsePairs(depth + 1, dict)) {
                    return false;
                }
                skipBlanksAndComments();
                if (peek() != '}' || atEnd()) {
                    return fail("expected ';' or '}' in a dictionary");
                }
                ++pos_;
                out = Value(std::move(dict));
                return true;
            }
            case '(':
                if (depth >= kMaxNestingDepth) {
                    return fail(format("nested deeper than %d levels", kMaxNestingDepth));
                }
                ++pos_;
                return parseArray(depth + 1, out);
            case '<':
                ++pos_;
                return parseData(out);
            case '"':
            case '\'': {
                std::string s;
                if (!parseQuotedString(s)) {
                    return false;
                }
                out = Value(std::move(s));
                return true;
            }
            default:
                if (isBareStringCharacter(peek())) {
                    out = Value(parseBareString());
                    return true;
                }
                return fail(format("unexpected character '%c'", peek()));
        }
    }

    // Pairs up to a '}' or the end of the text, which the caller checks.
    bool parsePairs(int depth, Dictionary& dict) {
        for (;;) {
            skipBlanksAndComments();
            std::string key;
            if (peek() == '"' || peek() == '\'') {
                if (!parseQuotedString(key)) {
                    return false;
                }
            } else if (isBareStringCharacter(peek()) && !atEnd()) {
                key = parseBareString();
            } else if (atEnd() || peek() == '}') {
                return true;
            } else {
                return fail(format("unexpected character '%c' where a key belongs", peek()));
            }
            skipBlanksAndComments();
            Value value;
            if (peek() == ';' && !atEnd()) {
                value = Value(key);  // "key;" is short for key = key
            } else if (peek() == '=' && !atEnd()) {
                ++pos_;
                if (!parseValue(depth, value)) {
                    return false;
                }
                skipBlanksAndComments();
                if (peek() != ';' || atEnd()) {
                    return fail("missing ';' after a dictionary value");
                }
            } else {
                return fail("expected '=' or ';' after a key");
            }
            ++pos_;
            dict.set(std::move(key), std::move(value));
        }
    }

    bool parseArray(int depth, Value& out) {
        Array array;
        skipBlanksAndComments();
        while (atValueStart()) {
            Value element;
            if (!parseValue(depth, element)) {
                return false;
            }
            array.push_back(std::move(element));
            skipBlanksAndComments();
            if (peek() != ',' || atEnd()) {
                break;
            }
            ++pos_;
            skipBlanksAndComments();
        }
        if (peek() != ')' || atEnd()) {
            return fail("expected ',' or ')' in an array");
        }
        ++pos_;
        out = Value(std::move(array));
        return true;
    }

    bool parseData(Value& out) {
        Data data;
        for (;;) {
            if (atEnd()) {
                return fail("unterminated data");
            }
            const char c = text_[pos_];
            if (c == '>') {
                ++pos_;
                out = Value(std::move(data));
                return true;
            }
            if (isBlank(c)) {
                ++pos_;
                continue;
            }
            const int high = hexDigitValue(c);
            const int low = pos_ + 1 < text_.size() ? hexDigitValue(text_[pos_ + 1]) : -1;
            if (high < 0 || low < 0) {
                return fail("data must be pairs of hexadecimal digits");
            }
            data.push_back(static_cast<std::uint8_t>(high * 16 + low));
            pos_ += 2;
        }
    }

    std::string parseBareString() {
        const std::size_t start = pos_;
        while (!atEnd() && isBareStringCharacter(text_[pos_])) {
            ++pos_;
        }
        return std::string(text_.substr(start, pos_ - start));
    }

    bool parseQuotedString(std::string& out) {
        const char quote = text_[pos_++];
        char32_t pendingHigh = 0;  // a \U high surrogate waiting for its low half
        auto flushPending = [&] {
            if (pendingHigh != 0) {
                appendUTF8(out, 0xFFFD);
                pendingHigh = 0;
            }
        };
        for (;;) {
            const std::size_t stop = text_.find_first_of(quote == '"' ? "\"\\" : "'\\", pos_);
            if (stop == std::string_view::npos) {
                return fail("unterminated string");
            }
            if (stop > pos_) {
                flushPending();
                out.append(text_.substr(pos_, stop - pos_));
            }
            pos_ = stop + 1;
            if (text_[stop] == quote) {
                flushPending();
                return true;
            }
            if (atEnd()) {
                return fail("unterminated string");
            }
            const char c = text_[pos_++];
            if (c == 'U') {
                char32_t unit = 0;
                for (int digits = 0; digits < 4 && !atEnd() && hexDigitValue(peek()) >= 0;
                     ++digits) {
                    unit = unit * 16 + static_cast<char32_t>(hexDigitValue(text_[pos_++]));
                }
                if (pendingHigh != 0 && isLowSurrogate(unit)) {
                    appendUTF8(out, 0x10000 + ((pendingHigh - 0xD800) << 10) + (unit - 0xDC00));
                    pendingHigh = 0;
                } else {
                    flushPending();
                    if (isHighSurrogate(unit)) {
                        pendingHigh = unit;
                    } else {
                        appendUTF8(out, unit);  // a lone low surrogate becomes U+FFFD
                    }
                }
                continue;
            }
            flushPending();
            if (c >= '0' && c <= '7') {
                unsigned code = static_cast<unsigned>(c - '0');
                for (int digits = 1; digits < 3 && peek() >= '0' && peek() <= '7' && !atEnd();
                     ++digits) {
                    code = code * 8 + static_cast<unsigned>(text_[pos_++] - '0');
                }
                code &= 0xFF;
                appendUTF8(out, code < 0x80 ? code : kNextStepUpperHalf[code - 0x80]);
                continue;
            }
            switch (c) {
                case 'a':
                    out += '\a';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'v':
                    out += '\v';
                    break;
                default:
                    // Any other escaped character stands for itself ("\"", "\\", "\'", ...).
                    out += c;
            }
        }
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    std::string error_;
};

}  // namespace

PropertyListResult readASCIIPropertyList(std::string_view bytes) {
    auto fail = [](std::string_view message) {
        return PropertyListResult{Value(), format("ASCII property list: %s", message)};
    };
    if (bytes.size() > kMaxPropertyListSize) {
        return fail(format("larger than %zu bytes", kMaxPropertyListSize));
    }
    if (bytes.empty()) {
        return fail("empty text");
    }
    if (bytes.substr(0, 3) == "\xEF\xBB\xBF") {
        bytes.remove_prefix(3);
    }
    if (!isValidUTF8(bytes)) {
        return fail("not valid UTF-8 text");
    }
    return ASCIIPropertyListParser(bytes).parse();
}

}  // namespace qv
