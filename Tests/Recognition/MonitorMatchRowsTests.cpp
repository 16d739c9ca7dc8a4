// The database match's rows that a whole story rarely reaches: an entry that wants serial ports
// meeting a device without any, and the allow test asked for device details without an IO device.
#include "Events/QVIODevice.h"
#include "Model/QVUSBDevice.h"
#include "MonitorFixture.h"

TEST_F(MonitorTest, MatchRefusesAPortlessDeviceWhoseEntryWantsPortsAndAllowsWithoutDetails) {
    auto monitor = QVDeviceMonitor::create();
    monitor->setDelegate(&delegate_);
    // An E1750 that shows only a network interface.
    io_registry_entry_t stick = addUsb(0x12D1, 0x1406, 7);
    addBsd(stick, "IOEthernetInterface", "wwan0");
    auto ioDevice = QVIODevice::deviceWithServiceEntry(stick);
    ioDevice->updateFromIORegistry();
    ASSERT_FALSE(ioDevice->hasSerialPorts());
    ASSERT_FALSE(ioDevice->isMissingSerialAndEthernetInterfaces());

    auto record = QVUSBDevice::device();
    record->setQuorvelID(320);
    record->initializeFromIODevice(*ioDevice);
    EXPECT_EQ(monitor->tryToMatchDeviceDatabaseEntryForQVDevice(record, ioDevice,
                                                                QVDeviceMonitor::kApproachTable),
              QVDeviceMonitor::kMatchRejected);
    EXPECT_EQ(countLines("Device is recognized does not have any port mappings. Throwing it away!"),
              1u);
    EXPECT_FALSE(record->databaseEntry()) << "a refused device gets no entry";

    // Rules that want the model's details: found by AT commands, there is no IO device to ask,
    // so the details are nil and the verdict is the plain one.
    monitor->setAllowedDevicesRules(qv::Value(
        qv::Array{qv::Value(qv::Dictionary{{"QuorvelID", 320}, {"GTCode", "GT-OTHER"}})}));
    auto questioned = QVUSBDevice::device();
    questioned->setQuorvelID(320);
    EXPECT_EQ(monitor->isAllowedDevice(questioned, nullptr), QVDeviceMonitor::kMatchAllowed);
    EXPECT_EQ(lines_->back(), "Device info died");
    EXPECT_TRUE(gsm_->calls().empty()) << "no port was asked for details";
    // A rule that forbids the model still refuses it without details.
    monitor->setAllowedDevicesRules(qv::Value(qv::Array{
        qv::Value(qv::Dictionary{{"QuorvelID", 320}, {"GTCode", "GT-OTHER"}, {"Allowed", 0}})}));
    EXPECT_EQ(monitor->isAllowedDevice(questioned, nullptr), QVDeviceMonitor::kMatchRejected);
}
