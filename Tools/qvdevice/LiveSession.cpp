#include "LiveSession.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <vector>

#include "Application/QVDeviceObserver.h"
#include "Application/QVPrioQueue.h"
#include "FrameworkEventTap.h"
#include "IOKit/UdevFeeder.h"
#include "Model/QVDevice.h"
#include "Recognition/QVDeviceMonitor.h"
#include "Recognition/QVDeviceMonitorGenericDevRecogn.h"
#include "RecordingApplication.h"
#include "RecordingObserver.h"
#include "RunLoop/RunLoop.h"
#include "SimulationEvent.h"

namespace qvdevice {

namespace {

// Prints each event as it happens, stamped with the seconds since the session began.
class LiveEventWriter : public EventSink {
  public:
    LiveEventWriter(std::ostream& out, bool pretty)
        : out_(out), pretty_(pretty), origin_(qv::RunLoop::current().now()) {}

    using EventSink::add;
    void add(std::string kind, qv::Json fields, std::string deviceRecord) override {
        SimulationEvent event{qv::RunLoop::current().now() - origin_, std::move(kind),
                              std::move(fields), std::move(deviceRecord)};
        writeEvents(out_, {event}, pretty_);
        out_.flush();
    }

  private:
    std::ostream& out_;
    bool pretty_;
    double origin_;
};

}  // namespace

struct LiveSession::State {
    State(std::ostream& out, LiveSessionOptions sessionOptions)
        : options(std::move(sessionOptions)),
          writer(out, options.pretty),
          application(writer, options.defaultDevice) {}

    LiveSessionOptions options;
    LiveEventWriter writer;
    RecordingApplication application;
    std::optional<FrameworkEventTap> tap;  // while started
    std::shared_ptr<RecordingObserver> observer;
    bool started = false;
    bool answersUdevRunning = false;
};

namespace {

// umockdev's testbed (umockdev-run, how a recorded stick is replayed) runs no udevd, yet it
// delivers every uevent of the devices it plays: the feeder is told so, instead of warning that
// devices plugged in later are not seen.
bool isUmockdevTestbed() {
    const char* testbed = std::getenv("UMOCKDEV_DIR");
    return testbed != nullptr && *testbed != '\0';
}

}  // namespace

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
    state.tap.emplace(writer);
    if (isUmockdevTestbed()) {
        qv::UdevFeeder::setUdevRunningCheck([] { return true; });
        state.answersUdevRunning = true;
    }

    // The application's side, in the order an application does it. Making the monitor loads the
    // device database, which may raise: then nothing was started, and nothing is left behind.
    std::shared_ptr<QVDeviceMonitor> monitor;
    try {
        monitor = state.options.generic ? QVDeviceMonitorGenericDevRecogn::create()
                                        : QVDeviceMonitor::create();
    } catch (...) {
        forgetUdevRunningAnswer();
        state.tap.reset();
        state.started = false;
        throw;
    }
    state.observer = RecordingObserver::create(monitor, writer);
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
    forgetUdevRunningAnswer();
    state.tap.reset();
}

void LiveSession::forgetUdevRunningAnswer() {
    if (state_->answersUdevRunning) {
        qv::UdevFeeder::setUdevRunningCheck({});
        state_->answersUdevRunning = false;
    }
}

}  // namespace qvdevice
