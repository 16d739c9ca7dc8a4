#include <string>
#include <vector>

#include "QVGsmKit/ScriptedGsmBackend.h"
#include "QVUSBDeviceFixture.h"

namespace {

using Lines = std::vector<std::string>;
using Paths = std::vector<std::string>;

class QVUSBDeviceATTest : public QVUSBDeviceTest {
  protected:
    void TearDown() override {
        qv::GsmBackend::setCurrent(nullptr);
        QVUSBDeviceTest::TearDown();
    }

    std::shared_ptr<qv::ScriptedGsmBackend> install(const qv::Value& modems) {
        std::string error;
        auto backend = qv::ScriptedGsmBackend::fromDescription(modems, &error);
        EXPECT_NE(backend, nullptr) << error;
        qv::GsmBackend::setCurrent(backend);
        return backend;
    }

    static Paths triedPorts(const qv::ScriptedGsmBackend& backend) {
        Paths paths;
        for (const auto& call : backend.calls()) {
            paths.push_back(call.portPath);
        }
        return paths;
    }
};

const qv::Value kModelInfo =
    qv::Dictionary{{"pmn", "Mobile Connect"}, {"manSpecificNumber", "GT-4711"}, {"model", "E220"}};

TEST_F(QVUSBDeviceATTest, ProbesSkipDiagnosticsGpsAndControlPortsAndStopAtTheFirstAnswer) {
    auto io = stick({"HUAWEI-DIAG0", "ttyGps1", "WWANcntl2", "ttyUSB3", "ttyUSB4", "ttyUSB5"});
    auto backend = install(qv::Dictionary{
        // The skipped ports would answer; they are never asked.
        {"HUAWEI-DIAG0", qv::Dictionary{{"identify", qv::Dictionary{{"deviceId", 1}}}}},
        {"ttyGps1", qv::Dictionary{{"identify", qv::Dictionary{{"deviceId", 1}}}}},
        {"WWANcntl2", qv::Dictionary{{"identify", qv::Dictionary{{"deviceId", 1}}}}},
        {"ttyUSB3", qv::Dictionary{{"identify", qv::Dictionary{{"error", 12}}}}},
        {"ttyUSB4", qv::Dictionary{{"identify", qv::Dictionary{{"deviceId", 241}}},
                                   {"modelInfo", kModelInfo}}},
        {"ttyUSB5", qv::Dictionary{{"identify", qv::Dictionary{{"deviceId", 999}}}}},
    });
    auto device = QVUSBDevice::device();
    ASSERT_TRUE(device->couldIdentifyWithATCommandsFromIODevice(*io));
    EXPECT_EQ(device->quorvelID(), 241);
    EXPECT_EQ(triedPorts(*backend), (Paths{"/dev/cu.ttyUSB3", "/dev/cu.ttyUSB4"}));
    EXPECT_EQ(backend->calls()[1].deviceId, -1);

    backend->clearCalls();
    const qv::Value details = device->getDeviceDetails(*io);
    EXPECT_EQ(details, qv::Value(qv::Dictionary{{"GTCode", "GT-4711"},
                                                {"ProductMarketingName", "Mobile Connect"}}));
    EXPECT_EQ(lines_->back(), "device INFO: Mobile Connect GT-4711");
    // ttyUSB3 does not answer command 9 either; the record's ID goes with the command.
    EXPECT_EQ(triedPorts(*backend), (Paths{"/dev/cu.ttyUSB3", "/dev/cu.ttyUSB4"}));
    EXPECT_EQ(backend->calls()[1].deviceId, 241);
}

TEST_F(QVUSBDeviceATTest, PortsThePlatformMarkedAreNeverProbedWhateverTheirNames) {
    auto io = stick({"ttyUSB0", "ttyUSB1", "ttyUSB2", "ttyUSB3"});
    // udev rules marked ttyUSB0 as diagnostics, ttyUSB1 as GPS, ttyUSB2 as no modem port; the
    // serial clients are the interfaces' only children.
    auto& registry = qv::Registry::shared();
    const char* marks[] = {"QCDM", "GPS", "Ignore", "AT"};
    auto interfaces = registry.entryChildren(io->representedEntry());
    ASSERT_EQ(interfaces.size(), 4u);
    for (std::size_t i = 0; i < interfaces.size(); ++i) {
        registry.setProperties(registry.entryChildren(interfaces[i])[0],
                               qv::Value(qv::Dictionary{{"PortFunction", marks[i]}}));
    }
    io->updateFromIORegistry();
    auto backend = install(qv::Dictionary{
        {"ttyUSB0", qv::Dictionary{{"identify", qv::Dictionary{{"deviceId", 1}}}}},
        {"ttyUSB1", qv::Dictionary{{"identify", qv::Dictionary{{"deviceId", 2}}}}},
        {"ttyUSB2", qv::Dictionary{{"identify", qv::Dictionary{{"deviceId", 3}}}}},
        {"ttyUSB3", qv::Dictionary{{"identify", qv::Dictionary{{"deviceId", 241}}}}},
    });
    auto device = QVUSBDevice::device();
    ASSERT_TRUE(device->couldIdentifyWithATCommandsFromIODevice(*io));
    EXPECT_EQ(device->quorvelID(), 241);
    EXPECT_EQ(triedPorts(*backend), (Paths{"/dev/cu.ttyUSB3"}));
    // The marks only keep AT away: the ports are still the device's.
    EXPECT_EQ(io->portPaths().size(), 4u);
}

TEST_F(QVUSBDeviceATTest, ProbesThatFindNoModem) {
    auto io = stick({"ttyUSB0", "ttyDiag1"});
    install(qv::Dictionary{
        {"ttyUSB0", qv::Dictionary{{"modelInfo", qv::Dictionary{{"pmn", "Mobile Connect"}}}}}});
    auto device = QVUSBDevice::device();
    device->setQuorvelID(4817);
    EXPECT_FALSE(device->couldIdentifyWithATCommandsFromIODevice(*io));
    EXPECT_EQ(device->quorvelID(), 4817);
    EXPECT_EQ(lines_->back(), "Serial Recognition died");
    // The modem answers command 9 without a GT code: an empty dictionary, not nil.
    const qv::Value details = device->getDeviceDetails(*io);
    ASSERT_TRUE(details.isDictionary());
    EXPECT_EQ(details.count(), 0u);

    install(qv::Dictionary{});
    EXPECT_TRUE(device->getDeviceDetails(*io).isNil());
    EXPECT_EQ(lines_->back(), "Device info died");
}

TEST_F(QVUSBDeviceATTest, ModelNameFromTheDeviceInfoPortOnly) {
    auto io = stick({"ttyUSB0", "ttyUSB1"});
    auto backend = install(qv::Dictionary{
        {"ttyUSB0", qv::Dictionary{{"modelInfo", qv::Dictionary{{"model", "wrong port"}}}}},
        {"ttyUSB1", qv::Dictionary{{"modelInfo", kModelInfo}}},
    });
    auto device = recordWithEntry({{"DeviceDatabase.PortIdentificationStrategy", "ByPortNumber"},
                                   {"DeviceDatabase.Pattern.Port-0", "0"},
                                   {"DeviceDatabase.Capabilities.Port-0", "SMS"},
                                   {"DeviceDatabase.Pattern.Port-1", "1"},
                                   {"DeviceDatabase.Capabilities.Port-1", "DeviceInfo"}});
    device->setQuorvelID(4817);
    EXPECT_FALSE(device->fetchDeviceNameUsingCGMMFromSuitablePort().has_value());
    ASSERT_TRUE(device->couldClassifyPortsFromIODevice(*io, true));
    EXPECT_EQ(device->fetchDeviceNameUsingCGMMFromSuitablePort(), "E220");
    EXPECT_EQ(triedPorts(*backend), Paths{"/dev/cu.ttyUSB1"});
    EXPECT_EQ(backend->calls()[0].deviceId, 4817);
    EXPECT_FALSE(device->fetchDeviceNameUsingCGMM(std::nullopt).has_value());
    // No skipping on an explicit port, and an error is nil.
    install(qv::Dictionary{{"ttyDIAG9", qv::Dictionary{{"modelInfo", kModelInfo}}}});
    EXPECT_EQ(QVUSBDevice::fetchDeviceForDeviceWithQVID(1, "/dev/cu.ttyDIAG9"), "E220");
    EXPECT_FALSE(QVUSBDevice::fetchDeviceForDeviceWithQVID(1, "/dev/cu.ttyUSB1").has_value());
}

}  // namespace
