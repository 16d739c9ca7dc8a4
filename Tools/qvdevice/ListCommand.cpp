// qvdevice list [--json]: this machine's USB devices as the framework's registry shows them,
// read through udev into a registry of its own.
#include <memory>

#include "CommandContext.h"
#include "IOKit/Registry.h"
#include "IOKit/UdevFeeder.h"
#include "RegistryTreePrinter.h"

namespace qvdevice {

namespace {

int runList(bool json, CommandContext& context) {
    qv::Registry registry;
    qv::UdevFeeder feeder(registry);
    if (!feeder.start(false)) {
        context.err << "qvdevice list: cannot read devices from udev\n";
        return 1;
    }
    qv::Registry::EntryView tree = registry.tree();
    if (json) {
        context.out << registryTreeToJson(tree).dump(2) << "\n";
    } else {
        printRegistryTree(context.out, tree);
    }
    return 0;
}

void addListCommand(CLI::App& app, CommandContext& context) {
    auto json = std::make_shared<bool>(false);
    CLI::App* command = app.add_subcommand("list", "Print this machine's devices as a registry");
    command->add_flag("--json", *json, "print the tree as JSON");
    command->callback([json, &context]() { context.exitCode = runList(*json, context); });
}

const bool registered = registerCommand("list", addListCommand);

}  // namespace

}  // namespace qvdevice
