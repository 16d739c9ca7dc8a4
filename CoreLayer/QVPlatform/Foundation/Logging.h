// The framework's three output channels, each a seam:
// - the named log: every call looks up the host's exported function QVLogToNamedLog in the running
//   process (dlsym, at each use) and calls it as (log name, "%s", message); when the process
//   exports none, nothing is logged;
// - the system log (syslog);
// - standard output.
// Tests and the simulator install a sink that receives every line instead. Sinks are process-wide
// and may be called from any thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "Format.h"

namespace qv {

inline constexpr const char* kDeviceRecognitionLog = "DeviceRecognition";

using NamedLogSink = std::function<void(const std::string& logName, const std::string& message)>;
using LineSink = std::function<void(const std::string& line)>;

void logToNamedLog(const std::string& logName, const std::string& message);
void logToSystemLog(const std::string& message);
void writeToStandardOutput(const std::string& line);

// Installing an empty function restores the real channel.
void setNamedLogSink(NamedLogSink sink);
void setSystemLogSink(LineSink sink);
void setStandardOutputSink(LineSink sink);
// The sinks installed now, empty for the real channels (to put back later).
NamedLogSink namedLogSink();
LineSink systemLogSink();
LineSink standardOutputSink();

// Whether a named-log line goes anywhere: a sink is installed, or the process exports the host's
// hook. Lets callers skip rendering lines nobody receives.
bool namedLogIsListening();

// Renders one of the framework's own texts and writes it to the "DeviceRecognition" log; renders
// nothing when nobody listens.
template <class... Args>
void logRecognition(std::string_view fmt, const Args&... args) {
    if (namedLogIsListening()) {
        logToNamedLog(kDeviceRecognitionLog, format(fmt, args...));
    }
}

template <class... Args>
void logSystem(std::string_view fmt, const Args&... args) {
    logToSystemLog(format(fmt, args...));
}

}  // namespace qv
