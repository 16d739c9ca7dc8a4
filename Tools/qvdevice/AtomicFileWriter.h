// qvdevice::writeFileAtomically: a file written whole or not at all. The text goes into a new
// file beside the target, is flushed to the disk, and only then renamed over the target, so a
// reader (or a recording interrupted while it writes) never sees half a file and a good file is
// never replaced by a partial one.
#pragma once

#include <string>

namespace qvdevice {

// False and the reason (naming the path) when the file could not be written; the target is then
// as it was, and no temporary file is left behind.
bool writeFileAtomically(const std::string& path, const std::string& text, std::string* error);

// Whether `path` could be written as a file: its directory exists and it is not a directory.
bool canWriteFileAt(const std::string& path, std::string* error);

}  // namespace qvdevice
