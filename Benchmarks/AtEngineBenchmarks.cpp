// The AT engine over real pseudo-terminals with simulated modems: one request's round trip, 64
// ports identified at once on the one I/O thread, and what a silent port costs (its probe bound,
// 3 s by default, against the usual 3 s x 6 tries elsewhere). Real time throughout.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ModemSimulator.h"
#include "QVGsmKit/AtResponseReader.h"
#include "QVGsmKit/SerialGsmBackend.h"

namespace {

qvsim::ModemProfile e1750() {
    qvsim::ModemProfile profile;
    profile.name = "E1750";
    profile.noise = {"^RSSI:17"};
    profile.replies["AT+CGMI"] = {"huawei", "OK"};
    profile.replies["AT+CGMM"] = {"E1750", "OK"};
    return profile;
}

qv::SerialGsmOptions lockFree() {
    qv::SerialGsmOptions options;
    options.lockDirectories = {};  // no lock files: the benchmark measures the talking
    return options;
}

void BM_AtResponseReaderAnswer(benchmark::State& state) {
    const std::string bytes =
        "AT+COPS?\r\r\n^RSSI:17\r\n\r\n+COPS: 0,0,\"Vodafone.de\",2\r\n\r\n^MODE:5,4\r\n\r\nOK\r\n";
    qv::AtResponseReader reader;
    for (auto _ : state) {
        reader.begin("AT+COPS?");
        benchmark::DoNotOptimize(reader.feed(bytes.data(), bytes.size()));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_AtResponseReaderAnswer);

// The reader's CPU per answer line: a 64-line phonebook answer among reports, items = lines.
void BM_AtResponseReaderPerLine(benchmark::State& state) {
    std::string bytes = "AT+CPBR=1,64\r\r\n";
    for (int i = 0; i < 64; ++i) {
        bytes += "+CPBR: " + std::to_string(i) + ",\"+49301234567\",145,\"Name " +
                 std::to_string(i) + "\"\r\n";
        if (i % 8 == 0) {
            bytes += "\r\n^RSSI:17\r\n";
        }
    }
    bytes += "\r\nOK\r\n";
    qv::AtResponseReader reader;
    for (auto _ : state) {
        reader.begin("AT+CPBR=1,64");
        benchmark::DoNotOptimize(reader.feed(bytes.data(), bytes.size()));
    }
    state.SetItemsProcessed(state.iterations() * (64 + 8 + 2));
}
BENCHMARK(BM_AtResponseReaderPerLine);

// Command 3 over a pty against each shipped profile of a model with a Quorvel ID, with the
// profile's own latency, line ends, reports and byte-by-byte writes.
const char* const kIdentifiedProfiles[] = {
    "huawei-e1750.json",  "zte-mf626.json",     "zte-mf627.json",
    "sierra-mc8780.json", "novatel-xu870.json", "sony-ericsson-md300.json",
};

void BM_IdentifyProfileOverPty(benchmark::State& state) {
    std::string name = kIdentifiedProfiles[state.range(0)];
    state.SetLabel(name);
    std::string error;
    auto profile =
        qvsim::ModemProfile::fromFile(std::string(QV_MODEM_PROFILES_DIR) + "/" + name, &error);
    auto modem = profile ? qvsim::ModemSimulator::start(*profile, &error) : nullptr;
    if (!modem) {
        state.SkipWithError(error.c_str());
        return;
    }
    auto table = qv::ModemModelTable::fromFile(
        std::string(QV_MODEM_PROFILES_DIR) +
            "/../../../CoreLayer/QVDeviceObserver/Resources/ModemModels.json",
        &error);
    if (!table) {
        state.SkipWithError(error.c_str());
        return;
    }
    qv::SerialGsmBackend backend(lockFree(), *table);
    for (auto _ : state) {
        qv::SerialGsmResult result =
            backend.performAndWait(qv::SerialGsmRequest::Identify, modem->portPath());
        if (result.code != 0) {
            state.SkipWithError(result.reason.c_str());
            return;
        }
    }
}
BENCHMARK(BM_IdentifyProfileOverPty)
    ->DenseRange(0, 5)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Command 9 on one port: open, lock-free, "AT" and "AT+CGMM" with echo and noise, close.
void BM_AtRoundTripOverPty(benchmark::State& state) {
    std::string error;
    auto modem = qvsim::ModemSimulator::start(e1750(), &error);
    if (!modem) {
        state.SkipWithError(error.c_str());
        return;
    }
    qv::SerialGsmBackend backend(lockFree(), qv::ModemModelTable({{"huawei", "e1750", 320}}));
    for (auto _ : state) {
        qv::SerialGsmResult result =
            backend.performAndWait(qv::SerialGsmRequest::ModelInformation, modem->portPath());
        if (result.code != 0) {
            state.SkipWithError(result.reason.c_str());
            return;
        }
    }
}
BENCHMARK(BM_AtRoundTripOverPty)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Command 3 on 64 ports at once: every request in flight together on the one I/O thread.
void BM_IdentifySixtyFourPortsAtOnce(benchmark::State& state) {
    constexpr int kPorts = 64;
    std::vector<std::unique_ptr<qvsim::ModemSimulator>> modems;
    for (int i = 0; i < kPorts; ++i) {
        std::string error;
        modems.push_back(qvsim::ModemSimulator::start(e1750(), &error));
        if (!modems.back()) {
            state.SkipWithError(error.c_str());
            return;
        }
    }
    qv::SerialGsmBackend backend(lockFree(), qv::ModemModelTable({{"huawei", "e1750", 320}}));
    for (auto _ : state) {
        std::mutex mutex;
        std::condition_variable finished;
        int left = kPorts;
        int identified = 0;
        for (auto& modem : modems) {
            backend.perform(qv::SerialGsmRequest::Identify, modem->portPath(), {},
                            [&](qv::SerialGsmResult result) {
                                std::lock_guard<std::mutex> lock(mutex);
                                identified += result.code == 0 ? 1 : 0;
                                if (--left == 0) {
                                    finished.notify_one();
                                }
                            });
        }
        std::unique_lock<std::mutex> lock(mutex);
        finished.wait(lock, [&] { return left == 0; });
        if (identified != kPorts) {
            state.SkipWithError("a port was not identified");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kPorts);
}
BENCHMARK(BM_IdentifySixtyFourPortsAtOnce)->UseRealTime()->Unit(benchmark::kMillisecond);

// A port that never answers: command 3 gives up after the probe bound (the argument, in tenths of
// a second; 30 is the default 3 s).
void BM_SilentPortCost(benchmark::State& state) {
    qvsim::ModemProfile silent;
    silent.silent = true;
    std::string error;
    auto modem = qvsim::ModemSimulator::start(silent, &error);
    if (!modem) {
        state.SkipWithError(error.c_str());
        return;
    }
    qv::SerialGsmOptions options = lockFree();
    options.probeTimeout = static_cast<double>(state.range(0)) / 10.0;
    qv::SerialGsmBackend backend(options, qv::ModemModelTable());
    for (auto _ : state) {
        benchmark::DoNotOptimize(backend.identifyDevice(modem->portPath(), -1));
    }
}
BENCHMARK(BM_SilentPortCost)
    ->Arg(5)
    ->Arg(30)
    ->Iterations(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
