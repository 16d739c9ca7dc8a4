// A device database named on the command line (`run --database`, a scenario's
// "options.database") is checked before the framework is started with it: the framework reads a
// file it cannot use as an empty database, which would quietly recognise nothing.
#pragma once

#include <optional>
#include <string>

namespace qvdevice {

// Nothing when the framework can load the file; otherwise one line saying why not, starting with
// the path: missing, unreadable, a loop of symbolic links, not a regular file (FIFO, device
// node, directory), too large, not UTF-8, not a text property list, or an entry it refuses.
std::optional<std::string> databaseFileRefusal(const std::string& path);

}  // namespace qvdevice
