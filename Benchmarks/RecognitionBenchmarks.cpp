// The recognition path as a whole: framework CPU per identified stick (no AT questioning), the
// monitor's start-up with every table row registered over a busy registry, and a long randomized
// hot-plug story through the simulator, in events per second.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>

#include "Application/QVPrioQueue.h"
#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Logging.h"
#include "Foundation/Platform.h"
#include "IOKit/IOKitLib.h"
#include "IOKit/Registry.h"
#include "Recognition/QVDeviceMonitor.h"
#include "RunLoop/VirtualRunLoop.h"
#include "qvdevice/Simulator.h"

namespace {

const std::string kTestDatabase = std::string(QV_TEST_DATA_DIR) + "/Simulator/test-database.plist";

class CountingDelegate : public QVDeviceEventCallbacks {
  public:
    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>&) override { ++available; }
    std::size_t available = 0;
};

// A fresh virtual world: loop, registry, center, quiet logs, the test database.
struct World {
    World() {
        qv::setNamedLogSink([](const std::string&, const std::string&) {});
        loop = std::make_shared<qv::VirtualRunLoop>();
        qv::RunLoop::setCurrent(loop);
        QVDeviceNotificationCenter::resetSharedForTesting();
        qv::Registry::resetShared();
        qv::Bundle::setPathForResource("DeviceDatabase", "plist", kTestDatabase);
    }
    ~World() {
        QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->removeAllNotifications();
        QVDeviceNotificationCenter::resetSharedForTesting();
        qv::Registry::resetShared();
        qv::Bundle::setPathForResource("DeviceDatabase", "plist", std::nullopt);
        qv::RunLoop::setCurrent(nullptr);
        qv::setNamedLogSink({});
    }
    std::shared_ptr<qv::VirtualRunLoop> loop;
};

io_registry_entry_t addStick(int vendor, int product, long long location) {
    auto& registry = qv::Registry::shared();
    qv::Value properties{qv::Dictionary{}};
    properties.set("idVendor", vendor);
    properties.set("idProduct", product);
    properties.set("locationID", location);
    properties.set("USB Product Name", "Stick");
    io_registry_entry_t stick =
        registry.addEntry(IO_OBJECT_NULL, "IOUSBDevice", "Stick", properties);
    for (int port = 0; port < 3; ++port) {
        io_registry_entry_t interface = registry.addEntry(stick, "IOUSBInterface", "IOUSBInterface",
                                                          qv::Value(qv::Dictionary{}));
        qv::Value tty{qv::Dictionary{}};
        const std::string name = "ttyUSB" + std::to_string(port);
        tty.set("IOTTYDevice", name);
        tty.set("IOCalloutDevice", "/dev/cu." + name);
        registry.addEntry(interface, "IOSerialBSDClient", "IOSerialBSDClient", tty);
    }
    return stick;
}

void BM_IdentificationOfAKnownStick(benchmark::State& state) {
    World world;
    CountingDelegate delegate;
    auto monitor = QVDeviceMonitor::create();
    monitor->setDelegate(&delegate);
    monitor->start();
    for (auto _ : state) {
        io_registry_entry_t stick = addStick(0x12D1, 0x1406, 0x1A100000);
        world.loop->runFor(2.0);  // arrival, first tick, announcement
        qv::Registry::shared().removeEntry(stick);
        world.loop->runFor(1.0);
    }
    monitor->setDelegate(nullptr);
    monitor->teardown();
    if (delegate.available != static_cast<std::size_t>(state.iterations())) {
        state.SkipWithError("a stick was not announced");
    }
    state.SetItemsProcessed(static_cast<int64_t>(delegate.available));
}
BENCHMARK(BM_IdentificationOfAKnownStick)->Unit(benchmark::kMicrosecond);

// A monitor made and started on the registry as it stands (its teardown is not measured).
void measureMonitorStarts(benchmark::State& state) {
    for (auto _ : state) {
        auto monitor = QVDeviceMonitor::create();
        monitor->start();
        benchmark::DoNotOptimize(monitor->registeredDevicesForTesting().size());
        state.PauseTiming();
        monitor->teardown();
        state.ResumeTiming();
    }
}

void BM_MonitorStartOnBusyRegistry(benchmark::State& state) {
    World world;
    for (int i = 0; i < 200; ++i) {
        // Mostly devices nobody watches, a few known sticks among them.
        if (i % 20 == 0) {
            addStick(0x12D1, 0x1406, 0x1A000000 + i);
        } else {
            addStick(0x046D, 0xC000 + i, 0x1B000000 + i);
        }
    }
    measureMonitorStarts(state);
}
BENCHMARK(BM_MonitorStartOnBusyRegistry)->Unit(benchmark::kMicrosecond);

// The anchor of the start above: the same registrations with nothing plugged in, so what the
// busy registry adds shows as the ratio of the two.
void BM_MonitorStartOnEmptyRegistry(benchmark::State& state) {
    World world;
    measureMonitorStarts(state);
}
BENCHMARK(BM_MonitorStartOnEmptyRegistry)->Unit(benchmark::kMicrosecond);

// A hot-plug on a modem pool: one known stick arrives and leaves while the monitor watches
// every table row and 200 other devices are plugged in.
void BM_HotPlugOnBusyRegistry(benchmark::State& state) {
    World world;
    for (int i = 0; i < 200; ++i) {
        addStick(0x046D, 0xC000 + i, 0x1B000000 + i);
    }
    auto monitor = QVDeviceMonitor::create();
    monitor->start();
    for (auto _ : state) {
        io_registry_entry_t stick = addStick(0x12D1, 0x1406, 0x1A100000);
        world.loop->runFor(2.0);
        qv::Registry::shared().removeEntry(stick);
        world.loop->runFor(1.0);
    }
    monitor->teardown();
}
BENCHMARK(BM_HotPlugOnBusyRegistry)->Unit(benchmark::kMicrosecond);

void BM_RandomizedStoryThroughSimulator(benchmark::State& state) {
    const int eventCount = static_cast<int>(state.range(0));
    qv::Json timeline = qv::Json::array();
    std::mt19937 random(7);
    std::vector<bool> present(6, false);
    double t = 0.5;
    for (int i = 0; i < eventCount; ++i) {
        t += std::uniform_real_distribution<double>(0.05, 4.0)(random);
        std::size_t which = random() % present.size();
        const std::string id = "stick" + std::to_string(which);
        if (present[which]) {
            timeline.push_back({{"at", t}, {"remove", id}});
        } else {
            qv::Json ports = qv::Json::array();
            for (int port = 0; port < 3; ++port) {
                const std::string tty = "ttyUSB" + std::to_string(which * 3 + port);
                ports.push_back({{"id", id + tty},
                                 {"class", "IOSerialBSDClient"},
                                 {"properties",
                                  {{"IOTTYDevice", tty}, {"IOCalloutDevice", "/dev/cu." + tty}}}});
            }
            timeline.push_back({{"at", t},
                                {"add",
                                 {{"parent", nullptr},
                                  {"entry",
                                   {{"id", id},
                                    {"class", "IOUSBDevice"},
                                    {"properties",
                                     {{"idVendor", 0x12D1},
                                      {"idProduct", 0x1406},
                                      {"locationID", 0x1A000000 + (int)which}}},
                                    {"children", ports}}}}}});
        }
        present[which] = !present[which];
    }
    qv::Json json = {{"options", {{"database", kTestDatabase}}}, {"timeline", timeline}};
    std::string error;
    auto scenario = qvdevice::SimulationScenario::fromJson(json, &error);
    if (!scenario) {
        state.SkipWithError(error.c_str());
        return;
    }
    std::size_t events = 0;
    for (auto _ : state) {
        auto result = qvdevice::Simulator::run(*scenario);
        events += result.events.size();
    }
    state.SetItemsProcessed(static_cast<int64_t>(eventCount) * state.iterations());
    state.counters["output_lines"] =
        benchmark::Counter(static_cast<double>(events), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_RandomizedStoryThroughSimulator)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
