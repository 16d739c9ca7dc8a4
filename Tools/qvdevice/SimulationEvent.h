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
    // The device the line names, as the JSON text of its dictionary form; empty when it names
    // none. Kept as text, written once: a long story has tens of thousands of these.
    std::string deviceRecord;

    // The device record read back; null when the line names no device.
    qv::Json device() const;
    // {"t":..,"kind":..,<fields>,"device":..} on one line.
    std::string jsonLine() const;
    // The aligned human form of --pretty.
    std::string prettyLine() const;
};

void writeEvents(std::ostream& out, const std::vector<SimulationEvent>& events, bool pretty);

}  // namespace qvdevice
