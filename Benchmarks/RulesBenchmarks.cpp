// Allowed-device rules: reading a 64 KB enciphered rules file (the decipherment alone, and with
// the property-list parse), and one allow test that walks 1,000 rules.
#include <benchmark/benchmark.h>

#include <string>

#include "Foundation/PropertyList.h"
#include "Rules/Decryptor.h"
#include "Rules/NSData_Cipher.h"
#include "Rules/QVDeviceFilter.h"

namespace {

// Rules for one vendor's models, none of which names the probe device until the last.
qv::Value rulesList(std::size_t count) {
    qv::Array rules;
    for (std::size_t i = 0; i < count; ++i) {
        rules.push_back(qv::Dictionary{{"QuorvelID", static_cast<int>(1000 + i)},
                                       {"VendorID", 0x12D1},
                                       {"ProductID", static_cast<int>(0x1400 + i)},
                                       {"Allowed", 1},
                                       {"DeviceName", "Modem " + std::to_string(i)}});
    }
    return qv::Value(std::move(rules));
}

// An XML rules file of at least 64 KB, enciphered.
qv::Data encipheredRulesFile() {
    std::size_t count = 100;
    std::string xml;
    while (xml.size() < 64 * 1024) {
        xml = qv::writeXMLPropertyList(rulesList(count)).xml;
        count += 50;
    }
    return dataEncryptedWithPass(qv::Data(xml.begin(), xml.end()),
                                 QVDeviceFilter::kRulesPassPhrase);
}

void BM_RulesDecipher64KB(benchmark::State& state) {
    qv::Data file = encipheredRulesFile();
    for (auto _ : state) {
        auto plain = dataDecryptedWithPass(file, QVDeviceFilter::kRulesPassPhrase);
        benchmark::DoNotOptimize(plain);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.size()));
}
BENCHMARK(BM_RulesDecipher64KB);

void BM_RulesDecipherAndParse64KB(benchmark::State& state) {
    qv::Data file = encipheredRulesFile();
    auto decryptor = Decryptor::decryptor();
    for (auto _ : state) {
        qv::Value rules =
            decryptor->decryptDataIfNeededAndGetPropList(file, QVDeviceFilter::kRulesPassPhrase);
        benchmark::DoNotOptimize(rules);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.size()));
}
BENCHMARK(BM_RulesDecipherAndParse64KB);

void BM_IsAllowedDeviceOver1000Rules(benchmark::State& state) {
    QVDeviceFilter filter(rulesList(1000));
    // Named by the last rule only: the walk reads every rule.
    const QVDeviceFilterSubject device{1999, 0x12D1, 0x1400 + 999, "E1750", nullptr};
    for (auto _ : state) {
        benchmark::DoNotOptimize(filter.isAllowedDevice(device));
    }
}
BENCHMARK(BM_IsAllowedDeviceOver1000Rules);

}  // namespace
