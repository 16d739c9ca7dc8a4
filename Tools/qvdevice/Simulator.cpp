#include "Simulator.h"

#include <algorithm>
#include <memory>
#include "ApplicationActionPlayer.h"
#include "DatabaseFileCheck.h"
#include "FrameworkEventTap.h"

#include "Application/QVDeviceObserver.h"
#include "Application/QVPrioQueue.h"
#include "Application/ScriptedDevicePlatform.h"
#include "Application/SeamInstallation.h"
#include "Foundation/Platform.h"
#include "Foundation/Task.h"
#include "IOKit/Registry.h"
#include "Model/QVDevice.h"
#include "PreparationStory.h"
#include "QVGsmKit/ScriptedGsmBackend.h"
#include "Recognition/QVDeviceMonitor.h"
#include "Recognition/QVDeviceMonitorGenericDevRecogn.h"
#include "RecordingApplication.h"
#include "RecordingObserver.h"
#include "RulesFileIO.h"
#include "RunLoop/VirtualRunLoop.h"

namespace qvdevice {

namespace {

// Passes on or collects the events of one run, stamped with the virtual time since the start.
class EventRecorder : public EventSink {
  public:
    EventRecorder(const qv::VirtualRunLoop& loop, double origin,
                  const SimulationEventConsumer& consumer)
        : loop_(loop), origin_(origin), consumer_(consumer) {}

    using EventSink::add;
    void add(std::string kind, qv::Json fields, std::string deviceRecord) override {
        SimulationEvent event{loop_.now() - origin_, std::move(kind), std::move(fields),
                              std::move(deviceRecord)};
        if (consumer_) {
            consumer_(std::move(event));
        } else {
            events_.push_back(std::move(event));
        }
    }
    std::vector<SimulationEvent> take() { return std::move(events_); }

  private:
    const qv::VirtualRunLoop& loop_;
    double origin_;
    const SimulationEventConsumer& consumer_;
    std::vector<SimulationEvent> events_;
};

// A call into the modem library under the name the framework calls it by.
qv::Json gsmCallFields(const qv::ScriptedGsmBackend::Call& call) {
    qv::Json fields = qv::Json::object();
    if (call.operation == "identify" || call.operation == "modelInfo") {
        fields["call"] = "executeCommand:deviceId:withParameter:";
        fields["port"] = call.portPath;
        fields["command"] = call.operation == "identify" ? 3 : 9;
    } else {
        fields["call"] = call.operation == "groundInit"   ? "startGroundInitEx"
                         : call.operation == "deviceInfo" ? "getTheDeviceInfo"
                                                          : "startGetNetworkInfoEx";
        fields["port"] = call.portPath;
    }
    fields["deviceId"] = call.deviceId;
    fields["code"] = call.answer.code;
    return fields;
}

std::optional<qv::Value> loadRules(const SimulationOptions& options, std::string* error) {
    if (options.rules) {
        return *options.rules;
    }
    if (!options.rulesFile) {
        // Made in place: moving a nil temporary in trips GCC 12's maybe-uninitialized at -O1.
        return std::make_optional<qv::Value>();
    }
    std::optional<qv::Value> rules = loadRulesFile(*options.rulesFile, *error);
    if (!rules) {
        *error = "options.rulesFile: " + *error;
    }
    return rules;
}

// One story from the seams going in to the application quitting. The seams go back when it is
// destroyed: the tap on the output channels first (its sinks write into the recorder, which
// outlives it), then everything else, the run loop last.
class SimulationRun {
  public:
    SimulationRun(const SimulationScenario& scenario,
                  std::shared_ptr<qv::ScriptedGsmBackend> backend,
                  const SimulationEventConsumer& consumer);
    SimulationRun(const SimulationRun&) = delete;
    SimulationRun& operator=(const SimulationRun&) = delete;

    // The application's side, in the order an application does it; false with a reason when the
    // framework refused to start.
    bool buildApplication(const qv::Value& rules, std::string* error);
    // Plays the story until `until` (seconds from the start), the story's end or the
    // application's termination.
    void play(std::optional<double> until);
    // The application quits without further output; the events and the framework's state at the
    // end go into `result`.
    void tearDown(SimulationResult& result);

  private:
    qv::Seams seams();

    const SimulationScenario& scenario_;
    const SimulationOptions& options_;
    std::shared_ptr<qv::VirtualRunLoop> loop_ = std::make_shared<qv::VirtualRunLoop>();
    const double origin_ = loop_->now();
    EventRecorder recorder_;
    bool terminated_ = false;
    std::shared_ptr<qv::ScriptedGsmBackend> backend_;
    std::shared_ptr<qv::RecordingTaskLauncher> launcher_ =
        std::make_shared<qv::RecordingTaskLauncher>();
    // The story feeds the registry through the platform factory, in place of udev.
    std::shared_ptr<qv::ScriptedDevicePlatform> platform_;
    qv::SeamInstallation installation_;
    FrameworkEventTap tap_;
    std::unique_ptr<PreparationStory> preparation_;
    std::shared_ptr<QVDeviceMonitor> monitor_;
    std::unique_ptr<RecordingApplication> application_;
    std::shared_ptr<RecordingObserver> observer_;
    std::unique_ptr<ApplicationActionPlayer> actions_;
};

SimulationRun::SimulationRun(const SimulationScenario& scenario,
                             std::shared_ptr<qv::ScriptedGsmBackend> backend,
                             const SimulationEventConsumer& consumer)
    : scenario_(scenario),
      options_(scenario.options),
      recorder_(*loop_, origin_, consumer),
      backend_(std::move(backend)),
      platform_(std::make_shared<qv::ScriptedDevicePlatform>(scenario.timeline, origin_)),
      installation_(seams()),
      tap_(recorder_) {}

qv::Seams SimulationRun::seams() {
    // The launcher and the modem library keep a record of every call for tests that ask them
    // afterwards; here each call becomes an event at once, and a long story must not pile them
    // up, so the records are dropped as they are passed on (each observer gets its own copy).
    launcher_->setObserver([this](const qv::RecordingTaskLauncher::Record& record) {
        recorder_.add("exec", qv::Json{{"argv", record.argv}});
        if (preparation_) {
            preparation_->programStarted(record);
        }
        launcher_->clear();
    });
    backend_->setObserver([this](const qv::ScriptedGsmBackend::Call& call) {
        recorder_.add("gsm", gsmCallFields(call));
        backend_->clearCalls();
    });

    qv::Seams seams;
    seams.runLoop = loop_;
    seams.freshFramework = true;
    seams.platform = platform_;
    seams.gsmBackend = backend_;
    seams.taskLauncher = launcher_;
    seams.workspace = std::make_shared<qv::FixedWorkspace>(options_.runningApplications);
    seams.systemVersion = options_.systemVersion;
    if (options_.database) {
        seams.resources.push_back({"DeviceDatabase", "plist", *options_.database});
    }
    seams.applicationTermination = [this]() {
        recorder_.addCall("application", "terminate:");
        terminated_ = true;
    };
    return seams;
}

bool SimulationRun::buildApplication(const qv::Value& rules, std::string* error) {
    try {
        monitor_ = options_.genericMonitor ? QVDeviceMonitorGenericDevRecogn::create()
                                           : QVDeviceMonitor::create();
    } catch (const std::exception& e) {
        // The monitor loads the device database as it is made; a malformed one stops it there.
        *error = std::string("device database: ") + e.what();
        return false;
    }
    if (options_.acceptNotAllowedDevices) {
        monitor_->setAcceptNotAllowedDevices(*options_.acceptNotAllowedDevices);
    }
    application_ = std::make_unique<RecordingApplication>(recorder_, options_.defaultDevice);
    observer_ = RecordingObserver::create(monitor_, recorder_);
    application_->setObserver(observer_);
    observer_->setDelegate(application_.get());
    observer_->setAllowedDevicesRules(rules);
    if (options_.autorepeatNetInfo) {
        observer_->setAutorepeatNetInfo(*options_.autorepeatNetInfo);
    }
    observer_->start();
    // The platform's feeder exists once the first observer has started it.
    if (platform_->feeder() == nullptr) {
        *error = "the story's device platform did not start";
        return false;
    }
    preparation_ = std::make_unique<PreparationStory>(options_.preparation, qv::Registry::shared(),
                                                      *platform_->feeder(), *loop_, origin_);
    preparation_->startApplication();
    if (options_.startQueue) {
        QVPrioQueue::getInstance()->startExecution();
    }
    actions_ = std::make_unique<ApplicationActionPlayer>(
        scenario_.applicationActions, observer_, [this](const ApplicationAction& action) {
            recorder_.add("app", ApplicationActionPlayer::fields(action));
            if (action.kind == ApplicationAction::Kind::Start) {
                application_->forgetDevices();
            }
        });
    actions_->schedule(*loop_, origin_);
    return true;
}

void SimulationRun::play(std::optional<double> until) {
    const double storyEnd = std::max({scenario_.timeline.endTime(), options_.preparation.endTime(),
                                      lastApplicationActionTime(scenario_.applicationActions)});
    const double end =
        origin_ + until.value_or(options_.until.value_or(storyEnd + Simulator::kDefaultTail));
    while (!terminated_ && loop_->now() < end) {
        double next = loop_->nextFireTime();
        try {
            loop_->runUntil(next < 0.0 || next > end ? end : std::max(next, loop_->now()));
        } catch (const std::exception& e) {
            // A raise inside the framework ends that turn of the loop, as on the host, and is
            // shown; the story goes on.
            recorder_.add("stdout",
                          qv::Json{{"message", std::string("uncaught exception: ") + e.what()}});
        }
    }
}

void SimulationRun::tearDown(SimulationResult& result) {
    result.pendingAtEnd = monitor_->addedIODevices().size();
    if (auto identified = monitor_->identifiedDevices()) {
        result.identifiedAtEnd = identified->size();
    }
    tap_.muteChannels();
    backend_->setObserver({});
    launcher_->setObserver({});
    preparation_.reset();
    observer_->setDelegate(nullptr);
    observer_->stop();
    result.events = recorder_.take();
    result.ok = true;
}

}  // namespace

SimulationResult Simulator::run(const SimulationScenario& scenario, std::optional<double> until,
                                const SimulationEventConsumer& consumer) {
    SimulationResult result;
    std::string error;
    auto backend = qv::ScriptedGsmBackend::fromDescription(scenario.modems, &error);
    if (!backend) {
        result.error = "modems: " + error;
        return result;
    }
    auto rules = loadRules(scenario.options, &error);
    if (!rules) {
        result.error = error;
        return result;
    }
    if (scenario.options.database) {
        if (auto refusal = databaseFileRefusal(*scenario.options.database)) {
            result.error = "options.database: " + *refusal;
            return result;
        }
    }

    SimulationRun run(scenario, std::move(backend), consumer);
    if (!run.buildApplication(*rules, &result.error)) {
        return result;
    }
    run.play(until);
    run.tearDown(result);
    return result;
}

}  // namespace qvdevice
