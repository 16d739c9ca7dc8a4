// Small readers shared by the scenario's parts (options, timeline, application actions,
// preparation): each names the offending field in its error, as "timeline[3].at: ...".
#pragma once

#include <string>

#include "Foundation/JsonValue.h"

namespace qvdevice {

// Sets `error` (when given) to "WHERE: MESSAGE" and answers false.
bool failAt(std::string* error, const std::string& where, const std::string& message);

// A time in a story: a finite number of seconds from 0 to the longest virtual time a run takes.
bool readScenarioSeconds(const qv::Json& json, const std::string& where, double& out,
                         std::string* error);

}  // namespace qvdevice
