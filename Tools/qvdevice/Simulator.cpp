#include "Simulator.h"

#include <algorithm>
#include <memory>
#include "ApplicationActionPlayer.h"
#include "DatabaseFileCheck.h"

#include "Application/PlatformFactory.h"
#include "Application/QVDeviceObserver.h"
#include "Application/QVPrioQueue.h"
#include "Application/ScriptedDevicePlatform.h"
#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Logging.h"
#include "Foundation/NotificationCenter.h"
#include "Foundation/Platform.h"
#include "Foundation/Task.h"
#include "IOKit/Registry.h"
#include "Model/QVDevice.h"
#include "PreparationStory.h"
#include "QVGsmKit/GsmBackend.h"
#include "QVGsmKit/ScriptedGsmBackend.h"
#include "Recognition/QVDeviceMonitor.h"
#include "Recognition/QVDeviceMonitorGenericDevRecogn.h"
#include "RecordingObserver.h"
#include "Rules/QVDeviceFilter.h"
#include "RulesFileIO.h"
#include "RunLoop/VirtualRunLoop.h"
#include "SimulatedApplication.h"

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

// Every process-wide seam the run replaces, put back when the run ends however it ends.
class SeamInstallation {
  public:
    SeamInstallation() = default;
    SeamInstallation(const SeamInstallation&) = delete;
    SeamInstallation& operator=(const SeamInstallation&) = delete;
    ~SeamInstallation() {
        qv::setNamedLogSink({});
        qv::setSystemLogSink({});
        qv::setStandardOutputSink({});
        if (notificationToken_ != 0) {
            qv::NotificationCenter::defaultCenter().removeObserver(notificationToken_);
        }
        qv::TaskLauncher::setShared(nullptr);
        qv::Workspace::setShared(nullptr);
        qv::SystemVersion::set(std::nullopt);
        qv::Bundle::setPathForResource("DeviceDatabase", "plist", std::nullopt);
        qv::ApplicationTermination::setHandler({});
        qv::GsmBackend::setCurrent(nullptr);
        qv::PlatformFactory::install(previousPlatform_);
        resetFrameworkSingletons();
        qv::RunLoop::setCurrent(nullptr);
    }

    // Subscriptions and snapshots go before the registry they point into.
    static void resetFrameworkSingletons() {
        qv::setNamedLogSink([](const std::string&, const std::string&) {});
        QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->removeAllNotifications();
        qv::setNamedLogSink({});
        QVDeviceObserver::resetSharedForTesting();
        qv::PlatformFactory::resetForTesting();
        QVDeviceMonitor::resetSharedForTesting();
        QVPrioQueue::resetSharedForTesting();
        QVDeviceNotificationCenter::resetSharedForTesting();
        qv::Registry::resetShared();
    }

    qv::NotificationCenter::Token notificationToken_ = 0;
    std::shared_ptr<qv::DevicePlatform> previousPlatform_ = qv::PlatformFactory::installed();
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

}  // namespace

SimulationResult Simulator::run(const SimulationScenario& scenario, std::optional<double> until,
                                const SimulationEventConsumer& consumer) {
    SimulationResult result;
    const SimulationOptions& options = scenario.options;

    std::string error;
    auto backend = qv::ScriptedGsmBackend::fromDescription(scenario.modems, &error);
    if (!backend) {
        result.error = "modems: " + error;
        return result;
    }
    auto rules = loadRules(options, &error);
    if (!rules) {
        result.error = error;
        return result;
    }
    if (options.database) {
        if (auto refusal = databaseFileRefusal(*options.database)) {
            result.error = "options.database: " + *refusal;
            return result;
        }
    }

    SeamInstallation seams;
    SeamInstallation::resetFrameworkSingletons();
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::RunLoop::setCurrent(loop);
    const double origin = loop->now();
    EventRecorder recorder(*loop, origin, consumer);
    bool terminated = false;

    qv::setNamedLogSink([&](const std::string& log, const std::string& message) {
        qv::Json fields = qv::Json::object();
        fields["log"] = log;
        fields["message"] = message;
        recorder.add("log", std::move(fields));
    });
    qv::setSystemLogSink([&](const std::string& line) {
        recorder.add("syslog", qv::Json{{"message", line}});
    });
    qv::setStandardOutputSink([&](const std::string& line) {
        recorder.add("stdout", qv::Json{{"message", line}});
    });
    seams.notificationToken_ =
        qv::NotificationCenter::defaultCenter().addObserver("", [&](const qv::Notification& note) {
            recorder.add("notification", qv::Json{{"name", note.name}});
        });
    std::unique_ptr<PreparationStory> preparation;
    auto launcher = std::make_shared<qv::RecordingTaskLauncher>();
    // The launcher and the modem library keep a record of every call for tests that ask them
    // afterwards; here each call becomes an event at once, and a long story must not pile them
    // up, so the records are dropped as they are passed on (each observer gets its own copy).
    launcher->setObserver([&](const qv::RecordingTaskLauncher::Record& record) {
        recorder.add("exec", qv::Json{{"argv", record.argv}});
        if (preparation) {
            preparation->programStarted(record);
        }
        launcher->clear();
    });
    qv::TaskLauncher::setShared(launcher);
    qv::Workspace::setShared(std::make_shared<qv::FixedWorkspace>(options.runningApplications));
    qv::SystemVersion::set(options.systemVersion);
    if (options.database) {
        qv::Bundle::setPathForResource("DeviceDatabase", "plist", *options.database);
    }
    qv::ApplicationTermination::setHandler([&]() {
        recorder.addCall("application", "terminate:");
        terminated = true;
    });
    backend->setObserver([&](const qv::ScriptedGsmBackend::Call& call) {
        recorder.add("gsm", gsmCallFields(call));
        backend->clearCalls();
    });
    qv::GsmBackend::setCurrent(backend);

    // The application's side, in the order an application does it.
    std::shared_ptr<QVDeviceMonitor> monitor;
    try {
        monitor = options.genericMonitor ? QVDeviceMonitorGenericDevRecogn::create()
                                         : QVDeviceMonitor::create();
    } catch (const std::exception& e) {
        // The monitor loads the device database as it is made; a malformed one stops it there.
        result.error = std::string("device database: ") + e.what();
        return result;
    }
    if (options.acceptNotAllowedDevices) {
        monitor->setAcceptNotAllowedDevices(*options.acceptNotAllowedDevices);
    }
    SimulatedApplication application(recorder, options.defaultDevice);
    auto observer = RecordingObserver::create(monitor, recorder);
    application.setObserver(observer);
    observer->setDelegate(&application);
    observer->setAllowedDevicesRules(*rules);
    if (options.autorepeatNetInfo) {
        observer->setAutorepeatNetInfo(*options.autorepeatNetInfo);
    }

    // The story feeds the registry through the platform factory, in place of udev.
    auto platform = std::make_shared<qv::ScriptedDevicePlatform>(scenario.timeline, origin);
    qv::PlatformFactory::install(platform);
    observer->start();
    // The platform's feeder exists once the first observer has started it.
    if (platform->feeder() == nullptr) {
        result.error = "the story's device platform did not start";
        return result;
    }
    preparation = std::make_unique<PreparationStory>(options.preparation, qv::Registry::shared(),
                                                     *platform->feeder(), *loop, origin);
    preparation->startApplication();
    if (options.startQueue) {
        QVPrioQueue::getInstance()->startExecution();
    }
    ApplicationActionPlayer actions(
        scenario.applicationActions, observer, [&](const ApplicationAction& action) {
            recorder.add("app", ApplicationActionPlayer::fields(action));
            if (action.kind == ApplicationAction::Kind::Start) {
                application.forgetDevices();
            }
        });
    actions.schedule(*loop, origin);

    const double storyEnd = std::max({scenario.timeline.endTime(), options.preparation.endTime(),
                                      lastApplicationActionTime(scenario.applicationActions)});
    const double end = origin + until.value_or(options.until.value_or(storyEnd + kDefaultTail));
    while (!terminated && loop->now() < end) {
        double next = loop->nextFireTime();
        try {
            loop->runUntil(next < 0.0 || next > end ? end : std::max(next, loop->now()));
        } catch (const std::exception& e) {
            // A raise inside the framework ends that turn of the loop, as on the host, and is
            // shown; the story goes on.
            recorder.add("stdout",
                         qv::Json{{"message", std::string("uncaught exception: ") + e.what()}});
        }
    }

    result.pendingAtEnd = monitor->addedIODevices().size();
    if (auto identified = monitor->identifiedDevices()) {
        result.identifiedAtEnd = identified->size();
    }

    // The story is over: the application quits without further output.
    qv::setNamedLogSink([](const std::string&, const std::string&) {});
    qv::setSystemLogSink([](const std::string&) {});
    qv::setStandardOutputSink([](const std::string&) {});
    backend->setObserver({});
    launcher->setObserver({});
    preparation.reset();
    observer->setDelegate(nullptr);
    observer->stop();
    result.events = recorder.take();
    result.ok = true;
    return result;
}

}  // namespace qvdevice
