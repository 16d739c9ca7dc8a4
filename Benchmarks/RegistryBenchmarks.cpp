// Registry adds with matching notifications armed, delivered through the port's run-loop source.
#include <benchmark/benchmark.h>

#include <memory>

#include "IOKit/IOKitLib.h"
#include "IOKit/Registry.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

void countAndDrain(void* refCon, io_iterator_t iterator) {
    auto* count = static_cast<std::size_t*>(refCon);
    while (io_object_t o = IOIteratorNext(iterator)) {
        ++*count;
        IOObjectRelease(o);
    }
}

void BM_RegistryAddsWithNotifications(benchmark::State& state) {
    const int adds = static_cast<int>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        auto loop = std::make_shared<qv::VirtualRunLoop>();
        qv::RunLoop::setCurrent(loop);
        qv::Registry::resetShared();
        IONotificationPortRef port = IONotificationPortCreate(kIOMasterPortDefault);
        qv::CFRunLoopAddSource(qv::CFRunLoopGetCurrent(), IONotificationPortGetRunLoopSource(port),
                               qv::kCFRunLoopCommonModes);
        std::size_t delivered = 0;
        // Twenty subscriptions, as a monitor registers one per table row; one of them matches.
        std::vector<io_iterator_t> iterators;
        for (int product = 0; product < 20; ++product) {
            qv::Value matching = IOServiceMatching("IOUSBDevice");
            matching.set("idVendor", 4817);
            matching.set("idProduct", product);
            io_iterator_t it = IO_OBJECT_NULL;
            IOServiceAddMatchingNotification(port, kIOMatchedNotification, matching, countAndDrain,
                                             &delivered, &it);
            countAndDrain(&delivered, it);
            iterators.push_back(it);
        }
        state.ResumeTiming();

        qv::Registry& registry = qv::Registry::shared();
        for (int i = 0; i < adds; ++i) {
            registry.addEntry(IO_OBJECT_NULL, "IOUSBDevice", "",
                              qv::Value(qv::Dictionary{
                                  {"idVendor", 4817}, {"idProduct", i % 40}, {"locationID", i}}));
            if (i % 16 == 15) {
                loop->runPending();
            }
        }
        loop->runPending();
        benchmark::DoNotOptimize(delivered);

        state.PauseTiming();
        for (io_iterator_t it : iterators) {
            IOObjectRelease(it);
        }
        IONotificationPortDestroy(port);
        qv::RunLoop::setCurrent(nullptr);
        qv::Registry::resetShared();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * adds);
}
BENCHMARK(BM_RegistryAddsWithNotifications)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
