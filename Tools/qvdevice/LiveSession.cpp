#include "LiveSession.h"

#include <algorithm>
#include <vector>

#include "Application/QVDeviceObserver.h"
#include "Application/QVPrioQueue.h"
#include "Foundation/Logging.h"
#include "Foundation/NotificationCenter.h"
#include "Model/QVDevice.h"
#include "Recognition/QVDeviceMonitor.h"
#include "Recognition/QVDeviceMonitorGenericDevRecogn.h"
#include "RunLoop/RunLoop.h"
#include "SimulationEvent.h"

namespace qvdevice {

namespace {

// Prints each event as it happens, stamped with the seconds since the session began.
class LiveEventWriter {
  public:
    LiveEventWriter(std::ostream& out, bool pretty)
        : out_(out), pretty_(pretty), origin_(qv::RunLoop::current().now()) {}

    void add(std::string kind, qv::Json fields) {
        SimulationEvent event{qv::RunLoop::current().now() - origin_, std::move(kind),
                              std::move(fields)};
        writeEvents(out_, {event}, pretty_);
        out_.flush();
    }
    void addCall(const char* kind, const std::string& call,
                 const std::shared_ptr<QVDevice>& device = nullptr) {
        qv::Json fields = qv::Json::object();
        fields["call"] = call;
        if (device) {
            fields["device"] = qv::jsonFromValue(device->toDictionary());
        }
        add(kind, std::move(fields));
    }

  private:
    std::ostream& out_;
    bool pretty_;
    double origin_;
};

// The observer as the application gets it, with every monitor callback written down first.
class LiveObserver : public QVDeviceObserver {
  public:
    static std::shared_ptr<LiveObserver> create(std::shared_ptr<QVDeviceMonitor> monitor,
                                                LiveEventWriter& writer) {
        return std::shared_ptr<LiveObserver>(new LiveObserver(std::move(monitor), writer));
    }

    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override {
        writer_.addCall("monitor", "noteDeviceBecameAvailable:", device);
        QVDeviceObserver::noteDeviceBecameAvailable(device);
    }
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override {
        writer_.addCall("monitor", "noteDeviceBecameMissing:", device);
        QVDeviceObserver::noteDeviceBecameMissing(device);
    }
    void noteDeviceIdentificationStarted() override {
        writer_.addCall("monitor", "noteDeviceIdentificationStarted");
        QVDeviceObserver::noteDeviceIdentificationStarted();
    }
    void noteDeviceIdentificationStopped() override {
        writer_.addCall("monitor", "noteDeviceIdentificationStopped");
        QVDeviceObserver::noteDeviceIdentificationStopped();
    }
    void noteStartedIdentifyingDevice(const std::shared_ptr<QVDevice>& device) override {
        writer_.addCall("monitor", "noteStartedIdentifyingDevice:", device);
        QVDeviceObserver::noteStartedIdentifyingDevice(device);
    }
    void noteCouldNotIdentifyDevice(const std::shared_ptr<QVDevice>& device) override {
        writer_.addCall("monitor", "noteCouldNotIdentifyDevice:", device);
        QVDeviceObserver::noteCouldNotIdentifyDevice(device);
    }

  private:
    LiveObserver(std::shared_ptr<QVDeviceMonitor> monitor, LiveEventWriter& writer)
        : QVDeviceObserver(std::move(monitor)), writer_(writer) {}
    LiveEventWriter& writer_;
};

// The application: keeps its own device list, writes down what it hears, and once its list is
// long enough chooses the default device and calls devicesChanged:, as a connection application
// reacting to the news would (after the call that brought the news has returned).
class LiveApplication : public QVDeviceObserverDelegate {
  public:
    LiveApplication(LiveEventWriter& writer, std::optional<int> defaultDevice)
        : writer_(writer), defaultDevice_(defaultDevice) {}

    void setObserver(std::weak_ptr<QVDeviceObserver> observer) { observer_ = std::move(observer); }
    std::size_t deviceCount() const { return devices_.size(); }

    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override {
        writer_.addCall("application", "noteDeviceBecameAvailable:", device);
        devices_.push_back(device);
        if (defaultDevice_ && *defaultDevice_ >= 0 &&
            devices_.size() == static_cast<std::size_t>(*defaultDevice_) + 1) {
            std::weak_ptr<QVDeviceObserver> observer = observer_;
            int index = *defaultDevice_;
            qv::RunLoop::current().post([observer, index]() {
                if (auto strong = observer.lock()) {
                    strong->setDefaultDevice(index);
                    strong->devicesChanged();
                }
            });
        }
    }
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override {
        writer_.addCall("application", "noteDeviceBecameMissing:", device);
        std::erase(devices_, device);
    }
    void noteDeviceIdentificationStarted() override {
        writer_.addCall("application", "noteDeviceIdentificationStarted");
    }
    void noteDeviceIdentificationStopped() override {
        writer_.addCall("application", "noteDeviceIdentificationStopped");
    }
    void noteDeviceDidRecognize(const std::shared_ptr<QVDevice>& device) override {
        writer_.addCall("application", "noteDeviceDidRecognize:", device);
    }
    void noteDeviceRecognitionError(int code) override {
        qv::Json fields = qv::Json::object();
        fields["call"] = "noteDeviceRecognitionError:";
        fields["code"] = code;
        writer_.add("application", std::move(fields));
    }
    void noteNetworkInfoDidUpdate(const qv::Value& info,
                                  const std::shared_ptr<QVDevice>& sender) override {
        qv::Json fields = qv::Json::object();
        fields["call"] = "noteNetworkInfoDidUpdate:sender:";
        fields["info"] = qv::jsonFromValue(info);
        if (sender) {
            fields["device"] = qv::jsonFromValue(sender->toDictionary());
        }
        writer_.add("application", std::move(fields));
    }

  private:
    LiveEventWriter& writer_;
    std::optional<int> defaultDevice_;
    std::weak_ptr<QVDeviceObserver> observer_;
    std::vector<std::shared_ptr<QVDevice>> devices_;
};

}  // namespace

struct LiveSession::State {
    State(std::ostream& out, LiveSessionOptions sessionOptions)
        : options(std::move(sessionOptions)),
          writer(out, options.pretty),
          application(writer, options.defaultDevice) {}

    LiveSessionOptions options;
    LiveEventWriter writer;
    LiveApplication application;
    std::shared_ptr<LiveObserver> observer;
    qv::NotificationCenter::Token notificationToken = 0;
    bool started = false;
};

LiveSession::LiveSession(std::ostream& out, LiveSessionOptions options)
    : state_(std::make_unique<State>(out, std::move(options))) {}

LiveSession::~LiveSession() {
    stop();
}

void LiveSession::start() {
    State& state = *state_;
    if (state.started) {
        return;
    }
    state.started = true;
    LiveEventWriter& writer = state.writer;
    qv::setNamedLogSink([&writer](const std::string& log, const std::string& message) {
        qv::Json fields = qv::Json::object();
        fields["log"] = log;
        fields["message"] = message;
        writer.add("log", std::move(fields));
    });
    qv::setSystemLogSink([&writer](const std::string& line) {
        writer.add("syslog", qv::Json{{"message", line}});
    });
    qv::setStandardOutputSink([&writer](const std::string& line) {
        writer.add("stdout", qv::Json{{"message", line}});
    });
    state.notificationToken = qv::NotificationCenter::defaultCenter().addObserver(
        "", [&writer](const qv::Notification& note) {
            writer.add("notification", qv::Json{{"name", note.name}});
        });

    // The application's side, in the order an application does it.
    auto monitor = state.options.generic ? QVDeviceMonitorGenericDevRecogn::create()
                                         : QVDeviceMonitor::create();
    state.observer = LiveObserver::create(monitor, writer);
    state.application.setObserver(state.observer);
    state.observer->setDelegate(&state.application);
    if (!state.options.rules.isNil()) {
        state.observer->setAllowedDevicesRules(state.options.rules);
    }
    state.observer->start();
    QVPrioQueue::getInstance()->startExecution();
}

void LiveSession::stop() {
    State& state = *state_;
    if (!state.started) {
        return;
    }
    state.started = false;
    QVPrioQueue::getInstance()->stopExecution();
    std::size_t present = state.application.deviceCount();
    state.observer->setDelegate(nullptr);
    state.observer->stop();
    state.writer.add("run",
                     qv::Json{{"message", present == 0 ? std::string("no modems found")
                                                       : std::to_string(present) +
                                                             " device(s) present at the end"}});
    qv::setNamedLogSink({});
    qv::setSystemLogSink({});
    qv::setStandardOutputSink({});
    qv::NotificationCenter::defaultCenter().removeObserver(state.notificationToken);
}

}  // namespace qvdevice
