#include "StringCompare.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <cstdint>
#include <limits>

namespace qv {

namespace {

bool isWellFormedUTF8(std::string_view text) {
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) {
        return false;
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    const auto length = static_cast<int32_t>(text.size());
    int32_t offset = 0;
    while (offset < length) {
        UChar32 c;
        U8_NEXT(bytes, offset, length, c);
        if (c < 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool caseInsensitiveEqual(std::string_view a, std::string_view b) {
    if (a == b) {
        return true;
    }
    if (!isWellFormedUTF8(a) || !isWellFormedUTF8(b)) {
        return false;
    }
    icu::UnicodeString left = icu::UnicodeString::fromUTF8(a);
    icu::UnicodeString right = icu::UnicodeString::fromUTF8(b);
    return left.caseCompare(right, U_FOLD_CASE_DEFAULT) == 0;
}

}  // namespace qv
