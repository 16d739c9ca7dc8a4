// reverseString: a string's 16-bit characters in reverse order, as the original string category
// built it one character at a time (a surrogate pair comes out swapped). USB port classification
// compares reversed strings for its file-ending test.
#pragma once

#include <string>
#include <string_view>

std::u16string reverseString(std::u16string_view string);
// The UTF-8 text as 16-bit characters, reversed. Ill-formed bytes read as U+FFFD.
std::u16string reverseString(std::string_view utf8);
