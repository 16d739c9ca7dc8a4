// What every qvdevice subcommand gets: where to write and where to leave its exit code.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <ostream>

namespace qvdevice {

struct CommandContext {
    std::ostream& out;
    std::ostream& err;
    int exitCode = 0;
};

// Each subcommand adds itself to the application; its callback runs after parsing.
using CommandAdder = void (*)(CLI::App& app, CommandContext& context);

// Subcommands register themselves from their own source file at start-up, so adding one never
// touches the others:  const bool registered = registerCommand("table", addTableCommand);
bool registerCommand(const char* name, CommandAdder adder);

// Virtual seconds from the command line: a finite number from 0 to kMaxVirtualSeconds. CLI11's
// range check alone lets "nan" through, since every comparison with NaN is false.
CLI::Validator virtualSeconds();

}  // namespace qvdevice
