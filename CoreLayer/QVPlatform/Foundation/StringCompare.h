// Case-insensitive comparison of UTF-8 text, what NSString's caseInsensitiveCompare: answered
// with NSOrderedSame: Unicode full case folding, so "STRASSE" and "straße" are equal.
#pragma once

#include <string_view>

namespace qv {

// Text that is not valid UTF-8 is equal only to the very same bytes.
bool caseInsensitiveEqual(std::string_view a, std::string_view b);

}  // namespace qv
