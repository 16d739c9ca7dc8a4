// Reading a 1 MB XML property list shaped like the device database: our reader (libplist plus
// the scan and the conversion into qv::Value) against a bare libplist parse; the ASCII reader
// and the XML writer on the same data.
#include <benchmark/benchmark.h>
#include <plist/plist.h>

#include <string>

#include "Foundation/PropertyList.h"

namespace {

qv::Value deviceDatabase(std::size_t approximateXMLBytes) {
    qv::Value root;
    int id = 197;
    qv::Value devices;
    std::size_t estimate = 0;
    while (estimate < approximateXMLBytes) {
        qv::Value entry;
        entry.set("QuorvelID", id);
        entry.set("DeviceName", "Modem model " + std::to_string(id));
        entry.set("idVendor", 0x12d1);
        entry.set("idProduct", id * 7 % 65536);
        entry.set("PowerUpDelay", 2.5);
        entry.set("ShouldSupressDriverDisk", true);
        qv::Value ports;
        for (int port = 0; port < 3; ++port) {
            qv::Value description;
            description.set("Index", port);
            description.set("Capabilities", "GroundInit, SignalStrength, DataTransport");
            ports.append(std::move(description));
        }
        entry.set("Ports", std::move(ports));
        devices.append(std::move(entry));
        estimate += 800;
        ++id;
    }
    root.set("Devices", std::move(devices));
    return root;
}

const std::string& xmlText() {
    static const std::string text = qv::writeXMLPropertyList(deviceDatabase(1 << 20)).xml;
    return text;
}

void BM_ReadXMLPropertyList(benchmark::State& state) {
    const std::string& text = xmlText();
    for (auto _ : state) {
        qv::PropertyListResult result = qv::readXMLPropertyList(text);
        if (!result.ok()) {
            state.SkipWithError(result.error.c_str());
            break;
        }
        benchmark::DoNotOptimize(result.value);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ReadXMLPropertyList)->Unit(benchmark::kMillisecond);

void BM_LibplistFromXMLOnly(benchmark::State& state) {
    const std::string& text = xmlText();
    for (auto _ : state) {
        plist_t root = nullptr;
        plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &root);
        benchmark::DoNotOptimize(root);
        plist_free(root);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_LibplistFromXMLOnly)->Unit(benchmark::kMillisecond);

void BM_ReadASCIIPropertyList(benchmark::State& state) {
    // The description is the old text form of the same data.
    static const std::string text = deviceDatabase(1 << 20).description();
    for (auto _ : state) {
        qv::PropertyListResult result = qv::readASCIIPropertyList(text);
        if (!result.ok()) {
            state.SkipWithError(result.error.c_str());
            break;
        }
        benchmark::DoNotOptimize(result.value);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ReadASCIIPropertyList)->Unit(benchmark::kMillisecond);

void BM_WriteXMLPropertyList(benchmark::State& state) {
    static const qv::Value value = deviceDatabase(1 << 20);
    for (auto _ : state) {
        qv::PropertyListWriteResult result = qv::writeXMLPropertyList(value);
        benchmark::DoNotOptimize(result.xml);
    }
}
BENCHMARK(BM_WriteXMLPropertyList)->Unit(benchmark::kMillisecond);

}  // namespace
