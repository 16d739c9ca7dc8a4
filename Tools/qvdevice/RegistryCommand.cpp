// qvdevice registry SCRIPT.json [--at SECONDS] [--json]: replays a registry timeline in virtual
// time and prints the tree as it stands then.
#include <iomanip>
#include <memory>
#include <string>

#include "Application/SeamInstallation.h"
#include "CommandContext.h"
#include "IOKit/Registry.h"
#include "IOKit/ScriptedFeeder.h"
#include "RegistryTreePrinter.h"
#include "RunLoop/VirtualRunLoop.h"

namespace qvdevice {

namespace {

struct RegistryOptions {
    std::string script;
    double at = -1.0;
    bool json = false;
};

int runRegistry(const RegistryOptions& options, CommandContext& context) {
    std::string error;
    auto timeline = qv::ScriptedTimeline::fromFile(options.script, &error);
    if (!timeline) {
        // A refused timeline is an input mistake, as for `simulate`.
        context.err << "qvdevice registry: " << error << "\n";
        return 2;
    }
    double until = options.at >= 0.0 ? options.at : timeline->endTime();
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::Registry registry;
    {
        qv::Seams seams;
        seams.runLoop = loop;
        qv::SeamInstallation installation(seams);
        qv::ScriptedFeeder feeder(registry, std::move(*timeline));
        feeder.schedule(*loop);
        loop->runUntil(until);
    }

    qv::Registry::EntryView tree = registry.tree();
    if (options.json) {
        qv::Json out = qv::Json::object();
        out["t"] = until;
        out["registry"] = registryTreeToJson(tree);
        context.out << out.dump(2) << "\n";
    } else {
        context.out << "registry at t=" << until << "s\n";
        printRegistryTree(context.out, tree);
    }
    return 0;
}

void addRegistryCommand(CLI::App& app, CommandContext& context) {
    auto options = std::make_shared<RegistryOptions>();
    CLI::App* command = app.add_subcommand(
        "registry", "Replay a registry timeline in virtual time, print the tree");
    command->add_option("script", options->script, "timeline JSON file")->required();
    command->add_option("--at", options->at, "virtual time to stop at (default: the last event)")
        ->check(virtualSeconds());
    command->add_flag("--json", options->json, "print the tree as JSON");
    command->callback([options, &context]() { context.exitCode = runRegistry(*options, context); });
}

const bool registered = registerCommand("registry", addRegistryCommand);

}  // namespace

}  // namespace qvdevice
