// qvdevice registry SCRIPT.json [--at SECONDS] [--json]: replays a registry timeline in virtual
// time and prints the tree as it stands then.
#include <iomanip>
#include <memory>
#include <string>

#include "CommandContext.h"
#include "Foundation/JsonValue.h"
#include "IOKit/Registry.h"
#include "IOKit/ScriptedFeeder.h"
#include "RunLoop/VirtualRunLoop.h"

namespace qvdevice {

namespace {

struct RegistryOptions {
    std::string script;
    double at = -1.0;
    bool json = false;
};

qv::Json treeToJson(const qv::Registry::EntryView& view) {
    qv::Json node = qv::Json::object();
    node["name"] = view.name;
    node["class"] = view.className;
    node["properties"] = qv::jsonFromValue(view.properties);
    qv::Json children = qv::Json::array();
    for (const auto& child : view.children) {
        children.push_back(treeToJson(child));
    }
    node["children"] = std::move(children);
    return node;
}

// ioreg's layout: "+-o Name  <class Class>", properties below in braces.
void printTree(std::ostream& out, const qv::Registry::EntryView& view, const std::string& indent,
               bool last) {
    out << indent << "+-o " << view.name << "  <class " << view.className << ">\n";
    std::string inner = indent + (last ? "  " : "| ");
    std::string bar = view.children.empty() ? "  " : "| ";
    const qv::Dictionary* props = view.properties.asDictionary();
    if (props != nullptr && !props->empty()) {
        out << inner << bar << "{\n";
        for (const auto& [key, value] : *props) {
            std::string text =
                value.isString() ? qv::quotedDescription(*value.asString()) : value.description();
            out << inner << bar << "  \"" << key << "\" = " << text << "\n";
        }
        out << inner << bar << "}\n";
    }
    for (std::size_t i = 0; i < view.children.size(); ++i) {
        printTree(out, view.children[i], inner, i + 1 == view.children.size());
    }
}

int runRegistry(const RegistryOptions& options, CommandContext& context) {
    std::string error;
    auto timeline = qv::ScriptedTimeline::fromFile(options.script, &error);
    if (!timeline) {
        context.err << "qvdevice registry: " << error << "\n";
        return 1;
    }
    double until = options.at >= 0.0 ? options.at : timeline->endTime();
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    auto previous = qv::RunLoop::currentShared();
    qv::RunLoop::setCurrent(loop);
    qv::Registry registry;
    {
        qv::ScriptedFeeder feeder(registry, std::move(*timeline));
        feeder.schedule(*loop);
        loop->runUntil(until);
    }
    qv::RunLoop::setCurrent(previous);

    qv::Registry::EntryView tree = registry.tree();
    if (options.json) {
        qv::Json out = qv::Json::object();
        out["t"] = until;
        out["registry"] = treeToJson(tree);
        context.out << out.dump(2) << "\n";
    } else {
        context.out << "registry at t=" << until << "s\n";
        printTree(context.out, tree, "", true);
    }
    return 0;
}

void addRegistryCommand(CLI::App& app, CommandContext& context) {
    auto options = std::make_shared<RegistryOptions>();
    CLI::App* command = app.add_subcommand(
        "registry", "Replay a registry timeline in virtual time, print the tree");
    command->add_option("script", options->script, "timeline JSON file")->required();
    command->add_option("--at", options->at, "virtual time to stop at (default: the last event)")
        ->check(CLI::NonNegativeNumber);
    command->add_flag("--json", options->json, "print the tree as JSON");
    command->callback([options, &context]() { context.exitCode = runRegistry(*options, context); });
}

const bool registered = registerCommand("registry", addRegistryCommand);

}  // namespace

}  // namespace qvdevice
