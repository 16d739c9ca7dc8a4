#include "Events/QVDeviceNotificationReceiver.h"

#include <functional>

#include "DeviceEventsFixture.h"
#include "Foundation/Exception.h"
#include "Foundation/Platform.h"

namespace {

// Records each offer as (virtual time, location ID); finishes a device when `finish` says so.
class TestReceiver : public QVDeviceNotificationReceiver {
  public:
    struct Offer {
        double at;
        int location;
        bool operator==(const Offer&) const = default;
    };

    void handleDevice(const std::shared_ptr<QVIODevice>& device) override {
        offers.push_back({qv::RunLoop::current().now(), device->locationId().intValue()});
        if (finish && finish(*device)) {
            removeDevice(device);
        }
    }
    void timeoutHandlingDevice(const std::shared_ptr<QVIODevice>& device) override {
        timeouts.push_back({qv::RunLoop::current().now(), device->locationId().intValue()});
    }
    void didStartScheduler() override { ++starts; }
    void didStopScheduler() override { ++stops; }

    std::vector<Offer> offers;
    std::vector<Offer> timeouts;
    std::function<bool(const QVIODevice&)> finish;
    int starts = 0;
    int stops = 0;
};

class ReceiverTest : public DeviceEventsTest {
  protected:
    std::shared_ptr<QVIODevice> snapshot(int location) {
        return QVIODevice::deviceWithServiceEntry(addUsb(4817, 4099, location));
    }
    std::shared_ptr<TestReceiver> receiver_ = std::make_shared<TestReceiver>();
};

TEST_F(ReceiverTest, TimerRunsOnlyWhileDevicesWait) {
    receiver_->listenForNotificationsForVendorID(4817, 4099);
    // Nothing attached: the immediate empty batch starts nothing.
    EXPECT_EQ(receiver_->starts, 0);
    EXPECT_EQ(loop_->scheduledTimerCount(), 0u);

    int handledTwice = 0;
    receiver_->finish = [&](const QVIODevice& device) {
        return device.locationId().intValue() == 1 && ++handledTwice == 2;
    };
    loop_->runUntil(0.5);
    addUsb(4817, 4099, 1);
    addUsb(6610, 49, 2);  // not subscribed
    loop_->runPending();
    EXPECT_EQ(receiver_->starts, 1);
    EXPECT_TRUE(receiver_->isExaminingForTesting());

    loop_->runUntil(10.0);
    // First offer one second after arrival; finished at the second; the timer stops one tick
    // later.
    EXPECT_EQ(receiver_->offers, (std::vector<TestReceiver::Offer>{{1.5, 1}, {2.5, 1}}));
    EXPECT_EQ(receiver_->stops, 1);
    EXPECT_FALSE(receiver_->isExaminingForTesting());
    EXPECT_EQ(loop_->scheduledTimerCount(), 0u);
    EXPECT_TRUE(receiver_->hasHandledAllDevices());

    // A new arrival starts it again.
    addUsb(4817, 4099, 3);
    loop_->runPending();
    EXPECT_EQ(receiver_->starts, 2);
}

TEST_F(ReceiverTest, RemovedDevicesAndDuplicates) {
    receiver_->listenForNotificationsForVendorID(4817, 4099);
    io_registry_entry_t stick = addUsb(4817, 4099, 1);
    io_registry_entry_t keeper = addUsb(4817, 4099, 2);
    loop_->runPending();
    // Unplugged before its first tick: never offered.
    registry().removeEntry(stick);
    loop_->runFor(3.0);
    EXPECT_EQ(receiver_->offers, (std::vector<TestReceiver::Offer>{{1.0, 2}, {2.0, 2}, {3.0, 2}}));

    // The same device twice is offered twice per tick; one removal takes both.
    receiver_->offers.clear();
    auto again = QVIODevice::deviceWithServiceEntry(keeper);
    receiver_->addDevice(again);
    receiver_->addDevice(nullptr);
    EXPECT_EQ(receiver_->addedIODevices().size(), 2u);
    loop_->runFor(1.0);
    EXPECT_EQ(receiver_->offers.size(), 2u);
    receiver_->removeDevice(again);
    EXPECT_TRUE(receiver_->hasHandledAllDevices());

    // A removal batch for a device that is not listed changes nothing; a device without a
    // location is still removed by its own snapshot.
    auto listed = snapshot(5);
    auto unplaced = QVIODevice::deviceWithServiceEntry(addUsb(4817, 4099, {}));
    receiver_->devicesAdded({listed, unplaced});
    receiver_->devicesRemoved({snapshot(6)});
    EXPECT_EQ(receiver_->addedIODevices().size(), 2u);
    receiver_->devicesRemoved({unplaced, snapshot(5)});
    EXPECT_TRUE(receiver_->hasHandledAllDevices());
    EXPECT_TRUE(receiver_->timeouts.empty());
}

TEST_F(ReceiverTest, TimeOutsOnePerTick) {
    auto first = snapshot(1);
    auto second = snapshot(2);
    receiver_->devicesAdded({first, second});
    loop_->runUntil(30.0);
    // Exactly 30 seconds old is not yet too old.
    EXPECT_TRUE(receiver_->timeouts.empty());
    EXPECT_EQ(receiver_->offers.size(), 60u);

    loop_->runUntil(31.0);
    EXPECT_EQ(receiver_->timeouts, (std::vector<TestReceiver::Offer>{{31.0, 1}}));
    // The first was offered once more before its time-out; the second waits for the next tick.
    EXPECT_EQ(receiver_->offers.back(), (TestReceiver::Offer{31.0, 1}));
    loop_->runUntil(32.0);
    EXPECT_EQ(receiver_->timeouts, (std::vector<TestReceiver::Offer>{{31.0, 1}, {32.0, 2}}));
    EXPECT_EQ(receiver_->offers.size(), 62u);

    // The age counts from the snapshot, not from its listing; the time-out is settable.
    auto old = snapshot(3);
    loop_->runUntil(40.0);
    receiver_->setDeviceHandlingTimeout(5.0);
    receiver_->addDevice(old);
    loop_->runUntil(41.0);
    EXPECT_EQ(receiver_->timeouts.back(), (TestReceiver::Offer{41.0, 3}));
}

TEST_F(ReceiverTest, BaseBehaviour) {
    auto base = std::make_shared<QVDeviceNotificationReceiver>();
    auto device = snapshot(7);
    base->addDevice(device);
    try {
        loop_->runFor(1.0);
        ADD_FAILURE() << "the base handleDevice did not raise";
    } catch (const qv::Exception& e) {
        EXPECT_EQ(e.name(), "NSInternalInconsistencyException");
        EXPECT_EQ(e.reason(), "Need to overwrite handleDevice: to actually do something");
    }
    base->timeoutHandlingDevice(device);
    EXPECT_EQ(lines_->back(), "Timeout handling device: " + device->description());

    qv::Workspace::setShared(
        std::make_shared<qv::FixedWorkspace>(std::set<std::string>{"com.example.Connect"}));
    EXPECT_TRUE(base->isApplicationRunning("com.example.Connect"));
    EXPECT_FALSE(base->isApplicationRunning("com.example.Other"));
    qv::Workspace::setShared(nullptr);

    // The exception left the base's timer scheduled, as any timer whose callback throws; it goes
    // with its receiver.
    EXPECT_EQ(loop_->scheduledTimerCount(), 1u);
    base.reset();
    EXPECT_EQ(loop_->scheduledTimerCount(), 0u);

    // A receiver that goes away stops its timer.
    auto transient = std::make_shared<TestReceiver>();
    transient->addDevice(device);
    EXPECT_EQ(loop_->scheduledTimerCount(), 1u);
    transient.reset();
    EXPECT_EQ(loop_->scheduledTimerCount(), 0u);
}

}  // namespace
