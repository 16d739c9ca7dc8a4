// Port classification of an 8-port stick (a diagnostics-heavy data card) by each strategy, with
// the log hook installed as a host would have it.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "Events/QVIODevice.h"
#include "Foundation/Logging.h"
#include "IOKit/Registry.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"
#include "Model/QVUSBDevice.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

constexpr int kPorts = 8;

std::shared_ptr<QVIODevice> eightPortStick() {
    auto& registry = qv::Registry::shared();
    io_registry_entry_t device = registry.addEntry(
        IO_OBJECT_NULL, "IOUSBDevice", "",
        qv::Value(qv::Dictionary{{"idVendor", 6610}, {"idProduct", 4097}, {"locationID", 1}}));
    for (int i = 0; i < kPorts; ++i) {
        const std::string tty = "ttyUSB" + std::to_string(i);
        registry.addEntry(
            device, "IOSerialBSDClient", "",
            qv::Value(qv::Dictionary{{"IOTTYDevice", tty}, {"IOCalloutDevice", "/dev/cu." + tty}}));
    }
    registry.addEntry(device, "IOEthernetInterface", "",
                      qv::Value(qv::Dictionary{{"BSD Name", "wwan0"}}));
    return QVIODevice::deviceWithServiceEntry(device);
}

// Every port described, in reverse order, so each lookup walks part of the list.
std::shared_ptr<QVDeviceDatabaseEntry> entryFor(const std::string& strategy) {
    qv::Dictionary keys{{"DeviceDatabase.QuorvelID", 4817},
                        {"DeviceDatabase.PortIdentificationStrategy", strategy},
                        {"DeviceDatabase.Capabilities.Ethernet-0", "ControlWWANInterface"}};
    for (int port = 0; port < kPorts; ++port) {
        const int position = kPorts - 1 - port;
        std::string pattern = std::to_string(position);
        if (strategy == "ByFileEnding") {
            pattern = "usb" + pattern;
        } else if (strategy == "ByRegex") {
            pattern = "/dev/cu\\.ttyUSB" + pattern;
        }
        keys.set("DeviceDatabase.Pattern.Port-" + std::to_string(port), pattern);
        keys.set("DeviceDatabase.Capabilities.Port-" + std::to_string(port),
                 port == 0 ? "ALL_CAPABILITIES" : "GPSData, Optional");
    }
    return QVDeviceDatabaseEntry::entryFromDictionary(qv::Value(std::move(keys)));
}

void classify(benchmark::State& state, const std::string& strategy) {
    qv::RunLoop::setCurrent(std::make_shared<qv::VirtualRunLoop>());
    qv::Registry::resetShared();
    qv::setNamedLogSink([](const std::string&, const std::string&) {});
    auto io = eightPortStick();
    auto device = QVUSBDevice::device();
    device->setDatabaseEntry(entryFor(strategy));
    for (auto _ : state) {
        const bool classified = device->couldClassifyPortsFromIODevice(*io, true);
        benchmark::DoNotOptimize(classified);
    }
    if (device->interfaces().size() != kPorts + 1) {
        state.SkipWithError("classification did not find every port");
    }
    qv::setNamedLogSink({});
    qv::Registry::resetShared();
    qv::RunLoop::setCurrent(nullptr);
}

void BM_ClassifyEightPortsByPortNumber(benchmark::State& state) {
    classify(state, "ByPortNumber");
}
void BM_ClassifyEightPortsByFileEnding(benchmark::State& state) {
    classify(state, "ByFileEnding");
}
void BM_ClassifyEightPortsByRegex(benchmark::State& state) {
    classify(state, "ByRegex");
}

BENCHMARK(BM_ClassifyEightPortsByPortNumber);
BENCHMARK(BM_ClassifyEightPortsByFileEnding);
BENCHMARK(BM_ClassifyEightPortsByRegex);

}  // namespace
