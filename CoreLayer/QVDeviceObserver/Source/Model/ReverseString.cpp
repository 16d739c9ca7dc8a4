#include "ReverseString.h"

#include <unicode/unistr.h>

std::u16string reverseString(std::u16string_view string) {
    std::u16string reversed;
    reversed.reserve(string.size());
    for (std::size_t i = string.size(); i > 0; --i) {
        reversed.push_back(string[i - 1]);
    }
    return reversed;
}

std::u16string reverseString(std::string_view utf8) {
    const icu::UnicodeString text = icu::UnicodeString::fromUTF8(
        icu::StringPiece(utf8.data(), static_cast<std::int32_t>(utf8.size())));
    return reverseString(std::u16string_view(text.getBuffer(), text.length()));
}
