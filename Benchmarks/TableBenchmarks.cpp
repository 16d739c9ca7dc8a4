// The built-in table lookups: linear scans over 238 rows, expected well under a microsecond.
#include <benchmark/benchmark.h>

#include "QVDeviceKnowledge/QVDeviceTableLookups.h"

namespace {

// The last row's pair walks the whole table; an absent pair does too and finds nothing.
void BM_TableEntryForVendorIDProductID(benchmark::State& state) {
    const DevPropertyMatch& last = devicesInfo[kDevicesInfoRowCount - 1];
    const bool hit = state.range(0) != 0;
    const std::uint32_t product = hit ? last.productID : 0xFFFEu;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            QVDeviceTableLookups::tableEntryForVendorID(last.vendorID, product));
    }
}
BENCHMARK(BM_TableEntryForVendorIDProductID)->Arg(1)->Arg(0);

void BM_TableEntryForQV_ID(benchmark::State& state) {
    const std::int32_t id = static_cast<std::int32_t>(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(QVDeviceTableLookups::tableEntryForQV_ID(id));
    }
}
BENCHMARK(BM_TableEntryForQV_ID)->Arg(15583)->Arg(5090)->Arg(15354);

void BM_PowerUpDelay(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(QVDeviceTableLookups::powerUpDelayForVendorID(0x12D1, 0x1001));
    }
}
BENCHMARK(BM_PowerUpDelay);

void BM_GenericDeviceQVIDForVendorID(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(QVDeviceTableLookups::genericDeviceQVIDForVendorID(0x0421));
    }
}
BENCHMARK(BM_GenericDeviceQVIDForVendorID);

}  // namespace
