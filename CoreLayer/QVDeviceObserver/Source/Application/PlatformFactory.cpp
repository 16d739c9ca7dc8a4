#include "PlatformFactory.h"

#include <mutex>
#include <utility>

#include "Events/RegistryFeedUsers.h"
#include "LiveDevicePlatform.h"
#include "QVGsmKit/SerialGsmBackend.h"

namespace qv {

namespace {

struct FactoryState {
    std::mutex mutex;
    std::shared_ptr<DevicePlatform> installed;
    std::shared_ptr<DevicePlatform> running;
    int users = 0;
};

FactoryState& state() {
    static auto* factory = new FactoryState;  // outlives every observer, even at exit
    return *factory;
}

}  // namespace

void PlatformFactory::install(std::shared_ptr<DevicePlatform> platform) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().installed = std::move(platform);
}

std::shared_ptr<DevicePlatform> PlatformFactory::installed() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().installed;
}

std::shared_ptr<DevicePlatform> PlatformFactory::makeLivePlatform() {
    return std::make_shared<LiveDevicePlatform>();
}

std::shared_ptr<GsmBackend> PlatformFactory::defaultModemBackend() {
    // The one place where the live framework's modem library is chosen: the AT engine on this
    // machine's serial ports.
    return std::make_shared<SerialGsmBackend>();
}

void PlatformFactory::observerStarted() {
    std::shared_ptr<DevicePlatform> starting;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        if (state().users++ != 0) {
            return;
        }
        starting = state().installed ? state().installed : makeLivePlatform();
        state().running = starting;
    }
    // Outside the lock: starting logs and may take a while (the enumeration).
    starting->start();
}

void PlatformFactory::observerStopped() {
    std::shared_ptr<DevicePlatform> stopping;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        if (state().users == 0 || --state().users != 0) {
            return;
        }
        stopping = std::move(state().running);
    }
    if (stopping) {
        stopping->stop();
    }
}

void PlatformFactory::resetForTesting() {
    std::shared_ptr<DevicePlatform> stopping;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        state().users = 0;
        stopping = std::move(state().running);
    }
    if (stopping) {
        stopping->stop();
    }
}

int PlatformFactory::observerCount() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().users;
}

void registryFeedUserStarted() {
    PlatformFactory::observerStarted();
}

void registryFeedUserStopped() {
    PlatformFactory::observerStopped();
}

}  // namespace qv
