#include "GsmBackend.h"

#include <mutex>
#include <utility>

#include "NullGsmBackend.h"

namespace qv {

namespace {
std::mutex gBackendMutex;
std::shared_ptr<GsmBackend> gBackend;
}  // namespace

std::string gsmPortPath(const std::string& nameOrPath) {
    if (!nameOrPath.empty() && nameOrPath.front() == '/') {
        return nameOrPath;
    }
    return "/dev/cu." + nameOrPath;
}

std::shared_ptr<GsmBackend> GsmBackend::current() {
    std::lock_guard<std::mutex> lock(gBackendMutex);
    if (gBackend) {
        return gBackend;
    }
    static const auto nullBackend = std::make_shared<NullGsmBackend>();
    return nullBackend;
}

bool GsmBackend::isInstalled() {
    std::lock_guard<std::mutex> lock(gBackendMutex);
    return gBackend != nullptr;
}

void GsmBackend::setCurrent(std::shared_ptr<GsmBackend> backend) {
    std::lock_guard<std::mutex> lock(gBackendMutex);
    gBackend = std::move(backend);
}

}  // namespace qv
