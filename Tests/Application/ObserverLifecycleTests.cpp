// The observer across stops and restarts: nothing of a run acts after its stop (a modem answer, the
// re-query timer, a queued query), a restart from inside a delegate call keeps the attached device,
// several observers and a serial port enabler run side by side, and start while started.
#include <functional>

#include "Foundation/MountedFileSystems.h"
#include "ObserverFixture.h"
#include "Preparation/QVZTESerialPortsEnabler.h"

namespace {

using Calls = std::vector<std::string>;
using Argvs = std::vector<std::vector<std::string>>;

// A modem on ttyUSB2 that initialises and answers every network query, one second after each
// request.
qv::Value answeringModem() {
    qv::Value answer(qv::Dictionary{
        {"code", 7}, {"complete", 1}, {"info", qv::Dictionary{{"Operator", "Alpha"}}}});
    return qv::Dictionary{{"ttyUSB2", qv::Dictionary{{"groundInit", 7},
                                                     {"deviceInfo", qv::Dictionary{{"IMEI", "1"}}},
                                                     {"networkInfo", qv::Array{answer}},
                                                     {"latency", 1.0}}}};
}

// Does what the application asked for after writing the call down.
class ReactingApp : public AppLog {
  public:
    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& d) override {
        AppLog::noteDeviceBecameAvailable(d);
        if (onAvailable) {
            onAvailable();
        }
    }
    std::function<void()> onAvailable;
};

class ObserverLifecycleTest : public ObserverTest {
  protected:
    void SetUp() override {
        ObserverTest::SetUp();
        std::string error;
        modem_ = qv::ScriptedGsmBackend::fromDescription(answeringModem(), &error);
        ASSERT_NE(modem_, nullptr) << error;
        modem_->setObserver([this](const qv::ScriptedGsmBackend::Call& call) {
            if (call.operation == "networkInfo") {
                queriedAt_.push_back(loop_->now());
            }
        });
        qv::GsmBackend::setCurrent(modem_);
    }
    // A run with one device, announced as the monitor would, chosen as the default.
    void startWithDefaultDevice() {
        observer_->start();
        observer_->noteDeviceBecameAvailable(record(1));
        observer_->setDefaultDevice(0);
    }
    void restart() {
        observer_->stop();
        startWithDefaultDevice();
    }
    std::size_t count(const std::string& operation) const {
        std::size_t n = 0;
        for (const auto& call : modem_->calls()) {
            n += call.operation == operation ? 1 : 0;
        }
        return n;
    }
    std::size_t appCalls(const std::string& call) const {
        return static_cast<std::size_t>(std::count(app_.calls.begin(), app_.calls.end(), call));
    }

    std::shared_ptr<qv::ScriptedGsmBackend> modem_;
    std::vector<double> queriedAt_;
};

}  // namespace

TEST_F(ObserverLifecycleTest, NothingOfAStoppedRunActsInTheNext) {
    QVPrioQueue::getInstance()->startExecution();

    // The initialisation is answered one second after it was asked for, in the next run.
    startWithDefaultDevice();
    observer_->devicesChanged();
    loop_->runFor(0.5);
    restart();
    loop_->runFor(4.5);
    EXPECT_EQ(appCalls("recognized 1"), 0u);
    EXPECT_TRUE(observer_->getDeviceInfo().isNil()) << "the old run's device information";
    EXPECT_TRUE(queriedAt_.empty()) << "polling started by the old run's answer";

    // A network query in flight at the stop: its answer is not passed on and polls no more.
    observer_->devicesChanged();
    loop_->runFor(1.5);
    ASSERT_EQ(queriedAt_.size(), 1u);
    restart();
    loop_->runFor(20.0);
    EXPECT_EQ(appCalls("netinfo Alpha 1"), 0u);
    EXPECT_TRUE(observer_->getNetInfo().isNil());
    EXPECT_EQ(queriedAt_.size(), 1u);

    // A query queued while the queue was stopped is not run by the next run.
    QVPrioQueue::resetSharedForTesting();
    observer_->fireGetNetInfo();
    restart();
    EXPECT_EQ(QVPrioQueue::getInstance()->taskCountForTesting(2), 0u);
    QVPrioQueue::getInstance()->startExecution();
    loop_->runFor(3.0);
    EXPECT_EQ(queriedAt_.size(), 1u);
    EXPECT_EQ(appCalls("netinfo Alpha 1"), 0u);
}

TEST_F(ObserverLifecycleTest, ARestartWithinTheRequeryTimeKeepsOnePollingChain) {
    QVPrioQueue::getInstance()->startExecution();
    startWithDefaultDevice();
    observer_->devicesChanged();
    // Initialised at 1 s, first query answered at 2 s: the next one is due at 7 s.
    loop_->runFor(2.5);
    ASSERT_EQ(queriedAt_.size(), 1u);
    ASSERT_EQ(appCalls("netinfo Alpha 1"), 1u);

    restart();
    // No query without the new run's own initialisation.
    loop_->runFor(7.5);
    EXPECT_EQ(queriedAt_.size(), 1u);
    const double initialisedAt = loop_->now();
    observer_->devicesChanged();
    loop_->runFor(30.0);

    // One chain: a query one second after the initialisation, then one every six seconds (one
    // second for the answer, five to the next query), each answer passed on once.
    ASSERT_GE(queriedAt_.size(), 5u);
    EXPECT_DOUBLE_EQ(queriedAt_[1], initialisedAt + 1.0);
    for (std::size_t i = 2; i < queriedAt_.size(); ++i) {
        EXPECT_DOUBLE_EQ(queriedAt_[i] - queriedAt_[i - 1], 6.0) << "query " << i;
    }
    EXPECT_EQ(count("groundInit"), 2u);
    EXPECT_EQ(appCalls("netinfo Alpha 1"), queriedAt_.size());
}

TEST_F(ObserverLifecycleTest, ADefaultDeviceWithoutANetworkPortIsNeverQueried) {
    observer_->noteDeviceBecameAvailable(record(1, false));
    observer_->setDefaultDevice(0);
    observer_->executeInBackground(*QVPrioQueue::getInstance());
    EXPECT_EQ(lines_->back(),
              "Default device 'Stick 1' has no port for network queries: no modem request");
    EXPECT_TRUE(modem_->calls().empty());
}

TEST_F(ObserverLifecycleTest, ARestartFromInsideTheAvailableCallKeepsTheAttachedDevice) {
    ReactingApp app;
    app.observer = observer_.get();
    observer_->setDelegate(&app);
    int restarts = 0;
    app.onAvailable = [&] {
        if (restarts++ == 0) {
            observer_->stop();
            observer_->start();
        }
    };
    observer_->start();
    plug(1);
    loop_->runFor(5.0);
    // Announced by the first run, found again by the second and announced once more.
    EXPECT_EQ(app.calls, (Calls{"available 1", "available 1"}));
    ASSERT_EQ(observer_->deviceList().size(), 1u);
    EXPECT_EQ(observer_->deviceMonitor()->identifiedDevices()->size(), 1u);
    EXPECT_TRUE(observer_->deviceMonitor()->addedIODevices().empty());
}

TEST_F(ObserverLifecycleTest, TwoObserversRunSideBySide) {
    auto second = QVDeviceObserver::create();
    AppLog secondApp;
    secondApp.observer = second.get();
    second->setDelegate(&secondApp);
    observer_->start();
    second->start();
    io_registry_entry_t first = plug(1);
    loop_->runFor(3.0);
    EXPECT_EQ(app_.calls, Calls{"available 1"});
    EXPECT_EQ(secondApp.calls, Calls{"available 1"});

    // Stopping one leaves the other hearing of arrivals and departures.
    observer_->stop();
    plug(2);
    loop_->runFor(3.0);
    registry().removeEntry(first);
    loop_->runFor(1.0);
    EXPECT_EQ(secondApp.calls, (Calls{"available 1", "available 2", "missing 1 listed"}));
    EXPECT_EQ(app_.calls, Calls{"available 1"});

    // Started again it finds what is attached; the other one's stop does not silence it.
    observer_->start();
    loop_->runFor(3.0);
    second->stop();
    plug(3);
    loop_->runFor(3.0);
    EXPECT_EQ(app_.calls, (Calls{"available 1", "available 2", "available 3"}));
    EXPECT_EQ(secondApp.calls.size(), 3u);
}

TEST_F(ObserverLifecycleTest, StartWhileStartedOnlyEmptiesTheApplicationsList) {
    observer_->start();
    io_registry_entry_t stick = plug(1);
    loop_->runFor(3.0);
    ASSERT_EQ(app_.calls, Calls{"available 1"});

    observer_->start();
    EXPECT_TRUE(observer_->deviceList().empty());
    EXPECT_EQ(observer_->deviceMonitor()->identifiedDevices()->size(), 1u);
    loop_->runFor(5.0);
    EXPECT_EQ(app_.calls, Calls{"available 1"}) << "nothing is announced again";
    registry().removeEntry(stick);
    loop_->runFor(1.0);
    EXPECT_EQ(app_.calls, (Calls{"available 1", "missing 1"}));
}

TEST_F(ObserverLifecycleTest, AnEnablerBesideTheObserverOutlivesTheObserversRestart) {
    auto launcher = std::make_shared<qv::RecordingTaskLauncher>();
    qv::TaskLauncher::setShared(launcher);
    auto mounts = std::make_shared<qv::FixedMountedFileSystems>();
    qv::MountedFileSystems::setShared(mounts);
    auto enabler = std::make_shared<QVZTESerialPortsEnabler>();
    enabler->setDiskUtilityPath("/opt/qv/diskutil");
    enabler->startEnableSerialPortsForDevices();
    observer_->start();

    // A stick waiting for its CD to be mounted when the observer restarts, then unplugged.
    io_registry_entry_t waiting = addUsb(0x19D2, 0x0040, 4);
    addBsd(waiting, "IOCDMedia", "sr1");
    loop_->runFor(2.0);
    observer_->stop();
    observer_->start();
    registry().removeEntry(waiting);
    loop_->runFor(40.0);
    EXPECT_TRUE(enabler->hasHandledAllDevices()) << "the unplug reached the enabler";
    EXPECT_EQ(std::count_if(lines_->begin(), lines_->end(),
                            [](const std::string& line) {
                                return line.starts_with("Timeout handling device: ");
                            }),
              0);

    // A stick plugged after the restart is switched.
    mounts->mount("/dev/sr0", "/media/ZTE");
    io_registry_entry_t stick = addUsb(0x19D2, 0x2000, 5);
    addBsd(stick, "IOCDMedia", "sr0");
    loop_->runFor(2.0);
    Argvs argvs;
    for (const auto& launched : launcher->records()) {
        argvs.push_back(launched.argv);
    }
    EXPECT_EQ(argvs, (Argvs{{"/opt/qv/diskutil", "unmountDisk", "force", "sr0"},
                            {"/opt/qv/diskutil", "eject", "sr0"}}));
    qv::MountedFileSystems::setShared(nullptr);
}
