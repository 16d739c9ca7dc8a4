// Device events: one examination tick over many pending devices (the per-device cost must stay
// flat as the list grows), and a snapshot refresh of an 8-port modem in a busy registry.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "Events/QVDeviceNotificationReceiver.h"
#include "Events/QVIODevice.h"
#include "IOKit/IOKitLib.h"
#include "IOKit/Registry.h"
#include "Preparation/QVDriverDiskEjector.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

class CountingReceiver : public QVDeviceNotificationReceiver {
  public:
    void handleDevice(const std::shared_ptr<QVIODevice>& device) override {
        handled += device->vendorID() != 0 ? 1 : 0;
    }
    std::size_t handled = 0;
};

// A modem stick below `parent`: one interface per port, each with a serial client.
io_registry_entry_t addModem(qv::Registry& registry, io_registry_entry_t parent, int location,
                             int ports) {
    io_registry_entry_t stick =
        registry.addEntry(parent, "IOUSBDevice", "",
                          qv::Value(qv::Dictionary{{"idVendor", 4817},
                                                   {"idProduct", 4099},
                                                   {"locationID", location},
                                                   {"USB Product Name", "Modem"}}));
    for (int port = 0; port < ports; ++port) {
        io_registry_entry_t iface = registry.addEntry(stick, "IOUSBInterface", "", {});
        io_registry_entry_t driver = registry.addEntry(
            iface, "HuaweiDataCardDriver", "",
            qv::Value(qv::Dictionary{{"CFBundleIdentifier", "com.huawei.driver.DataCard"}}));
        std::string tty = "ttyUSB" + std::to_string(location * 8 + port);
        registry.addEntry(
            driver, "IOSerialBSDClient", "",
            qv::Value(qv::Dictionary{{"IOTTYDevice", tty}, {"IOCalloutDevice", "/dev/cu." + tty}}));
    }
    return stick;
}

template <class Receiver>
void examinationTick(benchmark::State& state) {
    const int devices = static_cast<int>(state.range(0));
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::RunLoop::setCurrent(loop);
    qv::Registry::resetShared();
    qv::Registry& registry = qv::Registry::shared();
    auto receiver = std::make_shared<Receiver>();
    // Nothing times out and nothing is finished: every tick offers every device.
    receiver->setDeviceHandlingTimeout(1e12);
    for (int i = 0; i < devices; ++i) {
        // Stick without ports or CD yet: the ejector refreshes it and waits.
        io_registry_entry_t stick = registry.addEntry(
            IO_OBJECT_NULL, "IOUSBDevice", "",
            qv::Value(qv::Dictionary{{"idVendor", 4817}, {"idProduct", 4099}, {"locationID", i}}));
        registry.addEntry(stick, "IOUSBInterface", "", {});
        receiver->addDevice(QVIODevice::deviceWithServiceEntry(stick));
    }
    for (auto _ : state) {
        loop->runFor(1.0);
    }
    state.SetItemsProcessed(state.iterations() * devices);
    receiver.reset();
    qv::RunLoop::setCurrent(nullptr);
    qv::Registry::resetShared();
}

void BM_ExaminationTick(benchmark::State& state) {
    examinationTick<CountingReceiver>(state);
}
BENCHMARK(BM_ExaminationTick)->RangeMultiplier(4)->Range(16, 256);

// The ejector refreshes each waiting device from the registry on every tick.
void BM_EjectorExaminationTick(benchmark::State& state) {
    examinationTick<QVDriverDiskEjector>(state);
}
BENCHMARK(BM_EjectorExaminationTick)->RangeMultiplier(4)->Range(16, 256);

// A fresh shared registry of 2,000 entries: other modems of 4 ports (13 entries each) around the
// measured stick of 8 ports, which it answers.
io_registry_entry_t crowdedRegistryWithStick() {
    qv::Registry::resetShared();
    qv::Registry& registry = qv::Registry::shared();
    io_registry_entry_t controller = registry.addEntry(
        IO_OBJECT_NULL, "AppleUSBEHCI", "",
        qv::Value(qv::Dictionary{{"CFBundleIdentifier", "com.apple.driver.AppleUSBEHCI"}}));
    int location = 1;
    while (registry.liveObjectCount() + 25 < 2000) {
        addModem(registry, controller, ++location, 4);
    }
    return addModem(registry, controller, 1, 8);
}

// Refreshes of the stick's snapshot in the crowded registry; with `changeFirst`, a port of the
// stick changes before each, so the walk cannot be skipped.
void measureSnapshotRefreshes(benchmark::State& state, bool changeFirst) {
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::RunLoop::setCurrent(loop);
    const io_registry_entry_t stick = crowdedRegistryWithStick();
    qv::Registry& registry = qv::Registry::shared();
    state.counters["registry_entries"] = static_cast<double>(registry.liveObjectCount());
    const io_registry_entry_t port = registry.entryDescendants(stick).back();
    auto device = QVIODevice::deviceWithServiceEntry(stick);
    int round = 0;
    for (auto _ : state) {
        if (changeFirst) {
            registry.setProperties(port, qv::Value(qv::Dictionary{{"Round", ++round}}));
        }
        device->updateFromIORegistry();
        benchmark::DoNotOptimize(device->portPaths().size());
    }
    device.reset();
    qv::RunLoop::setCurrent(nullptr);
    qv::Registry::resetShared();
}

// A refresh with nothing changed since the last one.
void BM_SnapshotRefresh(benchmark::State& state) {
    measureSnapshotRefreshes(state, false);
}
BENCHMARK(BM_SnapshotRefresh);

// The same refresh after a change below the device.
void BM_SnapshotRefreshAfterAChange(benchmark::State& state) {
    measureSnapshotRefreshes(state, true);
}
BENCHMARK(BM_SnapshotRefreshAfterAChange);

// The first snapshot of the same device: the driver bundle walk runs up the provider chain.
void BM_SnapshotCreation(benchmark::State& state) {
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::RunLoop::setCurrent(loop);
    const io_registry_entry_t stick = crowdedRegistryWithStick();
    for (auto _ : state) {
        auto device = QVIODevice::deviceWithServiceEntry(stick);
        benchmark::DoNotOptimize(device->driverBundle());
    }
    qv::RunLoop::setCurrent(nullptr);
    qv::Registry::resetShared();
}
BENCHMARK(BM_SnapshotCreation);

}  // namespace
