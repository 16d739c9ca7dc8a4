#include "Recognition/QVDeviceMonitor.h"

#include <set>

#include "Events/QVIODevice.h"
#include "MonitorFixture.h"
#include "Rules/QVAllowedDeviceRulesEntry.h"

using Calls = std::vector<std::string>;

TEST_F(MonitorTest, RegistersEachTableKeyOncePerStart) {
    auto monitor = QVDeviceMonitor::create();
    EXPECT_TRUE(monitor->isKnownVendor(0x12D1));
    EXPECT_FALSE(monitor->isKnownVendor(0x1931));  // PCI cards only
    EXPECT_FALSE(monitor->isKnownVendor(0x0013));  // PC Cards only
    monitor->start();
    monitor->start();
    EXPECT_EQ(countLines("Registering for device notifications"), 1u);
    const auto keys = monitor->registeredDevicesForTesting();
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), keys.size());
    // Three rows share this pair; a device of it arrives once, not three times.
    EXPECT_EQ(std::count(keys.begin(), keys.end(), "4817_4097_IOUSBDevice"), 1);
    EXPECT_EQ(std::count(keys.begin(), keys.end(), "6449_12_IOPCIDevice"), 0);
    plug(1, 0x12D1, 0x1001);
    loop_->runPending();
    EXPECT_EQ(monitor->addedIODevices().size(), 1u);

    monitor->teardown();
    EXPECT_FALSE(monitor->identifiedDevices());
    EXPECT_TRUE(monitor->registeredDevicesForTesting().empty());
    monitor->start();
    EXPECT_EQ(monitor->registeredDevicesForTesting(), keys);
    ASSERT_TRUE(monitor->identifiedDevices());
    EXPECT_TRUE(monitor->identifiedDevices()->empty());
}

TEST_F(MonitorTest, OnlyRecognisedDevicesGoMissingAndTeardownReportsThemInOrder) {
    auto monitor = QVDeviceMonitor::create();
    monitor->setDelegate(&delegate_);
    monitor->start();
    std::vector<io_registry_entry_t> sticks;
    for (int location = 1; location <= 4; ++location) {
        sticks.push_back(plug(location));
    }
    io_registry_entry_t bare = addUsb(0x12D1, 0x1406, 5);  // its ports never appear
    io_registry_entry_t ec1260 = plug(6, 0x12D1, 0x140B);  // not in the database
    loop_->runFor(3.0);
    EXPECT_EQ(delegate_.calls,
              (Calls{"started 1", "available 1", "started 2", "available 2", "started 3",
                     "available 3", "started 4", "available 4", "started 6", "unidentified 6"}));

    delegate_.calls.clear();
    registry().removeEntry(bare);
    registry().removeEntry(ec1260);
    registry().removeEntry(sticks[1]);
    loop_->runPending();
    EXPECT_EQ(delegate_.calls, Calls{"missing 2"});
    EXPECT_FALSE(delegate_.devices.back()->isAvailable());

    delegate_.calls.clear();
    monitor->teardown();
    EXPECT_EQ(delegate_.calls, (Calls{"missing 1", "missing 3", "missing 4"}));
    for (std::size_t i = delegate_.devices.size() - 3; i < delegate_.devices.size(); ++i) {
        EXPECT_TRUE(delegate_.devices[i]->isAvailable()) << "teardown does not mark records";
    }
    EXPECT_EQ(
        countLines(
            "QVDeviceMonitor: notify delegate that device became missing: VID:4817, PID: 5126"),
        3u);
    EXPECT_FALSE(monitor->identifiedDevices());
}

TEST_F(MonitorTest, PowerUpWaitIsCountedFromArrivalBeforeQuestioning) {
    // This Huawei product stands on several rows: no table ID, at most two seconds of delay.
    auto monitor = QVDeviceMonitor::create();
    monitor->setDelegate(&delegate_);
    const double arrival = loop_->now();
    auto device = QVIODevice::deviceWithServiceEntry(plug(1, 0x12D1, 0x1001));
    loop_->runUntil(arrival + 0.3);
    std::vector<double> questionedAt;
    gsm_->setObserver(
        [&](const qv::ScriptedGsmBackend::Call&) { questionedAt.push_back(loop_->now()); });

    EXPECT_FALSE(monitor->didIdentifyIODevice(device));
    // Logged at 0.3, 0.8, 1.3 and 1.8 s, each with the whole delay.
    EXPECT_EQ(countLines("PowerUpDelayFromIODevice waiting  before portAccess 2 seconds\n"), 4u);
    ASSERT_FALSE(questionedAt.empty());
    EXPECT_DOUBLE_EQ(questionedAt.front() - arrival, 2.3);
    // No modem answered: undecided, tried again at the next tick.
    EXPECT_EQ(delegate_.calls, Calls{"started 1"});
}

TEST_F(MonitorTest, AcceptFlagRulesEntriesAndTheAllowedDevicesDump) {
    qv::SystemVersion::set(0x104F);
    EXPECT_TRUE(QVDeviceMonitor::create()->acceptNotAllowedDevices());
    qv::SystemVersion::set(0x1050);
    auto monitor = QVDeviceMonitor::create();
    EXPECT_FALSE(monitor->acceptNotAllowedDevices());

    monitor->setAllowedDevicesRules(qv::Value(
        qv::Array{qv::Value(qv::Dictionary{{"QuorvelID", 320}, {"DeviceName", "First"}}),
                  qv::Value(qv::Dictionary{{"VendorID", 4817}}),
                  qv::Value(qv::Dictionary{{"QuorvelID", "320"}, {"DeviceName", "Second"}}),
                  qv::Value(qv::Dictionary{{"QuorvelID", 15412}})}));
    ASSERT_TRUE(monitor->allowedDeviceRulesEntryForQuorvelID(320));
    EXPECT_EQ(monitor->allowedDeviceRulesEntryForQuorvelID(320)->deviceName(), "First");
    EXPECT_TRUE(monitor->allowedDeviceRulesEntryForQuorvelID(15412));
    EXPECT_FALSE(monitor->allowedDeviceRulesEntryForQuorvelID(321));

    monitor->dumpAllowedDevices();
    EXPECT_EQ(
        lines_->back(),
        "\n ==== List of allowed devices from (dumpAllowedDevices): ===== \n320= First \n320= "
        "Second \n15412= (null)  ");
}
