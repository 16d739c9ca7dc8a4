#include "ShellWord.h"

#include <cstdio>

namespace cardprep {

namespace {

bool isPlainCharacter(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_@%+=:,./-").find(static_cast<char>(c)) != std::string_view::npos;
}

bool isPrintableASCII(unsigned char c) {
    return c >= 0x20 && c < 0x7F;
}

std::string escapedForm(std::string_view word) {
    std::string quoted = "$'";
    for (char character : word) {
        const auto c = static_cast<unsigned char>(character);
        if (c == '\n') {
            quoted += "\\n";
        } else if (c == '\t') {
            quoted += "\\t";
        } else if (c == '\r') {
            quoted += "\\r";
        } else if (c == '\\' || c == '\'') {
            quoted += '\\';
            quoted += character;
        } else if (isPrintableASCII(c)) {
            quoted += character;
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", c);
            quoted += escape;
        }
    }
    quoted += '\'';
    return quoted;
}

}  // namespace

std::string shellQuoted(std::string_view word) {
    bool plain = !word.empty();
    for (char character : word) {
        const auto c = static_cast<unsigned char>(character);
        if (!isPrintableASCII(c)) {
            return escapedForm(word);
        }
        plain = plain && isPlainCharacter(c);
    }
    if (plain) {
        return std::string(word);
    }
    std::string quoted = "'";
    for (char c : word) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    quoted += '\'';
    return quoted;
}

}  // namespace cardprep
