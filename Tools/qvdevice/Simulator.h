// The simulator behind `qvdevice simulate`: plays one scenario in virtual time through the real
// framework (observer, monitor, notification center, ejector, rules, modem library with scripted
// modems), as an application would use it, and collects every observable event in time order.
// Tests drive it through run() rather than by parsing the tool's output.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "SimulationEvent.h"
#include "SimulationScenario.h"

namespace qvdevice {

// Takes each event as it happens, in place of collecting it: a story may run for weeks of
// virtual time, or loop, and its events must not pile up.
using SimulationEventConsumer = std::function<void(SimulationEvent&&)>;

struct SimulationResult {
    bool ok = false;
    std::string error;                    // one line when !ok: nothing ran
    std::vector<SimulationEvent> events;  // empty when the events went to a consumer
    // The framework's state when the story ended: devices still waiting for identification, and
    // devices recognised and present.
    std::size_t pendingAtEnd = 0;
    std::size_t identifiedAtEnd = 0;
};

class Simulator {
  public:
    // Seconds played after the last timeline event when the scenario gives no end: long enough for
    // a 30 s handling time-out and a few polling rounds.
    static constexpr double kDefaultTail = 35.0;

    // `until` overrides the scenario's own end. With a consumer, each event goes to it at once
    // and none is kept; nothing reaches it when the scenario is refused before it starts.
    static SimulationResult run(const SimulationScenario& scenario,
                                std::optional<double> until = std::nullopt,
                                const SimulationEventConsumer& consumer = nullptr);
};

}  // namespace qvdevice
