// Device database: loading a file (against a bare libplist parse of the same text), and the
// lookups port classification and the device record make per device.
#include <benchmark/benchmark.h>
#include <plist/plist.h>

#include <filesystem>
#include <memory>
#include <string>

#include "Knowledge/QVDeviceDatabase.h"

namespace {

// The shipped database when the build tree has it, otherwise the test family.
std::string databasePath() {
    std::string shipped = std::string(QV_BUILD_RESOURCES_DIR) + "/DeviceDatabase.plist";
    if (std::filesystem::exists(shipped)) {
        return shipped;
    }
    return std::string(QV_TEST_DATA_DIR) + "/Database/Family.plist";
}

void BM_DatabaseLoad(benchmark::State& state) {
    std::optional<std::string> text = QVDeviceDatabase::readDatabaseText(databasePath());
    for (auto _ : state) {
        auto database = QVDeviceDatabase::databaseFromPropertyListString(text);
        benchmark::DoNotOptimize(database);
    }
    state.SetLabel(databasePath());
}
BENCHMARK(BM_DatabaseLoad);

void BM_BareLibplistParse(benchmark::State& state) {
    std::optional<std::string> text = QVDeviceDatabase::readDatabaseText(databasePath());
    for (auto _ : state) {
        plist_t root = nullptr;
        plist_from_xml(text->data(), static_cast<uint32_t>(text->size()), &root);
        benchmark::DoNotOptimize(root);
        plist_free(root);
    }
}
BENCHMARK(BM_BareLibplistParse);

// An inherited key: the child misses, the climb finds it in the family entry.
void BM_InheritedLookup(benchmark::State& state) {
    auto database = QVDeviceDatabase::databaseFromFile(std::string(QV_TEST_DATA_DIR) +
                                                       "/Database/Family.plist");
    for (auto _ : state) {
        const auto& entry = database->entryForQuorvelID(1001);
        benchmark::DoNotOptimize(&entry->portIdentificationStrategy());
    }
}
BENCHMARK(BM_InheritedLookup);

void BM_PortLayout(benchmark::State& state) {
    auto database = QVDeviceDatabase::databaseFromFile(std::string(QV_TEST_DATA_DIR) +
                                                       "/Database/Family.plist");
    const auto& entry = database->entryForQuorvelID(1001);
    for (auto _ : state) {
        benchmark::DoNotOptimize(entry->portIdentificationPatternsAndCapabilities());
    }
}
BENCHMARK(BM_PortLayout);

}  // namespace
