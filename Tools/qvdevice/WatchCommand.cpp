// qvdevice watch: follows this machine's devices on the GLib run loop and prints each registry
// entry the udev feeder adds or removes, one JSON line each, until interrupted.
#include <glib-unix.h>

#include <csignal>
#include <limits>
#include <memory>

#include "CommandContext.h"
#include "Foundation/JsonValue.h"
#include "IOKit/Registry.h"
#include "IOKit/UdevFeeder.h"
#include "RunLoop/GLibRunLoop.h"

namespace qvdevice {

namespace {

gboolean stopLoop(gpointer loop) {
    static_cast<qv::RunLoop*>(loop)->stop();
    return G_SOURCE_CONTINUE;
}

GSource* stopOnSignal(int signal, qv::GLibRunLoop& loop) {
    GSource* source = g_unix_signal_source_new(signal);
    g_source_set_callback(source, stopLoop, &loop, nullptr);
    g_source_attach(source, loop.context());
    return source;
}

void discard(GSource* source) {
    g_source_destroy(source);
    g_source_unref(source);
}

int runWatch(CommandContext& context) {
    auto loop = std::make_shared<qv::GLibRunLoop>();
    qv::Registry registry;
    qv::UdevFeeder feeder(registry);
    feeder.setEventObserver([&](bool added, io_registry_entry_t entry) {
        qv::Json line = qv::Json::object();
        line["event"] = added ? "added" : "removed";
        line["class"] = *registry.entryClass(entry);
        line["properties"] = qv::jsonFromValue(*registry.entryProperties(entry));
        context.out << line.dump() << std::endl;
    });
    qv::UdevFeeder::StartResult started = feeder.start();
    if (started != qv::UdevFeeder::StartResult::Started) {
        context.err << "qvdevice watch: cannot follow udev events: "
                    << qv::UdevFeeder::describe(started) << "\n";
        return 1;
    }
    if (!feeder.watchOn(*loop)) {
        context.err << "qvdevice watch: cannot follow udev events\n";
        return 1;
    }
    GSource* interrupt = stopOnSignal(SIGINT, *loop);
    GSource* terminate = stopOnSignal(SIGTERM, *loop);
    loop->runUntil(std::numeric_limits<double>::infinity());
    discard(interrupt);
    discard(terminate);
    return 0;
}

void addWatchCommand(CLI::App& app, CommandContext& context) {
    CLI::App* command =
        app.add_subcommand("watch", "Print registry entries as this machine's devices come and go");
    command->callback([&context]() { context.exitCode = runWatch(context); });
}

const bool registered = registerCommand("watch", addWatchCommand);

}  // namespace

}  // namespace qvdevice
