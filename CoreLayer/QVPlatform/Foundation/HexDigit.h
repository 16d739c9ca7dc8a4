// The value of one hexadecimal digit, for the readers of hex text (property-list data and
// escapes, modems' UCS2 and BCD answers).
#pragma once

namespace qv {

// 0 to 15, or -1 when `c` is not a hexadecimal digit.
constexpr int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace qv
