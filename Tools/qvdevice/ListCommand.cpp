// qvdevice list [--json]: this machine's USB devices as the framework's registry shows them,
// read through udev, then each serial port with its USB interface, its udev mark and the role
// the shipped device database gives it.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CommandContext.h"
#include "Foundation/Exception.h"
#include "Foundation/Platform.h"
#include "IOKit/Registry.h"
#include "IOKit/UdevFeeder.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "PortSummary.h"
#include "RegistryTreePrinter.h"

namespace qvdevice {

namespace {

// The shipped database, or null (with a note) when it is missing or malformed: the list is still
// worth printing without roles.
std::shared_ptr<QVDeviceDatabase> shippedDatabase(CommandContext& context) {
    std::optional<std::string> path = qv::Bundle::pathForResource("DeviceDatabase", "plist");
    if (!path) {
        context.err << "qvdevice list: no device database in " << qv::Bundle::resourcesDirectory()
                    << "; roles not shown\n";
        return nullptr;
    }
    try {
        return QVDeviceDatabase::databaseFromFile(*path);
    } catch (const qv::Exception& e) {
        context.err << "qvdevice list: the device database cannot be loaded: " << e.reason()
                    << "; roles not shown\n";
        return nullptr;
    }
}

int runList(bool json, CommandContext& context) {
    // The shared registry: the snapshots that classification takes read it.
    qv::Registry::resetShared();
    qv::Registry& registry = qv::Registry::shared();
    qv::UdevFeeder feeder(registry);
    qv::UdevFeeder::StartResult started = feeder.start(false);
    if (started != qv::UdevFeeder::StartResult::Started) {
        context.err << "qvdevice list: cannot read devices from udev: "
                    << qv::UdevFeeder::describe(started) << "\n";
        return 1;
    }
    qv::Registry::EntryView tree = registry.tree();
    auto database = shippedDatabase(context);
    std::vector<PortSummaryRow> ports = summarizePorts(tree, database.get());
    if (json) {
        qv::Json out = registryTreeToJson(tree);
        out["serialPorts"] = portSummaryToJson(ports);
        context.out << out.dump(2) << "\n";
    } else {
        printRegistryTree(context.out, tree);
        printPortSummary(context.out, ports);
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
