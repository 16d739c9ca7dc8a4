// qvdevice run [--rules DIR|FILE] [--database FILE] [--generic] [--default-device N] [--no-modem]
//              [--for SECONDS] [--pretty|--json]
// The whole framework live on this machine's devices, as an application embeds it, printing the
// simulator's event lines (t = seconds since start) until interrupted or --for runs out.
#include <glib-unix.h>

#include <csignal>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>

#include "Application/SeamInstallation.h"
#include "CommandContext.h"
#include "DatabaseFileCheck.h"
#include "LiveSession.h"
#include "OutputStyle.h"
#include "QVGsmKit/NullGsmBackend.h"
#include "Rules/QVDeviceFilter.h"
#include "RulesFileIO.h"
#include "RunLoop/GLibRunLoop.h"

namespace qvdevice {

namespace {

struct RunOptions {
    std::string rules;
    std::string database;
    bool generic = false;
    int defaultDevice = -1;
    bool noModem = false;
    double forSeconds = -1.0;
    bool pretty = false;
    bool json = false;
};

gboolean stopLoop(gpointer loop) {
    static_cast<qv::RunLoop*>(loop)->stop();
    return G_SOURCE_CONTINUE;
}

// Stops the loop on SIGINT and SIGTERM while it exists.
class SignalStop {
  public:
    explicit SignalStop(qv::GLibRunLoop& loop) {
        for (int signal : {SIGINT, SIGTERM}) {
            GSource* source = g_unix_signal_source_new(signal);
            g_source_set_callback(source, stopLoop, &loop, nullptr);
            g_source_attach(source, loop.context());
            sources_.push_back(source);
        }
    }
    ~SignalStop() {
        for (GSource* source : sources_) {
            g_source_destroy(source);
            g_source_unref(source);
        }
    }
    SignalStop(const SignalStop&) = delete;
    SignalStop& operator=(const SignalStop&) = delete;

  private:
    std::vector<GSource*> sources_;
};

// The rules of a file, or of every rules file of a directory one after the other.
std::optional<qv::Value> loadRules(const std::string& path, std::string* error) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        qv::Array rules;
        auto filters = QVDeviceFilter::filtersWithAllowedDeviceRulesInDirectory(path);
        for (const auto& filter : filters.value_or(QVDeviceFilter::FilterList{})) {
            if (const qv::Array* some = filter->allowedDeviceRules().asArray()) {
                rules.insert(rules.end(), some->begin(), some->end());
            }
        }
        return qv::Value(std::move(rules));
    }
    return loadRulesFile(path, *error);
}

int runLive(const RunOptions& options, CommandContext& context) {
    LiveSessionOptions session;
    qv::Seams seams;
    if (!options.rules.empty()) {
        std::string error;
        auto rules = loadRules(options.rules, &error);
        if (!rules) {
            context.err << "qvdevice run: " << error << '\n';
            return 2;
        }
        session.rules = std::move(*rules);
    }
    if (!options.database.empty()) {
        if (auto refusal = databaseFileRefusal(options.database)) {
            context.err << "qvdevice run: refused database: " << *refusal << '\n';
            return 2;
        }
        seams.resources.push_back({"DeviceDatabase", "plist", options.database});
    }
    if (options.noModem) {
        // The framework never talks AT: identification by tables only, no modem initialisation.
        seams.gsmBackend = std::make_shared<qv::NullGsmBackend>();
    }
    session.generic = options.generic;
    if (options.defaultDevice >= 0) {
        session.defaultDevice = options.defaultDevice;
    }
    session.pretty = wantsPrettyLines(options.pretty, options.json, context.out);

    // The application's loop: the thread-default GMainContext, as a GTK or GLib host has it.
    auto loop = std::make_shared<qv::GLibRunLoop>();
    seams.runLoop = loop;
    int code = 0;
    {
        // The process may go on (tests run the tool in-process): what is replaced goes back.
        qv::SeamInstallation installation(seams);
        SignalStop signals(*loop);
        LiveSession live(context.out, std::move(session));
        try {
            live.start();
            loop->runFor(options.forSeconds < 0.0 ? std::numeric_limits<double>::infinity()
                                                  : options.forSeconds);
        } catch (const std::exception& e) {
            context.err << "qvdevice run: " << e.what() << '\n';
            code = 1;
        }
        live.stop();
    }
    context.out.flush();
    return code != 0 ? code : (context.out ? 0 : 1);
}

void addRunCommand(CLI::App& app, CommandContext& context) {
    auto options = std::make_shared<RunOptions>();
    CLI::App* command = app.add_subcommand(
        "run", "Run the framework live on this machine's devices and print its events");
    command->add_option("--rules", options->rules, "allowed-device rules file or directory");
    command->add_option("--database", options->database,
                        "device database in place of the shipped one");
    command->add_flag("--generic", options->generic,
                      "also recognise unknown products of known makers");
    command
        ->add_option("--default-device", options->defaultDevice,
                     "the application chooses this device (0 = first) and initialises its modem")
        ->check(CLI::Range(0, 1000));
    command->add_flag("--no-modem", options->noModem, "never talk AT to a modem");
    command->add_option("--for", options->forSeconds, "seconds to run (default: until interrupted)")
        ->check(virtualSeconds());
    auto* pretty = command->add_flag("--pretty", options->pretty,
                                     "aligned human-readable lines (the default on a terminal)");
    command->add_flag("--json", options->json, "JSON lines (the default into a pipe or file)")
        ->excludes(pretty);
    command->callback([options, &context]() { context.exitCode = runLive(*options, context); });
}

const bool registered = registerCommand("run", addRunCommand);

}  // namespace

}  // namespace qvdevice
