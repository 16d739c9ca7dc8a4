// Builds simulator scenarios in code for the story tests: sticks with their interfaces, ports,
// driver CDs and network interfaces, plugged and unplugged at given virtual times.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"
#include "qvdevice/SimulationEvent.h"
#include "qvdevice/Simulator.h"

namespace qvtest {

struct StickSpec {
    std::string id;
    int vendorID = 0;
    int productID = 0;
    long long locationID = 0x1A100000;
    std::string productName = "Modem";
    std::vector<std::string> ttys;  // kernel names, in interface order
    std::optional<std::string> cdrom;
    std::optional<std::string> network;
};

// A Huawei E1750 in modem mode: in the built-in table (Quorvel ID 320), three ports, no disk.
StickSpec huaweiE1750(const std::string& id = "stick", long long location = 0x1A100000);
// The same stick still showing its driver CD ("sr0").
StickSpec huaweiE1750WithDriverCd(const std::string& id = "stick", long long location = 0x1A100000);

class StoryBuilder {
  public:
    StoryBuilder();

    // The whole stick at once.
    StoryBuilder& plug(double at, const StickSpec& stick);
    // Only the bare device, ports later with addPorts().
    StoryBuilder& plugBare(double at, const StickSpec& stick);
    StoryBuilder& addPorts(double at, const StickSpec& stick);
    StoryBuilder& removeEntry(double at, const std::string& id);
    StoryBuilder& unplug(double at, const std::string& stickId) { return removeEntry(at, stickId); }
    StoryBuilder& option(const std::string& key, qv::Json value);
    StoryBuilder& modem(const std::string& tty, qv::Json description);

    qv::Json json() const { return scenario_; }
    qvdevice::SimulationResult run(std::optional<double> until = std::nullopt) const;

  private:
    qv::Json scenario_;
};

// The test database beside the fixtures.
std::string testDatabasePath();
// Plays a scenario given as JSON; a refused scenario or a failed run is a test failure.
qvdevice::SimulationResult runScenario(const qv::Json& json,
                                       std::optional<double> until = std::nullopt);

// Events of one kind (and call, when given), in order.
std::vector<qvdevice::SimulationEvent> eventsOf(const qvdevice::SimulationResult& result,
                                                const std::string& kind,
                                                const std::string& call = "");
// Log messages of the named log, in order.
std::vector<std::string> logMessages(const qvdevice::SimulationResult& result);
bool hasLogLine(const qvdevice::SimulationResult& result, const std::string& message);
bool hasLogPrefix(const qvdevice::SimulationResult& result, const std::string& prefix);
// The time of the first event of that kind and call; -1 when there is none.
double firstTime(const qvdevice::SimulationResult& result, const std::string& kind,
                 const std::string& call = "");

}  // namespace qvtest
