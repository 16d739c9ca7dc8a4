// Text from outside (device strings, log lines quoting them, file contents) on its way to a
// terminal: every control character is written as a visible escape, so a device or a file cannot
// move the cursor, change colours, set the window title or ring the bell.
#pragma once

#include <string>
#include <string_view>

namespace qv {

// C0 controls and DEL become \n, \r, \t or \xNN; C1 controls (U+0080 to U+009F) become \uNNNN;
// bytes that are not part of well-formed UTF-8 become \xNN (a lone 0x9B is a control sequence
// introducer to an 8-bit terminal). Everything else, other UTF-8 included, is kept as it is.
std::string escapedForTerminal(std::string_view text);

}  // namespace qv
