// The world of a device monitor in the unit tests: the simulator's test database, a 10.5 system,
// recorded programs and a scripted modem library, on the virtual loop and registry of
// DeviceEventsTest. CallLog writes each delegate call down as "call location".
#pragma once

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Application/QVDeviceObserver.h"
#include "Application/SeamInstallation.h"
#include "Events/DeviceEventsFixture.h"
#include "Foundation/Platform.h"
#include "Foundation/Task.h"
#include "Model/QVDevice.h"
#include "QVGsmKit/ScriptedGsmBackend.h"
#include "Recognition/QVDeviceMonitor.h"

inline std::string tagOf(const std::string& call, const std::shared_ptr<QVDevice>& device) {
    const auto& uuid = device ? device->getUUID() : nullptr;
    return call + " " + std::to_string(uuid ? uuid->intValue() : 0);
}

class CallLog : public QVDeviceEventCallbacks {
  public:
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& d) override { add("missing", d); }
    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& d) override {
        add("available", d);
    }
    void noteCouldNotIdentifyDevice(const std::shared_ptr<QVDevice>& d) override {
        add("unidentified", d);
    }
    void noteStartedIdentifyingDevice(const std::shared_ptr<QVDevice>& d) override {
        add("started", d);
    }
    void add(const std::string& call, const std::shared_ptr<QVDevice>& device) {
        calls.push_back(tagOf(call, device));
        devices.push_back(device);
    }
    std::vector<std::string> calls;
    std::vector<std::shared_ptr<QVDevice>> devices;
};

class MonitorTest : public DeviceEventsTest {
  protected:
    void SetUp() override {
        DeviceEventsTest::SetUp();
        qv::Seams seams;
        seams.resources.push_back(
            {"DeviceDatabase", "plist",
             std::string(QV_TEST_DATA_DIR) + "/Simulator/test-database.plist"});
        seams.systemVersion = 0x1050;
        seams.taskLauncher = std::make_shared<qv::RecordingTaskLauncher>();
        seams.gsmBackend = gsm_;
        seams.systemLog = [this](const std::string& line) { syslog_.push_back(line); };
        monitorSeams_.emplace(seams);
    }
    void TearDown() override {
        monitorSeams_.reset();
        DeviceEventsTest::TearDown();
    }

    // A USB device with its serial ports; by default a Huawei E1750 (table ID 320, one second of
    // power-up delay, three ports in the test database).
    io_registry_entry_t plug(int location, int vendor = 0x12D1, int product = 0x1406,
                             int ports = 3) {
        io_registry_entry_t device = addUsb(vendor, product, location);
        for (int i = 0; i < ports; ++i) {
            addSerial(device, "ttyUSB" + std::to_string(location * 10 + i));
        }
        return device;
    }
    std::size_t countLines(const std::string& line) const {
        return static_cast<std::size_t>(std::count(lines_->begin(), lines_->end(), line));
    }

    std::shared_ptr<qv::ScriptedGsmBackend> gsm_ = std::make_shared<qv::ScriptedGsmBackend>();
    std::vector<std::string> syslog_;
    CallLog delegate_;

  private:
    std::optional<qv::SeamInstallation> monitorSeams_;
};
