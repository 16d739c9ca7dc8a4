// One line of `qvdevice simulate` output: when (virtual seconds from the start), what kind, and
// the fields of that kind, in the order they were added.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "Foundation/JsonValue.h"

namespace qvdevice {

struct SimulationEvent {
    double t = 0.0;
    std::string kind;
    qv::Json fields = qv::Json::object();

    // {"t":..,"kind":..,<fields>} on one line.
    qv::Json toJson() const;
    // The aligned human form of --pretty.
    std::string prettyLine() const;
};

void writeEvents(std::ostream& out, const std::vector<SimulationEvent>& events, bool pretty);

}  // namespace qvdevice
