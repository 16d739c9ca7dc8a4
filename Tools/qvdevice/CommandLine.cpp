#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <ostream>

#include "CommandContext.h"

namespace qvdevice {

int run(int argc, char** argv, std::ostream& out, std::ostream& err) {
    CLI::App app{"qvdevice: device detection for mobile-broadband modems"};
    app.require_subcommand(1);
    CommandContext context{out, err};
    addRegistryCommand(app, context);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e, out, err);
    }
    return context.exitCode;
}

}  // namespace qvdevice
