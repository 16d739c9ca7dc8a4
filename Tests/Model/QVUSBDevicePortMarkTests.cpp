// Ports that udev rules mark as diagnostics or GPS while the database gives them data or control:
// logged once per device, and only then.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Model/QVUSBDeviceFixture.h"

namespace {

class QVUSBDevicePortMarkTest : public QVUSBDeviceTest {
  protected:
    // A three-port stick whose ports carry these udev marks ("" for none).
    std::shared_ptr<QVIODevice> markedStick(const std::vector<std::string>& marks) {
        auto io = stick({"ttyUSB0", "ttyUSB1", "ttyUSB2"});
        auto& registry = qv::Registry::shared();
        auto interfaces = registry.entryChildren(io->representedEntry());
        for (std::size_t i = 0; i < marks.size() && i < interfaces.size(); ++i) {
            if (!marks[i].empty()) {
                registry.setProperties(registry.entryChildren(interfaces[i])[0],
                                       qv::Value(qv::Dictionary{{"PortFunction", marks[i]}}));
            }
        }
        io->updateFromIORegistry();
        return io;
    }
    // Modem on port 0, control on port 1, GPS data on port 2.
    static std::shared_ptr<QVUSBDevice> modemControlGPS() {
        return recordWithEntry(
            qv::Dictionary{{"DeviceDatabase.PortIdentificationStrategy", "ByPortNumber"},
                           {"DeviceDatabase.Pattern.Port-0", "0"},
                           {"DeviceDatabase.Capabilities.Port-0", "DataTransport, ConnectInit"},
                           {"DeviceDatabase.Pattern.Port-1", "1"},
                           {"DeviceDatabase.Capabilities.Port-1", "NetworkQuery, SMS"},
                           {"DeviceDatabase.Pattern.Port-2", "2"},
                           {"DeviceDatabase.Capabilities.Port-2", "GPSData"}});
    }
    long conflictLines() const {
        return std::count_if(lines_->begin(), lines_->end(), [](const std::string& line) {
            return line.find("the model's port layout and the rules disagree") != std::string::npos;
        });
    }
};

TEST_F(QVUSBDevicePortMarkTest, DataOrControlOnADiagnosticsOrGPSPortIsLoggedOncePerDevice) {
    auto io = markedStick({"QCDM", "GPS", ""});
    auto device = modemControlGPS();
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
    ASSERT_EQ(conflictLines(), 2);
    const auto first = std::find_if(lines_->begin(), lines_->end(), [](const std::string& line) {
        return line.find("disagree") != std::string::npos;
    });
    EXPECT_EQ(*first,
              "Port /dev/cu.ttyUSB0 is marked QCDM by the udev rules, but the device database "
              "gives it data: the model's port layout and the rules disagree (Quorvel ID 4817)");
    EXPECT_NE((first + 1)->find("/dev/cu.ttyUSB1 is marked GPS"), std::string::npos);
    EXPECT_NE((first + 1)->find("gives it control"), std::string::npos);
    // Classifying the same device again (each identification does) adds no line.
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(conflictLines(), 2);
    // Another device with the same fault has its own report.
    auto other = modemControlGPS();
    ASSERT_TRUE(other->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(conflictLines(), 4);
}

TEST_F(QVUSBDevicePortMarkTest, AgreeingMarksAndUnmarkedPortsAreQuiet) {
    // GPS data on the GPS port, AT marks on data and control, and no marks at all: nothing to say.
    for (const auto& marks : std::vector<std::vector<std::string>>{
             {"AT", "AT", "GPS"}, {"", "", ""}, {"", "Ignore", "QCDM"}}) {
        auto io = markedStick(marks);
        auto device = modemControlGPS();
        ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
        qv::Registry::resetShared();
    }
    EXPECT_EQ(conflictLines(), 0);
    // Without classifying the serial ports there is nothing to compare.
    auto io = markedStick({"QCDM", "GPS", ""});
    EXPECT_TRUE(modemControlGPS()->couldClassifyPortsFromIODevice(*io, false));
    EXPECT_EQ(conflictLines(), 0);
}

}  // namespace
