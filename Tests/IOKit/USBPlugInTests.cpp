#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "IOKit/IOCFPlugIn.h"
#include "IOKit/IOKitLib.h"
#include "IOKit/RecordingUSBDeviceAccess.h"
#include "IOKit/Registry.h"

namespace {

using Operations = std::vector<std::string>;

class USBPlugInTest : public ::testing::Test {
  protected:
    void SetUp() override {
        qv::Registry::resetShared();
        access_ = std::make_shared<qv::RecordingUSBDeviceAccess>();
        qv::USBDeviceAccess::setShared(access_);
    }
    void TearDown() override {
        qv::USBDeviceAccess::setShared(nullptr);
        qv::Registry::resetShared();
    }

    io_service_t addStick(int location) {
        return qv::Registry::shared().addEntry(
            IO_OBJECT_NULL, "IOUSBDevice", "",
            qv::Value(qv::Dictionary{
                {"idVendor", 0x0AF0}, {"idProduct", 0x7501}, {"locationID", location}}));
    }

    // The re-enumeration walk for every attached device of one model, as the serial port enabler
    // makes it; answers the statuses it met.
    std::vector<kern_return_t> reEnumerate(int vendor, int product) {
        std::vector<kern_return_t> statuses;
        mach_port_t master = MACH_PORT_NULL;
        EXPECT_EQ(IOMasterPort(bootstrap_port, &master), KERN_SUCCESS);
        qv::Value matching = IOServiceMatching("IOUSBDevice");
        matching.set("idVendor", vendor);
        matching.set("idProduct", product);
        io_iterator_t iterator = IO_OBJECT_NULL;
        IOServiceGetMatchingServices(master, matching, &iterator);
        while (io_service_t service = IOIteratorNext(iterator)) {
            std::shared_ptr<IOCFPlugInInterface> plugIn;
            std::int32_t score = 0;
            statuses.push_back(IOCreatePlugInInterfaceForService(
                service, kIOUSBDeviceUserClientTypeID, kIOCFPlugInInterfaceID, &plugIn, &score));
            IOObjectRelease(service);
            if (!plugIn) {
                continue;
            }
            std::shared_ptr<IOUSBDeviceInterface> device;
            statuses.push_back(plugIn->QueryInterface(kIOUSBDeviceInterfaceID, &device));
            IODestroyPlugInInterface(plugIn);
            if (!device) {
                continue;
            }
            IOReturn open = device->USBDeviceOpen();
            statuses.push_back(open);
            if (open == kIOReturnSuccess) {
                statuses.push_back(device->USBDeviceReEnumerate(0));
            }
            device.reset();  // Release, without closing
        }
        IOObjectRelease(iterator);
        mach_port_deallocate(mach_task_self(), master);
        return statuses;
    }

    std::shared_ptr<qv::RecordingUSBDeviceAccess> access_;
};

TEST_F(USBPlugInTest, ReEnumerationWalkReachesEachDeviceOfTheModel) {
    io_service_t first = addStick(0x01200000);
    io_service_t busy = addStick(0x01300000);
    qv::Registry::shared().addEntry(
        IO_OBJECT_NULL, "IOUSBDevice", "",
        qv::Value(qv::Dictionary{{"idVendor", 0x19D2}, {"idProduct", 0x2000}}));
    access_->setOpenStatus(busy, kIOReturnExclusiveAccess);
    std::vector<std::string> observed;
    access_->setObserver([&](const qv::RecordingUSBDeviceAccess::Call& call) {
        observed.push_back(call.operation);
    });

    std::size_t liveBefore = qv::Registry::shared().liveObjectCount();
    EXPECT_EQ(
        reEnumerate(0x0AF0, 0x7501),
        (std::vector<kern_return_t>{kIOReturnSuccess, S_OK, kIOReturnSuccess, kIOReturnSuccess,
                                    kIOReturnSuccess, S_OK, kIOReturnExclusiveAccess}));
    EXPECT_EQ(qv::Registry::shared().liveObjectCount(), liveBefore);  // nothing leaked

    EXPECT_EQ(access_->operations(),
              (Operations{"create", "USBDeviceOpen", "USBDeviceReEnumerate(0)", "Release", "create",
                          "USBDeviceOpen", "Release"}));
    EXPECT_EQ(observed, Operations({"create", "USBDeviceOpen", "USBDeviceReEnumerate", "Release",
                                    "create", "USBDeviceOpen", "Release"}));
    const auto& calls = access_->calls();
    EXPECT_EQ(calls[0].service, first);
    EXPECT_EQ(calls[0].vendorID, 0x0AF0);
    EXPECT_EQ(calls[0].productID, 0x7501);
    EXPECT_EQ(calls[0].locationID, 0x01200000);
    EXPECT_EQ(calls[4].locationID, 0x01300000);
}

TEST_F(USBPlugInTest, RefusesWhatIsNoUSBDeviceAndWhatTheBackendCannotReach) {
    io_service_t stick = addStick(0x01200000);
    io_service_t disk = qv::Registry::shared().addEntry(stick, "IOMedia", "", {});
    std::shared_ptr<IOCFPlugInInterface> plugIn;
    std::int32_t score = -1;

    EXPECT_EQ(IOCreatePlugInInterfaceForService(disk, kIOUSBDeviceUserClientTypeID,
                                                kIOCFPlugInInterfaceID, &plugIn, &score),
              kIOReturnUnsupported);
    EXPECT_EQ(IOCreatePlugInInterfaceForService(stick, "SomeOtherType", kIOCFPlugInInterfaceID,
                                                &plugIn, &score),
              kIOReturnUnsupported);
    EXPECT_EQ(IOCreatePlugInInterfaceForService(0xdead, kIOUSBDeviceUserClientTypeID,
                                                kIOCFPlugInInterfaceID, &plugIn, &score),
              kIOReturnBadArgument);
    EXPECT_EQ(plugIn, nullptr);

    access_->setCreateStatus(stick, kIOReturnNoDevice);
    EXPECT_EQ(IOCreatePlugInInterfaceForService(stick, kIOUSBDeviceUserClientTypeID,
                                                kIOCFPlugInInterfaceID, &plugIn, &score),
              kIOReturnNoDevice);
    EXPECT_EQ(plugIn, nullptr);

    // The default backend looks on this machine's USB bus, where the made-up stick is not (or
    // which this sandbox may not show at all); the do-nothing backend reaches nothing.
    qv::USBDeviceAccess::setShared(nullptr);
    kern_return_t onThisMachine = IOCreatePlugInInterfaceForService(
        stick, kIOUSBDeviceUserClientTypeID, kIOCFPlugInInterfaceID, &plugIn, &score);
    EXPECT_TRUE(onThisMachine == kIOReturnNotFound || onThisMachine == kIOReturnUnsupported)
        << std::hex << onThisMachine;
    EXPECT_EQ(plugIn, nullptr);
    qv::USBDeviceAccess::setShared(std::make_shared<qv::UnsupportedUSBDeviceAccess>());
    EXPECT_EQ(IOCreatePlugInInterfaceForService(stick, kIOUSBDeviceUserClientTypeID,
                                                kIOCFPlugInInterfaceID, &plugIn, &score),
              kIOReturnUnsupported);

    // A plug-in answers only for the device interface; re-enumeration needs an open device.
    qv::USBDeviceAccess::setShared(access_);
    access_->setCreateStatus(stick, kIOReturnSuccess);
    ASSERT_EQ(IOCreatePlugInInterfaceForService(stick, kIOUSBDeviceUserClientTypeID,
                                                kIOCFPlugInInterfaceID, &plugIn, &score),
              kIOReturnSuccess);
    std::shared_ptr<IOUSBDeviceInterface> device;
    EXPECT_EQ(plugIn->QueryInterface("SomethingElse", &device), E_NOINTERFACE);
    EXPECT_EQ(device, nullptr);
    ASSERT_EQ(plugIn->QueryInterface(kIOUSBDeviceInterfaceID, &device), S_OK);
    EXPECT_EQ(device->USBDeviceReEnumerate(0), kIOReturnNotOpen);
    EXPECT_EQ(device->USBDeviceOpen(), kIOReturnSuccess);
    EXPECT_EQ(device->USBDeviceClose(), kIOReturnSuccess);
    EXPECT_EQ(device->USBDeviceClose(), kIOReturnNotOpen);
}

}  // namespace
