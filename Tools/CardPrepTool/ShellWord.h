// A command line shown to a person (CardPrepTool --dry-run) so that it can be pasted into a shell
// as it stands: each word quoted for the shell, and no byte of a configuration file able to drive
// the terminal it is shown on.
#pragma once

#include <string>
#include <string_view>

namespace cardprep {

// The word as it stands when it is made only of characters no shell treats specially; in single
// quotes when it holds other printable ASCII (a quote written '\''); otherwise (line breaks,
// control characters, bytes outside ASCII) in the $'...' form of bash, zsh, ksh and mksh, every
// such byte written as \n, \t, \r or \xNN.
std::string shellQuoted(std::string_view word);

}  // namespace cardprep
