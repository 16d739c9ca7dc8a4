#include "AtTranscript.h"

#include <atomic>
#include <chrono>
#include <mutex>

namespace qv {

namespace {

std::atomic<bool> gListening{false};
std::mutex gMutex;
std::shared_ptr<AtTranscriptListener> gListener;

std::shared_ptr<AtTranscriptListener> listener() {
    if (!gListening.load(std::memory_order_acquire)) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(gMutex);
    return gListener;
}

double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

void AtTranscript::setListener(std::shared_ptr<AtTranscriptListener> newListener) {
    std::lock_guard<std::mutex> lock(gMutex);
    gListening.store(newListener != nullptr, std::memory_order_release);
    gListener = std::move(newListener);
}

void AtTranscript::commandSent(const std::string& portPath, const std::string& command) {
    if (auto current = listener()) {
        current->commandSent(portPath, command, monotonicSeconds());
    }
}

void AtTranscript::bytesReceived(const std::string& portPath, std::string_view bytes) {
    if (auto current = listener()) {
        current->bytesReceived(portPath, bytes, monotonicSeconds());
    }
}

}  // namespace qv
