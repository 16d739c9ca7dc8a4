// A cheap look at JSON text before it is parsed: how deep its arrays and objects nest. The JSON
// library parses without recursion, but copying, comparing or walking a parsed value recurses once
// per level, so text nested tens of thousands deep would overflow the stack long after the parse.
// Every reader of outside JSON refuses such text here first, naming the place.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace qv {

// Deeper than any scenario, timeline, profile or modem description needs, shallow enough for
// every recursive walk over a parsed value.
inline constexpr std::size_t kMaxJsonNesting = 256;

// Empty when `text` nests arrays and objects at most `maxDepth` levels deep; otherwise
// "nested deeper than N levels at line L, column C" (both counted from 1, columns in bytes), the
// place of the first bracket past the bound. Brackets inside strings do not count; the text need
// not be valid JSON (the parser says what else is wrong with it).
std::optional<std::string> jsonNestingProblem(std::string_view text,
                                              std::size_t maxDepth = kMaxJsonNesting);

}  // namespace qv
