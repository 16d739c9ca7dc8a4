#include "RecordingWorkspace.h"

namespace qvdevice {

bool RecordingWorkspace::isApplicationRunning(const std::string& bundleIdentifier) {
    bool running = real_->isApplicationRunning(bundleIdentifier);
    if (running) {
        running_.insert(bundleIdentifier);
    }
    return running;
}

}  // namespace qvdevice
