// The libusb backend as far as it can be tried without a stick: which entries it refuses, that a
// model nobody has is not found, and that its location IDs are the registry's.
#include <gtest/gtest.h>

#include "IOKit/LibusbUSBDeviceAccess.h"
#include "IOKit/UdevMapping.h"

namespace {

TEST(LibusbUSBDeviceAccess, EncodesLocationsAsTheRegistryDoes) {
    const std::uint8_t ports[] = {2, 3, 1};
    EXPECT_EQ(qv::LibusbUSBDeviceAccess::locationID(1, ports, 2), 0x01230000u);
    EXPECT_EQ(qv::LibusbUSBDeviceAccess::locationID(3, ports, 3),
              qv::locationIDFromUSBName("3-2.3.1").value());
    EXPECT_EQ(qv::LibusbUSBDeviceAccess::locationID(1, ports, 0), 0u);  // a root hub has no ports
    // A port number that does not fit a nibble cannot be encoded.
    const std::uint8_t wide[] = {17};
    EXPECT_EQ(qv::LibusbUSBDeviceAccess::locationID(1, wide, 1), 0u);
}

TEST(LibusbUSBDeviceAccess, RefusesEntriesWithoutIDsAndFindsNoDeviceOfAnUnknownModel) {
    qv::LibusbUSBDeviceAccess access;
    IOReturn status = kIOReturnSuccess;
    qv::USBDeviceDescription description;
    description.properties = qv::Value(qv::Dictionary{{"idVendor", 0x12D1}});
    EXPECT_EQ(access.deviceInterface(description, &status), nullptr);
    EXPECT_EQ(status, kIOReturnBadArgument);

    // No such stick here (or no usbfs in this sandbox at all).
    description.properties =
        qv::Value(qv::Dictionary{{"idVendor", 0xFFFF}, {"idProduct", 0xFFFE}, {"locationID", 1}});
    EXPECT_EQ(access.deviceInterface(description, &status), nullptr);
    EXPECT_TRUE(status == kIOReturnNotFound || status == kIOReturnUnsupported)
        << std::hex << status;
}

}  // namespace
