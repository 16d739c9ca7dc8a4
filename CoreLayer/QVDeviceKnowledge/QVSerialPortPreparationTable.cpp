// Sticks that start as a driver CD and show their serial ports only once switched. ZTE first,
// then the one Option model, then the Huawei quick-start models; Huawei 0x1F1A is left out on
// purpose (neither subscribed nor switched).
#include "QVDeviceKnowledge/QVSerialPortPreparationTable.h"

#include "QVDeviceKnowledge/QVDeviceVendors.h"

namespace {

constexpr auto kEject = QVSerialPortPreparation::kEjectDriverDisk;
constexpr auto kEjectThenReEnumerate =
    QVSerialPortPreparation::kEjectDriverDiskThenReEnumerateIfPortless;
constexpr auto kQuickStart = QVSerialPortPreparation::kQuickStartSwitch;

constexpr SerialPortPreparationMatch kRows[] = {
    {kZTEVendorID, 0x0040, kEject},
    {kZTEVendorID, 0x2000, kEject},
    {kZTEVendorID, 0x1001, kEject},
    {kZTEVendorID, 0x1171, kEject},
    {kZTEVendorID, 0x1013, kEject},
    {kZTEVendorID, 0x1175, kEject},
    {kZTEVendorID, 0x1179, kEject},
    {kZTEVendorID, 0x0101, kEject},
    {kZTEVendorID, 0x0115, kEject},
    {kZTEVendorID, 0x1007, kEject},
    {kZTEVendorID, 0x1009, kEject},
    {kZTEVendorID, 0x1017, kEject},
    {kOptionVendorID, 0x7501, kEjectThenReEnumerate},
    {kHuaweiVendorID, 0x1F15, kQuickStart},
    {kHuaweiVendorID, 0x1F16, kQuickStart},
    {kHuaweiVendorID, 0x1F17, kQuickStart},
    {kHuaweiVendorID, 0x1F18, kQuickStart},
    {kHuaweiVendorID, 0x1F19, kQuickStart},
    {kHuaweiVendorID, 0x1F1B, kQuickStart},
    {kHuaweiVendorID, 0x1F1C, kQuickStart},
    {kHuaweiVendorID, 0x1F1D, kQuickStart},
    {kHuaweiVendorID, 0x1F1E, kQuickStart},
};

}  // namespace

std::span<const SerialPortPreparationMatch> QVSerialPortPreparationTable::rows() {
    return kRows;
}

const SerialPortPreparationMatch* QVSerialPortPreparationTable::rowForVendorID(
    std::uint32_t vendorID, std::uint32_t productID) {
    for (const SerialPortPreparationMatch& row : kRows) {
        if (row.vendorID == vendorID && row.productID == productID) {
            return &row;
        }
    }
    return nullptr;
}
