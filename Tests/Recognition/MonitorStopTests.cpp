// After a teardown nothing of the monitor or its ejector runs: no examination, no delegate call,
// no modem question, no program; a later start begins with an empty pending list.
#include <functional>

#include "Events/QVIODevice.h"
#include "MonitorFixture.h"
#include "Preparation/QVDriverDiskEjector.h"
#include "Recognition/QVDeviceMonitorGenericDevRecogn.h"

namespace {

using Calls = std::vector<std::string>;

// Runs `onCall` after writing each call down, as an application that reacts to it would.
class ReactingCallLog : public CallLog {
  public:
    void noteStartedIdentifyingDevice(const std::shared_ptr<QVDevice>& d) override {
        CallLog::noteStartedIdentifyingDevice(d);
        react();
    }
    void noteCouldNotIdentifyDevice(const std::shared_ptr<QVDevice>& d) override {
        CallLog::noteCouldNotIdentifyDevice(d);
        react();
    }
    void noteDeviceIdentificationStarted() override { calls.push_back("identification started"); }
    void noteDeviceIdentificationStopped() override { calls.push_back("identification stopped"); }
    std::function<void()> onCall;

  private:
    void react() {
        if (onCall) {
            onCall();
        }
    }
};

class MonitorStopTest : public MonitorTest {
  protected:
    std::size_t linesStartingWith(const std::string& prefix) const {
        return static_cast<std::size_t>(
            std::count_if(lines_->begin(), lines_->end(),
                          [&](const std::string& line) { return line.starts_with(prefix); }));
    }
    ReactingCallLog reacting_;
};

}  // namespace

TEST_F(MonitorStopTest, TeardownWhileADeviceIsPendingEndsItsExamination) {
    auto monitor = QVDeviceMonitor::create();
    monitor->setDelegate(&reacting_);
    monitor->start();
    // An E1750 whose ports have not appeared yet: examined every second, silently retried.
    io_registry_entry_t stick = addUsb(0x12D1, 0x1406, 1);
    loop_->runFor(2.5);
    EXPECT_EQ(reacting_.calls, Calls{"identification started"});
    EXPECT_EQ(countLines("Starting Identifier"), 1u);
    ASSERT_EQ(monitor->addedIODevices().size(), 1u);

    monitor->teardown();
    EXPECT_EQ(countLines("QVDeviceMonitor: teardown"), 1u);
    EXPECT_TRUE(monitor->addedIODevices().empty());
    EXPECT_FALSE(monitor->isExaminingForTesting());

    // The ports appear after the stop: the device would be identified now if it were examined,
    // and would time out later if it stayed listed.
    for (int i = 0; i < 3; ++i) {
        addSerial(stick, "ttyUSB1" + std::to_string(i));
    }
    loop_->runFor(40.0);
    EXPECT_EQ(reacting_.calls, Calls{"identification started"});
    EXPECT_FALSE(monitor->identifiedDevices()) << "no identification re-creates the list";
    EXPECT_EQ(linesStartingWith("Timout trying to recognize device: "), 0u);
    EXPECT_EQ(countLines("Stopping Identifier"), 0u) << "a stop announces nothing";
    EXPECT_EQ(loop_->scheduledTimerCount(), 0u);

    // A new start finds the attached stick once and identifies it a tick later.
    monitor->start();
    EXPECT_EQ(monitor->addedIODevices().size(), 1u);
    loop_->runFor(1.0);
    EXPECT_EQ(reacting_.calls, (Calls{"identification started", "identification started",
                                      "started 1", "available 1"}));
    EXPECT_EQ(countLines("Starting Identifier"), 2u);
    loop_->runFor(1.0);
    EXPECT_EQ(countLines("Stopping Identifier"), 1u);
    EXPECT_EQ(reacting_.calls.back(), "identification stopped");
}

TEST_F(MonitorStopTest, ADelegateThatStopsMidTickEndsTheTickAndTheIdentification) {
    auto monitor = QVDeviceMonitor::create();
    monitor->setDelegate(&reacting_);
    reacting_.onCall = [&] { monitor->teardown(); };
    monitor->start();
    plug(1);
    plug(2);
    loop_->runFor(5.0);
    // The first device is not announced and does not re-create the list; the second, behind it
    // in the same tick, is never offered.
    EXPECT_EQ(reacting_.calls, (Calls{"identification started", "started 1"}));
    EXPECT_FALSE(monitor->identifiedDevices());
    EXPECT_TRUE(gsm_->calls().empty());
    EXPECT_TRUE(monitor->diskSupressor()->hasHandledAllDevices());
}

TEST_F(MonitorStopTest, TeardownCancelsTheEjectorsWaitingUnmount) {
    auto launcher = std::make_shared<qv::RecordingTaskLauncher>();
    qv::TaskLauncher::setShared(launcher);
    auto monitor = QVDeviceMonitor::create();
    monitor->diskSupressor()->setDiskUtilityPath("/usr/libexec/unmount");
    monitor->start();
    // The E1750's entry asks for its driver CD to go.
    io_registry_entry_t stick = plug(1);
    addBsd(stick, "IOCDMedia", "sr0");
    // Identified at 1 s and handed to the ejector, whose tick at 2 s schedules the unmount for 3 s.
    loop_->runFor(2.5);
    ASSERT_EQ(monitor->diskSupressor()->pendingUnmountCountForTesting(), 1u);
    EXPECT_TRUE(launcher->records().empty());

    monitor->teardown();
    EXPECT_EQ(monitor->diskSupressor()->pendingUnmountCountForTesting(), 0u);
    loop_->runFor(30.0);
    EXPECT_TRUE(launcher->records().empty());
    EXPECT_EQ(countLines("Now removing driver volume 'sr0'"), 0u);

    // Without the stop the same story unmounts the CD (so the test above shows the stop's work).
    auto again = QVDeviceMonitor::create();
    again->diskSupressor()->setDiskUtilityPath("/usr/libexec/unmount");
    again->start();
    loop_->runFor(3.5);
    ASSERT_EQ(launcher->records().size(), 1u);
    EXPECT_EQ(launcher->records()[0].argv,
              (std::vector<std::string>{"/usr/libexec/unmount", "unmountDisk", "sr0"}));
}

TEST_F(MonitorStopTest, GenericRecogniserStoppedOnTheNoRuleReportTriesNothingMore) {
    auto generic = QVDeviceMonitorGenericDevRecogn::create();
    generic->setDelegate(&reacting_);
    // Rules that name another model: the E1750 has no rule.
    generic->setAllowedDevicesRules(
        qv::Value(qv::Array{qv::Value(qv::Dictionary{{"QuorvelID", 15412}})}));
    reacting_.onCall = [&] {
        if (reacting_.calls.back() == "unidentified 1") {
            generic->teardown();
        }
    };
    generic->start();
    plug(1);
    loop_->runFor(40.0);
    EXPECT_EQ(reacting_.calls, (Calls{"identification started", "started 1", "unidentified 1"}));
    EXPECT_EQ(linesStartingWith("Try to recognize generic device: "), 0u);
    EXPECT_EQ(countLines("Device is recognized but no rule could be found for it"), 1u);
}

// A delegate that restarts the monitor on hearing of a device: the new run lists the device again,
// and what was left of the old run's handling must not take it out of the new list.
TEST_F(MonitorStopTest, ARestartFromInsideAReportKeepsTheDeviceListed) {
    auto monitor = QVDeviceMonitor::create();
    monitor->setDelegate(&reacting_);
    int restarts = 0;
    reacting_.onCall = [&] {
        if (reacting_.calls.back().starts_with("unidentified") && restarts++ == 0) {
            monitor->teardown();
            monitor->start();
        }
    };
    monitor->start();
    // An E1750 that never shows its ports: reported when it times out.
    io_registry_entry_t bare = addUsb(0x12D1, 0x1406, 1);
    loop_->runFor(32.0);
    ASSERT_EQ(linesStartingWith("Timout trying to recognize device: "), 1u);
    EXPECT_EQ(restarts, 1);
    EXPECT_EQ(monitor->addedIODevices().size(), 1u) << "listed again by the restart";
    loop_->runFor(31.0);
    EXPECT_EQ(linesStartingWith("Timout trying to recognize device: "), 2u);

    // The same on a rejection: an E1750 variant the test database does not know.
    registry().removeEntry(bare);
    monitor->teardown();
    reacting_.calls.clear();
    restarts = 0;
    monitor->start();
    plug(2, 0x12D1, 0x140B);
    loop_->runFor(1.5);
    EXPECT_EQ(restarts, 1);
    EXPECT_EQ(monitor->addedIODevices().size(), 1u);
}
