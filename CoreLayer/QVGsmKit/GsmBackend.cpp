#include "GsmBackend.h"

#include <mutex>
#include <utility>

#include "NullGsmBackend.h"

namespace qv {

namespace {
constexpr std::size_t kMaxPortNameLength = 255;
std::mutex gBackendMutex;
std::shared_ptr<GsmBackend> gBackend;
}  // namespace

std::string gsmPortPath(const std::string& nameOrPath) {
    if (!nameOrPath.empty() && nameOrPath.front() == '/') {
        return nameOrPath;
    }
    return "/dev/cu." + nameOrPath;
}

bool isGsmPortName(std::string_view name) {
    if (name.empty() || name.size() > kMaxPortNameLength || name == "." || name == "..") {
        return false;
    }
    for (char c : name) {
        if (c <= ' ' || c > '~' || c == '/') {
            return false;
        }
    }
    return true;
}

std::optional<std::string> gsmPortNameOfPath(std::string_view path) {
    constexpr std::string_view prefix = "/dev/cu.";
    if (!path.starts_with(prefix) || !isGsmPortName(path.substr(prefix.size()))) {
        return std::nullopt;
    }
    return std::string(path.substr(prefix.size()));
}

std::string gsmPortKeyProblem(std::string_view nameOrPath) {
    if (nameOrPath.empty()) {
        return "is empty";
    }
    if (nameOrPath.front() != '/') {
        return isGsmPortName(nameOrPath)
                   ? std::string()
                   : "is neither a kernel port name (one name under /dev) nor an absolute path";
    }
    if (nameOrPath.starts_with("/dev/cu.") && !gsmPortNameOfPath(nameOrPath)) {
        return "does not end in a kernel port name after \"/dev/cu.\"";
    }
    std::string_view rest = nameOrPath.substr(1);
    while (true) {
        std::size_t slash = rest.find('/');
        std::string_view component = rest.substr(0, slash);
        if (component.empty() || component == "." || component == "..") {
            return "is not a plain absolute path (an empty, \".\" or \"..\" component)";
        }
        for (char c : component) {
            if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) {
                return "holds a control character";
            }
        }
        if (slash == std::string_view::npos) {
            return std::string();
        }
        rest.remove_prefix(slash + 1);
    }
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

std::shared_ptr<GsmBackend> GsmBackend::installed() {
    std::lock_guard<std::mutex> lock(gBackendMutex);
    return gBackend;
}

void GsmBackend::setCurrent(std::shared_ptr<GsmBackend> backend) {
    std::lock_guard<std::mutex> lock(gBackendMutex);
    gBackend = std::move(backend);
}

}  // namespace qv
