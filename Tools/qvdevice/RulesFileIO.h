// Whole-file input and atomic output for `qvdevice rules`: "-" is standard input or output.
#pragma once

#include <sys/types.h>

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

// The rules of one plain or enciphered rules file, read as the framework reads it, or nothing
// with "PATH: reason" in `error`: the reader's words (missing, unreadable, a loop of symbolic
// links, not a regular file, too large), neither UTF-8 text nor enciphered with the framework's
// pass phrase, or not a list of rule dictionaries.
std::optional<qv::Value> loadRulesFile(const std::string& path, std::string& error);

// Writes the bytes to standard output (`stdoutStream`) for "-", else to a temporary file beside
// `path` that is renamed over it once complete, so `path` is never left half-written. Only a
// regular file is replaced, and it keeps its mode (and, where allowed, its owner); a symbolic
// link, device node, FIFO, socket or directory at `path` is refused untouched (Refused). A new file
// gets `newFileMode` less the umask. On failure the temporary file is removed and `error` says why.
enum class RulesOutput { Written, Refused, Failed };
RulesOutput writeRulesOutputAtomically(const std::string& path, const qv::Data& bytes,
                                       std::ostream& stdoutStream, std::string& error,
                                       mode_t newFileMode = 0666);

}  // namespace qvdevice
