#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <map>
#include <ostream>
#include <string>

#include "CommandContext.h"

namespace qvdevice {

namespace {

// Sorted by name so that the help text does not depend on the link order.
std::map<std::string, CommandAdder>& commandTable() {
    static std::map<std::string, CommandAdder> table;
    return table;
}

}  // namespace

bool registerCommand(const char* name, CommandAdder adder) {
    commandTable()[name] = adder;
    return true;
}

int run(int argc, char** argv, std::ostream& out, std::ostream& err) {
    CLI::App app{"qvdevice: device detection for mobile-broadband modems"};
    app.require_subcommand(1);
    CommandContext context{out, err};
    for (const auto& [name, adder] : commandTable()) {
        adder(app, context);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e, out, err);
    }
    return context.exitCode;
}

}  // namespace qvdevice
