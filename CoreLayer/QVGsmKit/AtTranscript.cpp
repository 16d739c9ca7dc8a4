#include "AtTranscript.h"

#include <atomic>
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

}  // namespace

void AtTranscript::setListener(std::shared_ptr<AtTranscriptListener> newListener) {
    std::lock_guard<std::mutex> lock(gMutex);
    gListening.store(newListener != nullptr, std::memory_order_release);
    gListener = std::move(newListener);
}

void AtTranscript::commandSent(const std::string& portPath, const std::string& command,
                               double seconds) {
    if (auto current = listener()) {
        current->commandSent(portPath, command, seconds);
    }
}

void AtTranscript::bytesReceived(const std::string& portPath, std::string_view bytes,
                                 double seconds) {
    if (auto current = listener()) {
        current->bytesReceived(portPath, bytes, seconds);
    }
}

}  // namespace qv
