#include "ScenarioFields.h"

#include <cmath>

#include "SimulationScenario.h"

namespace qvdevice {

bool failAt(std::string* error, const std::string& where, const std::string& message) {
    if (error != nullptr) {
        *error = where + ": " + message;
    }
    return false;
}

bool readScenarioSeconds(const qv::Json& json, const std::string& where, double& out,
                         std::string* error) {
    if (!json.is_number()) {
        return failAt(error, where, "must be a number of seconds");
    }
    const double seconds = json.get<double>();
    if (!std::isfinite(seconds) || seconds < 0.0 || seconds > kMaxVirtualSeconds) {
        return failAt(error, where,
                      "must be between 0 and " +
                          std::to_string(static_cast<long long>(kMaxVirtualSeconds)) + " seconds");
    }
    out = seconds;
    return true;
}

}  // namespace qvdevice
