// qvdevice record OUT.json [--for SECONDS] [--modem] [--device VID:PID] [--keep-identifiers]
//                           [--umockdev OUT.umockdev] [--default-device N] [--generic]
//                           [--pretty|--json]
// Runs the framework live as `qvdevice run` does, printing the same event lines, and writes what
// happened as a scenario that `qvdevice simulate` replays (docs/reporting-a-device.md).
#include <glib-unix.h>

#include <csignal>
#include <filesystem>
#include <limits>
#include <memory>
#include <random>
#include <string>

#include "Application/PlatformFactory.h"
#include "AtomicFileWriter.h"
#include "CommandContext.h"
#include "DeviceRecording.h"
#include "Foundation/Platform.h"
#include "IOKit/Registry.h"
#include "LiveSession.h"
#include "ModemConversationRecorder.h"
#include "OutputStyle.h"
#include "QVGsmKit/AtTranscript.h"
#include "QVGsmKit/GsmBackend.h"
#include "QVGsmKit/NullGsmBackend.h"
#include "RecordingWorkspace.h"
#include "RegistryChangeWatch.h"
#include "RunLoop/GLibRunLoop.h"
#include "UmockdevDescription.h"

namespace qvdevice {

namespace {

struct RecordOptions {
    std::string output;
    double forSeconds = -1.0;
    bool modem = false;
    std::string device;
    bool keepIdentifiers = false;
    std::string umockdev;
    int defaultDevice = -1;
    bool generic = false;
    bool pretty = false;
    bool json = false;
};

gboolean stopRecording(gpointer loop) {
    static_cast<qv::RunLoop*>(loop)->stop();
    return G_SOURCE_CONTINUE;
}

// SIGINT and SIGTERM stop the loop while the recording runs; one that comes while the files are
// written waits until they are.
class StopOnSignals {
  public:
    explicit StopOnSignals(qv::GLibRunLoop& loop) {
        for (int signal : {SIGINT, SIGTERM}) {
            GSource* source = g_unix_signal_source_new(signal);
            g_source_set_callback(source, stopRecording, &loop, nullptr);
            g_source_attach(source, loop.context());
            sources_.push_back(source);
        }
    }
    ~StopOnSignals() {
        for (GSource* source : sources_) {
            g_source_destroy(source);
            g_source_unref(source);
        }
    }
    StopOnSignals(const StopOnSignals&) = delete;
    StopOnSignals& operator=(const StopOnSignals&) = delete;

  private:
    std::vector<GSource*> sources_;
};

// Where the profile of `port` goes: beside OUT.json, named after it and the port's kernel name.
std::string profilePath(const std::string& output, const std::string& port) {
    std::filesystem::path out(output);
    std::string stem = out.stem().string();
    std::string name = std::filesystem::path(port).filename().string();
    if (name.starts_with("cu.")) {
        name = name.substr(3);
    }
    for (char& c : name) {
        c = std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
    }
    return (out.parent_path() / (stem + "." + name + ".modem.json")).string();
}

bool writeFiles(const RecordOptions& options, DeviceRecording& recording,
                const UmockdevDescription* umockdev, double seconds, CommandContext& context) {
    std::string error;
    bool ok = true;
    if (!writeFileAtomically(options.output, recording.scenario(seconds).dump(2) + "\n", &error)) {
        context.err << "qvdevice record: " << error << '\n';
        ok = false;
    }
    if (ModemConversationRecorder* modems = recording.modems()) {
        for (const auto& [port, profile] : modems->simulatorProfiles(recording.masker())) {
            if (!writeFileAtomically(profilePath(options.output, port), profile.dump(2) + "\n",
                                     &error)) {
                context.err << "qvdevice record: " << error << '\n';
                ok = false;
            }
        }
    }
    if (umockdev != nullptr &&
        !writeFileAtomically(options.umockdev, umockdev->text(recording.masker()), &error)) {
        context.err << "qvdevice record: " << error << '\n';
        ok = false;
    }
    return ok;
}

int record(const RecordOptions& options, CommandContext& context) {
    DeviceRecordingOptions recordingOptions;
    if (!options.device.empty()) {
        recordingOptions.only = USBDeviceID::parse(options.device);
        if (!recordingOptions.only) {
            context.err << "qvdevice record: --device wants VENDOR:PRODUCT in hex (12d1:1406)\n";
            return 2;
        }
    }
    std::string error;
    for (const std::string& path : {options.output, options.umockdev}) {
        if (!path.empty() && !canWriteFileAt(path, &error)) {
            context.err << "qvdevice record: " << error << '\n';
            return 2;
        }
    }
    recordingOptions.keepIdentifiers = options.keepIdentifiers;
    recordingOptions.maskKey =
        (static_cast<std::uint64_t>(std::random_device{}()) << 32) ^ std::random_device{}();

    std::shared_ptr<ModemConversationRecorder> modems;
    if (options.modem) {
        modems =
            std::make_shared<ModemConversationRecorder>(qv::PlatformFactory::defaultModemBackend());
        qv::GsmBackend::setCurrent(modems);
        qv::AtTranscript::setListener(modems);
    } else {
        // Without --modem the framework never talks AT: identification by the tables only.
        qv::GsmBackend::setCurrent(std::make_shared<qv::NullGsmBackend>());
    }
    auto workspace = std::make_shared<RecordingWorkspace>(std::make_shared<qv::DBusWorkspace>());
    qv::Workspace::setShared(workspace);

    auto loop = std::make_shared<qv::GLibRunLoop>();
    qv::RunLoop::setCurrent(loop);
    LiveSessionOptions session;
    if (options.defaultDevice >= 0) {
        session.defaultDevice = options.defaultDevice;
        recordingOptions.defaultDevice = options.defaultDevice;
    }
    session.generic = options.generic;
    recordingOptions.genericMonitor = options.generic;
    session.pretty = wantsPrettyLines(options.pretty, options.json, context.out);
    int code = 0;
    {
        StopOnSignals signals(*loop);
        LiveSession live(context.out, std::move(session));
        const double origin = loop->now();
        std::unique_ptr<DeviceRecording> recording;
        std::unique_ptr<UmockdevDescription> umockdev;
        double seconds = 0.0;
        try {
            live.start();
            const qv::Registry& registry = qv::Registry::shared();
            recording = std::make_unique<DeviceRecording>(registry, recordingOptions);
            recording->setModems(modems);
            if (!options.umockdev.empty()) {
                umockdev = std::make_unique<UmockdevDescription>();
            }
            auto changed = [&]() {
                recording->registryChanged(loop->now() - origin);
                if (umockdev) {
                    umockdev->addDevices(registry, recording->timeline().presentDevices());
                }
            };
            recording->registryChanged(0.0);
            if (umockdev) {
                umockdev->addDevices(registry, recording->timeline().presentDevices());
            }
            RegistryChangeWatch watch(*loop, registry, changed);
            loop->runFor(options.forSeconds < 0.0 ? std::numeric_limits<double>::infinity()
                                                  : options.forSeconds);
            watch.check();
            seconds = loop->now() - origin;
        } catch (const std::exception& e) {
            context.err << "qvdevice record: " << e.what() << '\n';
            code = 1;
        }
        if (recording) {
            recording->setRunningApplications(workspace->runningSeen());
        }
        live.stop();
        if (recording && !writeFiles(options, *recording, umockdev.get(), seconds, context)) {
            code = 1;
        }
    }
    qv::RunLoop::setCurrent(nullptr);
    // The process may go on (tests run the tool in-process): put back what was replaced.
    qv::AtTranscript::setListener(nullptr);
    qv::GsmBackend::setCurrent(nullptr);
    qv::Workspace::setShared(nullptr);
    context.out.flush();
    return code != 0 ? code : (context.out ? 0 : 1);
}

void addRecordCommand(CLI::App& app, CommandContext& context) {
    auto options = std::make_shared<RecordOptions>();
    CLI::App* command = app.add_subcommand(
        "record", "Run the framework live and record this machine's sticks as a scenario");
    command->add_option("OUT", options->output, "the scenario file to write")->required();
    command->add_option("--for", options->forSeconds, "seconds to record (default: until Ctrl-C)")
        ->check(virtualSeconds());
    command->add_flag("--modem", options->modem,
                      "talk AT to the modems and record their answers (and a simulator profile "
                      "per port)");
    command->add_option("--device", options->device, "record only sticks with this VID:PID");
    command->add_flag("--keep-identifiers", options->keepIdentifiers,
                      "do not mask serial numbers, IMEI, IMSI, ICCID, phone numbers and MACs");
    command->add_option("--umockdev", options->umockdev,
                        "also write the devices in umockdev's device description format");
    command
        ->add_option("--default-device", options->defaultDevice,
                     "the application chooses this device (0 = first) and initialises its modem")
        ->check(CLI::Range(0, 1000));
    command->add_flag("--generic", options->generic,
                      "also recognise unknown products of known makers, as `run --generic`");
    auto* pretty = command->add_flag("--pretty", options->pretty,
                                     "aligned human-readable lines (the default on a terminal)");
    command->add_flag("--json", options->json, "JSON lines (the default into a pipe or file)")
        ->excludes(pretty);
    command->callback([options, &context]() { context.exitCode = record(*options, context); });
}

const bool registered = registerCommand("record", addRecordCommand);

}  // namespace

}  // namespace qvdevice
