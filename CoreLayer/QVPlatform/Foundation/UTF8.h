// UTF-8 helpers for text that comes from outside (files, devices): validation and encoding of
// one code point.
#pragma once

#include <string>
#include <string_view>

namespace qv {

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or values past
// U+10FFFF).
bool isValidUTF8(std::string_view bytes);

// Appends the UTF-8 form of a code point; surrogates and values past U+10FFFF become U+FFFD.
void appendUTF8(std::string& out, char32_t codePoint);

}  // namespace qv
