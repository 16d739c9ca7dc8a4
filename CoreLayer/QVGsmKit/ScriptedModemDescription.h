// qv::ScriptedModemDescription: what the scripted modem backend answers, port by port, read from a
// property-list value (the simulator reads it from JSON). The format is documented in
// docs/scripted-modems.md. Reading checks everything before anything runs: a bad description is
// refused with a message that names the port and the field.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/Value.h"
#include "GsmBackend.h"

namespace qv {

// Ports are keyed by path; a key given as a port name is read as gsmPortPath() of it. A key that
// gsmPortKeyProblem() refuses refuses the description.
// The answers of one port; a field left out means the modem does not answer that command.
struct ScriptedModemPort {
    std::optional<GsmDeviceIdentification> identify;
    std::optional<GsmModelInformation> modelInfo;
    std::optional<std::int32_t> groundInit;
    std::optional<GsmAnswer> deviceInfo;
    std::vector<GsmAnswer> networkInfo;  // one per request, the last one repeating
    double latency = 0.0;                // seconds per command or request
};

class ScriptedModemDescription {
  public:
    // nil reads as a description of no port at all.
    static std::optional<ScriptedModemDescription> parse(const Value& description,
                                                         std::string* error);

    // The port with this path, or nullptr.
    const ScriptedModemPort* port(const std::string& path) const;
    std::vector<std::string> portPaths() const;

  private:
    std::map<std::string, ScriptedModemPort> ports_;
};

}  // namespace qv
