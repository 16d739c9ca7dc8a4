#include "Logging.h"

#include <dlfcn.h>
#include <syslog.h>

#include <atomic>
#include <cstdio>
#include <mutex>

namespace qv {

namespace {

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}
NamedLogSink& namedSink() {
    static NamedLogSink sink;
    return sink;
}
LineSink& systemSink() {
    static LineSink sink;
    return sink;
}
LineSink& stdoutSink() {
    static LineSink sink;
    return sink;
}

using HostLogFunction = void (*)(const char* logName, const char* format, ...);

// Mirrors whether a named sink is installed, so the check needs no lock.
std::atomic<bool>& namedSinkInstalled() {
    static std::atomic<bool> installed{false};
    return installed;
}

}  // namespace

bool namedLogIsListening() {
    if (namedSinkInstalled().load(std::memory_order_acquire)) {
        return true;
    }
    // Looked up at every use, as the line itself would be: the host may export its hook only
    // after loading us.
    return dlsym(RTLD_DEFAULT, "QVLogToNamedLog") != nullptr;
}

void logToNamedLog(const std::string& logName, const std::string& message) {
    NamedLogSink sink;
    {
        std::lock_guard<std::mutex> lock(sinkMutex());
        sink = namedSink();
    }
    if (sink) {
        sink(logName, message);
        return;
    }
    // Looked up at every use: the host may export its hook only after loading us.
    void* symbol = dlsym(RTLD_DEFAULT, "QVLogToNamedLog");
    if (symbol == nullptr) {
        return;
    }
    auto hook = reinterpret_cast<HostLogFunction>(symbol);
    hook(logName.c_str(), "%s", message.c_str());
}

void logToSystemLog(const std::string& message) {
    LineSink sink;
    {
        std::lock_guard<std::mutex> lock(sinkMutex());
        sink = systemSink();
    }
    if (sink) {
        sink(message);
        return;
    }
    syslog(LOG_NOTICE, "%s", message.c_str());
}

void writeToStandardOutput(const std::string& line) {
    LineSink sink;
    {
        std::lock_guard<std::mutex> lock(sinkMutex());
        sink = stdoutSink();
    }
    if (sink) {
        sink(line);
        return;
    }
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void setNamedLogSink(NamedLogSink sink) {
    std::lock_guard<std::mutex> lock(sinkMutex());
    namedSinkInstalled().store(static_cast<bool>(sink), std::memory_order_release);
    namedSink() = std::move(sink);
}

void setSystemLogSink(LineSink sink) {
    std::lock_guard<std::mutex> lock(sinkMutex());
    systemSink() = std::move(sink);
}

void setStandardOutputSink(LineSink sink) {
    std::lock_guard<std::mutex> lock(sinkMutex());
    stdoutSink() = std::move(sink);
}

NamedLogSink namedLogSink() {
    std::lock_guard<std::mutex> lock(sinkMutex());
    return namedSink();
}

LineSink systemLogSink() {
    std::lock_guard<std::mutex> lock(sinkMutex());
    return systemSink();
}

LineSink standardOutputSink() {
    std::lock_guard<std::mutex> lock(sinkMutex());
    return stdoutSink();
}

}  // namespace qv
