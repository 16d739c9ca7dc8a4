// `qvdevice simulate` scenarios on any bytes read as JSON: the scenario is refused with a reason or
// accepted, never a crash, and the modems of an accepted one are read as the simulator reads them.
// The timeline and modem readers underneath have fuzz targets of their own that also play what
// they accept; this one covers the options and how the parts are put together.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "FuzzJsonInput.h"
#include "QVGsmKit/ScriptedGsmBackend.h"
#include "SimulationScenario.h"

namespace {

constexpr std::size_t kMaxInputSize = 8192;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::optional<qv::Json> json = fuzzInputAsJson(data, size, kMaxInputSize);
    if (!json) {
        return 0;
    }
    std::string error;
    const auto scenario = qvdevice::SimulationScenario::fromJson(*json, &error);
    if (!scenario) {
        if (error.empty()) {
            std::fprintf(stderr, "a scenario was refused without a reason\n");
            std::abort();
        }
        return 0;
    }
    if (scenario->options.rules && !scenario->options.rules->isArray()) {
        std::fprintf(stderr, "rules that are not an array were accepted\n");
        std::abort();
    }
    (void)qv::ScriptedGsmBackend::fromDescription(scenario->modems, &error);
    return 0;
}
