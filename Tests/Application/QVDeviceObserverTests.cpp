#include "Application/QVDeviceObserver.h"

#include "ObserverFixture.h"

using Calls = std::vector<std::string>;

TEST_F(ObserverTest, DefaultDeviceIsChosenFromTheListAndNeverCleared) {
    observer_->start();
    EXPECT_FALSE(observer_->defaultDevice());
    observer_->update();
    observer_->executeInBackground(*QVPrioQueue::getInstance());
    EXPECT_TRUE(gsm_->calls().empty());

    auto a = record(1);
    auto b = record(2);
    observer_->noteDeviceBecameAvailable(a);
    observer_->noteDeviceBecameAvailable(b);
    EXPECT_EQ(lines_->back(),
              "VQDeviceObserver.noteDeviceBecameAvailable:Device 'Stick 2' added...");
    for (int refused : {-1, 2, -7}) {
        observer_->setDefaultDevice(refused);
    }
    EXPECT_EQ(observer_->defaultDeviceIndex(), -1);
    observer_->setDefaultDevice(1);
    observer_->setDefaultDevice(-1);
    EXPECT_EQ(observer_->defaultDevice(), b);
    observer_->deviceInfoDidUpdate(answer_);

    // The application hears of A while it is still listed; the index stays and points past the
    // end now.
    observer_->noteDeviceBecameMissing(a);
    EXPECT_EQ(lines_->back(),
              "VQDeviceObserver.noteDeviceBecameMissing: Device 'Stick 1' removed...");
    EXPECT_EQ(observer_->defaultDeviceIndex(), 1);
    EXPECT_FALSE(observer_->defaultDevice());
    EXPECT_EQ(observer_->getDeviceInfo(), qv::Value(qv::Dictionary{}));
    observer_->noteStartedIdentifyingDevice(b);
    observer_->noteCouldNotIdentifyDevice(b);
    EXPECT_EQ(app_.calls, (Calls{"available 1", "available 2", "missing 1 listed"}));
}

TEST_F(ObserverTest, StopForgetsPresentDevicesWithoutMissingNotices) {
    observer_->start();
    plug(1);
    plug(2);
    plug(3, 0x12D1, 0x140B);  // rejected: the application hears nothing of it
    loop_->runFor(3.0);
    EXPECT_EQ(app_.calls, (Calls{"available 1", "available 2"}));

    observer_->stop();
    EXPECT_EQ(app_.calls.size(), 2u);
    EXPECT_EQ(countLines("QVDeviceMonitor: notify delegate that device became missing: VID:4817, "
                         "PID: 5126"),
              2u);
    EXPECT_FALSE(observer_->deviceMonitor()->identifiedDevices());
    EXPECT_EQ(observer_->deviceList().size(), 2u);  // readable until the next start
    observer_->start();
    EXPECT_TRUE(observer_->deviceList().empty());
}

TEST_F(ObserverTest, ModemRequestsGoToTheNetworkQueryPortOfTheDefaultDevice) {
    observer_->noteDeviceBecameAvailable(record(1, false));
    observer_->noteDeviceBecameAvailable(record(2));
    observer_->setDefaultDevice(0);
    observer_->devicesChanged();
    EXPECT_EQ(countLines("==> Device list changed"), 1u);
    // The default device has no port for network queries: it says so and asks nothing.
    EXPECT_EQ(lines_->back(),
              "Default device 'Stick 1' has no port for network queries: no modem request");
    EXPECT_TRUE(gsm_->calls().empty());

    observer_->setDefaultDevice(1);
    observer_->update();
    observer_->executeInBackground(*QVPrioQueue::getInstance());
    auto calls = gsm_->calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].operation, "groundInit");
    EXPECT_EQ(calls[0].script, "ATE1;V1\r\n[L2N]AT&F\r\n[L2N]AT+CMEE=1\r\n");
    EXPECT_EQ(calls[1].operation, "deviceInfo");
    EXPECT_EQ(calls[2].operation, "networkInfo");
    for (const auto& call : calls) {
        EXPECT_EQ(call.portPath, "/dev/cu.ttyUSB2");
        EXPECT_EQ(call.deviceId, 320);
    }

    observer_->setAutorepeatNetInfo(false);
    observer_->fireStartGetNetInfo();  // the queue is not started: the query waits
    EXPECT_TRUE(observer_->autorepeatNetInfo());
    EXPECT_EQ(QVPrioQueue::getInstance()->taskCountForTesting(2), 1u);
    observer_->networkInfoDidUpdate(answer_);
    EXPECT_EQ(observer_->getNetInfo(), answer_);
    EXPECT_EQ(lines_->back(), "==> Network Info did update");
    EXPECT_EQ(app_.calls.back(), "netinfo Alpha 2");
}
