#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <map>
#include <ostream>
#include <string>

#include "CommandContext.h"
#include "SimulationScenario.h"

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

CLI::Validator virtualSeconds() {
    return CLI::Validator(
        [](std::string& text) {
            double seconds = 0.0;
            if (CLI::detail::lexical_cast(text, seconds) && std::isfinite(seconds) &&
                seconds >= 0.0 && seconds <= kMaxVirtualSeconds) {
                return std::string();
            }
            return "not a number of seconds from 0 to " +
                   std::to_string(static_cast<long long>(kMaxVirtualSeconds)) + ": " + text;
        },
        "SECONDS");
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
        // Help is a success; every other parse error is a usage error, exit 2 as tools do.
        return app.exit(e, out, err) == 0 ? 0 : 2;
    }
    return context.exitCode;
}

}  // namespace qvdevice
