// Whole-file reads for input from outside (rules files, databases, scenarios, timelines): never
// more than a limit, never an endless read of a device node, and a reason in plain words when
// the read fails.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace qv {

enum class FileKinds {
    // Only a regular file; a FIFO or device node is refused without blocking on it. For what the
    // framework reads on its own, where nobody is there to feed a pipe.
    RegularOnly,
    // Anything readable but a directory: pipes and /dev/stdin too. For command-line tools.
    AnyReadable,
};

// The bytes of the file at `path`, or nullopt with the reason in `reason` (when given): the
// system's words ("No such file or directory", "Permission denied"), "is a loop of symbolic
// links", "is a directory", "is not a regular file", or "larger than N bytes" once more than
// `limit` bytes arrived.
std::optional<std::string> readFileUpTo(const std::string& path, std::size_t limit, FileKinds kinds,
                                        std::string* reason);

// The same for a descriptor that is already open (standard input); it is left open.
std::optional<std::string> readDescriptorUpTo(int fd, std::size_t limit, std::string* reason);

}  // namespace qv
