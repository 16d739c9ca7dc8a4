// How `run` and `simulate` print events: aligned human lines for a person at a terminal, JSON
// lines for a program reading a pipe or file. --pretty and --json force either.
#pragma once

#include <ostream>

namespace qvdevice {

// True for the human lines: --pretty, or neither flag and `out` is standard output on a terminal.
bool wantsPrettyLines(bool pretty, bool json, const std::ostream& out);

}  // namespace qvdevice
