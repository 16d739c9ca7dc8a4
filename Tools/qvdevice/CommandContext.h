// What every qvdevice subcommand gets: where to write and where to leave its exit code.
#pragma once

#include <CLI/CLI.hpp>
#include <ostream>

namespace qvdevice {

struct CommandContext {
    std::ostream& out;
    std::ostream& err;
    int exitCode = 0;
};

// Each subcommand adds itself to the application; its callback runs after parsing.
void addRegistryCommand(CLI::App& app, CommandContext& context);

}  // namespace qvdevice
