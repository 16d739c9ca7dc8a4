// Whole-file input and atomic output for `qvdevice rules`: "-" is standard input or output.
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>

#include "Foundation/Value.h"

namespace qvdevice {

// The bytes of a file or of standard input, or nothing with a one-line reason in `error`.
// Input larger than `limit` bytes is refused.
std::optional<qv::Data> readRulesInput(const std::string& path, std::size_t limit,
                                       std::string& error);

// Writes the bytes to standard output (`stdoutStream`) for "-", else to a temporary file beside
// `path` that is renamed over it once complete, so `path` is never left half-written. On failure
// the temporary file is removed and `error` says why.
bool writeRulesOutputAtomically(const std::string& path, const qv::Data& bytes,
                                std::ostream& stdoutStream, std::string& error);

}  // namespace qvdevice
