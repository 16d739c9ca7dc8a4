#include "TerminalText.h"

#include <cstdio>

#include "UTF8.h"

namespace qv {

namespace {

void appendEscape(std::string& out, const char* form, unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, form, value);
    out += text;
}

// The length of the UTF-8 sequence a lead byte announces; 0 for a byte that leads none.
std::size_t sequenceLength(unsigned char lead) {
    if (lead >= 0xC2 && lead <= 0xDF) {
        return 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        return 3;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        return 4;
    }
    return 0;
}

}  // namespace

std::string escapedForTerminal(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            if (c == '\n') {
                out += "\\n";
            } else if (c == '\r') {
                out += "\\r";
            } else if (c == '\t') {
                out += "\\t";
            } else if (c < 0x20 || c == 0x7F) {
                appendEscape(out, "\\x%02x", c);
            } else {
                out += static_cast<char>(c);
            }
            ++i;
            continue;
        }
        const std::size_t length = sequenceLength(c);
        if (length == 0 || i + length > text.size() || !isValidUTF8(text.substr(i, length))) {
            appendEscape(out, "\\x%02x", c);
            ++i;
            continue;
        }
        if (c == 0xC2 && static_cast<unsigned char>(text[i + 1]) <= 0x9F) {
            appendEscape(out, "\\u%04x", static_cast<unsigned char>(text[i + 1]));
        } else {
            out.append(text.substr(i, length));
        }
        i += length;
    }
    return out;
}

}  // namespace qv
