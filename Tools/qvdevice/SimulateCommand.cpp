// qvdevice simulate SCENARIO.json [--pretty|--json] [--until SECONDS]: plays a hot-plug story in
// virtual time through the framework and prints every event, one line each: aligned for a
// terminal, JSON objects otherwise.
#include <memory>
#include <string>

#include "CommandContext.h"
#include "OutputStyle.h"
#include "Simulator.h"

namespace qvdevice {

namespace {

struct SimulateOptions {
    std::string scenario;
    bool pretty = false;
    bool json = false;
    double until = -1.0;
};

int runSimulate(const SimulateOptions& options, CommandContext& context) {
    std::string error;
    auto scenario = SimulationScenario::fromFile(options.scenario, &error);
    if (!scenario) {
        context.err << "qvdevice simulate: " << error << '\n';
        return 2;
    }
    std::optional<double> until;
    if (options.until >= 0.0) {
        until = options.until;
    }
    // Each line is written as it happens: a long or endless story shows its progress and keeps
    // nothing in memory.
    const bool pretty = wantsPrettyLines(options.pretty, options.json, context.out);
    SimulationResult result =
        Simulator::run(*scenario, until, [&context, pretty](SimulationEvent&& event) {
            context.out << (pretty ? event.prettyLine() : event.jsonLine()) << '\n';
        });
    if (!result.ok) {
        context.err << "qvdevice simulate: " << result.error << '\n';
        return 2;
    }
    context.out.flush();
    return context.out ? 0 : 1;
}

void addSimulateCommand(CLI::App& app, CommandContext& context) {
    auto options = std::make_shared<SimulateOptions>();
    CLI::App* command = app.add_subcommand(
        "simulate", "Play a hot-plug scenario in virtual time and print its events");
    command->add_option("scenario", options->scenario, "scenario JSON file")->required();
    auto* pretty = command->add_flag("--pretty", options->pretty,
                                     "aligned human-readable lines (the default on a terminal)");
    command->add_flag("--json", options->json, "JSON lines (the default into a pipe or file)")
        ->excludes(pretty);
    command
        ->add_option("--until", options->until, "virtual seconds to play (default: the scenario's)")
        ->check(virtualSeconds());
    command->callback([options, &context]() { context.exitCode = runSimulate(*options, context); });
}

const bool registered = registerCommand("simulate", addSimulateCommand);

}  // namespace

}  // namespace qvdevice
