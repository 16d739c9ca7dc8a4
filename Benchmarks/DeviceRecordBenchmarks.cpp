// The device record: the dictionary form of a recognised stick, and that form as JSON, which the
// simulator writes into every output line that names a device.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "Foundation/JsonValue.h"
#include "Model/QVSerialInterface.h"
#include "Model/QVUSBDevice.h"

namespace {

// A three-port stick as the monitor leaves it once identified.
std::shared_ptr<QVUSBDevice> identifiedStick() {
    auto device = QVUSBDevice::device();
    device->setAvailable(true);
    device->setQuorvelID(320);
    device->setUUID(qv::Value::integer(0x1A000000));
    device->setProductName(std::string("E1750"));
    device->setVendorName(std::string("Huawei"));
    device->setDriverBundle(std::string("option"));
    const char* roles[][2] = {{"IS_MODEM", "IS_DATA_PORT"},
                              {"IS_CONTROL_PORT", "IS_STATUS_PORT"},
                              {"IS_PCUI_PORT", "IS_APPLICATION_PORT"}};
    for (int port = 0; port < 3; ++port) {
        device->addInterface(QVSerialInterface::portWithCapabilities(
            {"IS_SERIAL_INTERFACE", roles[port][0], roles[port][1]},
            "/dev/cu.ttyUSB" + std::to_string(port)));
    }
    return device;
}

void BM_DeviceRecordDictionary(benchmark::State& state) {
    auto device = identifiedStick();
    for (auto _ : state) {
        benchmark::DoNotOptimize(device->toDictionary());
    }
}
BENCHMARK(BM_DeviceRecordDictionary);

// What an output line pays per device: the dictionary, its JSON, and freeing both.
void BM_DeviceRecordAsJson(benchmark::State& state) {
    auto device = identifiedStick();
    for (auto _ : state) {
        benchmark::DoNotOptimize(qv::jsonFromValue(device->toDictionary()));
    }
}
BENCHMARK(BM_DeviceRecordAsJson);

}  // namespace
