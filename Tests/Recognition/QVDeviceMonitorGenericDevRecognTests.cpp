#include "Recognition/QVDeviceMonitorGenericDevRecogn.h"

#include "Events/QVIODevice.h"
#include "Foundation/Exception.h"
#include "MonitorFixture.h"

using Calls = std::vector<std::string>;

TEST_F(MonitorTest, GenericRecogniserWatchesEveryUsbDeviceButNoSingleProduct) {
    auto generic = QVDeviceMonitorGenericDevRecogn::getInstance();
    ASSERT_TRUE(std::dynamic_pointer_cast<QVDeviceMonitorGenericDevRecogn>(generic));
    EXPECT_EQ(QVDeviceMonitor::getInstance(), generic);  // one shared slot for both classes
    try {
        generic->listenForNotificationsForVendorID(0x12D1, 0x1406);
        ADD_FAILURE() << "no assertion";
    } catch (const qv::Exception& e) {
        EXPECT_EQ(e.name(), "NSInternalInconsistencyException");
        EXPECT_EQ(e.reason(), "Use of this method is prohibited!");
    }
    EXPECT_EQ(syslog_,
              Calls{"*** Assertion failure in "
                    "CoreLayer/QVDeviceObserver/Source/QVDeviceMonitorGenericDevRecogn:211"});

    auto plain = QVDeviceMonitor::create();
    plain->start();
    generic->start();
    EXPECT_TRUE(generic->registeredDevicesForTesting().empty());
    EXPECT_EQ(countLines("Registering for device notifications"), 1u);  // the plain one's
    plug(1, 0x12D1, 0x15FF);  // a Huawei product the table does not list
    loop_->runPending();
    EXPECT_EQ(generic->addedIODevices().size(), 1u);
    EXPECT_TRUE(plain->addedIODevices().empty());
}

TEST_F(MonitorTest, GenericAttemptNeedsAFamilyAndUsesTheIdentifiedListAsItIs) {
    auto generic = std::static_pointer_cast<QVDeviceMonitorGenericDevRecogn>(
        QVDeviceMonitorGenericDevRecogn::create());
    generic->setDelegate(&delegate_);
    // Novatel is in the table but has no generic family.
    EXPECT_FALSE(generic->didIdentifyGenericIODevice(
        QVIODevice::deviceWithServiceEntry(plug(1, 0x1410, 0x7777))));
    EXPECT_TRUE(delegate_.calls.empty());

    // After a teardown there is no list of identified devices, and neither a generic start nor
    // a generic success makes one.
    generic->teardown();
    generic->start();
    auto option = QVIODevice::deviceWithServiceEntry(plug(2, 0x0AF0, 0x7FFF, 1));
    EXPECT_TRUE(generic->didIdentifyGenericIODevice(option));
    EXPECT_EQ(delegate_.calls, (Calls{"started 2", "available 2"}));
    EXPECT_EQ(delegate_.devices.back()->quorvelID(), 15354);
    EXPECT_FALSE(generic->identifiedDevices());
    EXPECT_TRUE(gsm_->calls().empty()) << "the Option family is not questioned";
}
