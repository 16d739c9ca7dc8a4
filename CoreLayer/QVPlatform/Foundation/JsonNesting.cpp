#include "JsonNesting.h"

namespace qv {

std::optional<std::string> jsonNestingProblem(std::string_view text, std::size_t maxDepth) {
    std::size_t depth = 0;
    std::size_t line = 1;
    std::size_t lineStart = 0;
    bool inString = false;
    bool escaped = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\n') {
            ++line;
            lineStart = i + 1;
        }
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxDepth) {
                return "nested deeper than " + std::to_string(maxDepth) + " levels at line " +
                       std::to_string(line) + ", column " + std::to_string(i - lineStart + 1);
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return std::nullopt;
}

}  // namespace qv
