// The qvdevice command line: each subcommand registers itself here; main() only calls run().
#pragma once

#include <iosfwd>

namespace qvdevice {

// Runs the tool with the given arguments, writing to `out` and `err`; returns the exit code.
int run(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace qvdevice
