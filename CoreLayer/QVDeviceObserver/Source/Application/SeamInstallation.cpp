#include "SeamInstallation.h"

#include <utility>

#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/MountedFileSystems.h"
#include "Foundation/Platform.h"
#include "Foundation/Task.h"
#include "IOKit/Registry.h"
#include "IOKit/USBDeviceAccess.h"
#include "PlatformFactory.h"
#include "QVDeviceObserver.h"
#include "QVGsmKit/GsmBackend.h"
#include "QVPrioQueue.h"
#include "Recognition/QVDeviceMonitor.h"
#include "RunLoop/RunLoop.h"

namespace qv {

SeamInstallation::SeamInstallation(const Seams& seams) {
    try {
        install(seams);
    } catch (...) {
        restore();
        throw;
    }
}

SeamInstallation::~SeamInstallation() {
    restore();
}

void SeamInstallation::startFreshFramework() {
    // Ending the subscriptions is logged, and nobody is there to hear it.
    NamedLogSink named = namedLogSink();
    setNamedLogSink([](const std::string&, const std::string&) {});
    QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->removeAllNotifications();
    setNamedLogSink(std::move(named));
    QVDeviceObserver::resetSharedForTesting();
    PlatformFactory::resetForTesting();
    QVDeviceMonitor::resetSharedForTesting();
    QVPrioQueue::resetSharedForTesting();
    QVDeviceNotificationCenter::resetSharedForTesting();
    Registry::resetShared();
}

template <class Value, class Get, class Set>
void SeamInstallation::replace(const std::optional<Value>& value, Get get, Set set) {
    if (!value) {
        return;
    }
    std::function<void()> undo = [previous = get(), set]() mutable { set(std::move(previous)); };
    undo_.reserve(undo_.size() + 1);
    // The setter takes its own copy first: a copy that raises leaves the seam as it was.
    set(*value);
    undo_.push_back(std::move(undo));  // cannot raise after the reserve
}

void SeamInstallation::pushUndo(std::function<void()> undo) {
    undo_.reserve(undo_.size() + 1);
    undo_.push_back(std::move(undo));
}

void SeamInstallation::install(const Seams& seams) {
    replace(seams.runLoop, &RunLoop::installed, &RunLoop::setCurrent);
    if (seams.freshFramework) {
        pushUndo(&SeamInstallation::startFreshFramework);
        startFreshFramework();
    }
    replace(seams.platform, &PlatformFactory::installed, &PlatformFactory::install);
    replace(seams.gsmBackend, &GsmBackend::installed, &GsmBackend::setCurrent);
    replace(seams.taskLauncher, &TaskLauncher::installed, &TaskLauncher::setShared);
    replace(seams.usbDeviceAccess, &USBDeviceAccess::installed, &USBDeviceAccess::setShared);
    replace(seams.mountTable, &MountedFileSystems::installed, &MountedFileSystems::setShared);
    replace(seams.workspace, &Workspace::installed, &Workspace::setShared);
    replace(seams.systemVersion, &SystemVersion::installed, &SystemVersion::set);
    for (const Seams::Resource& resource : seams.resources) {
        replace(
            std::optional<std::string>(resource.path),
            [&resource]() { return Bundle::replacementForResource(resource.name, resource.type); },
            [name = resource.name, type = resource.type](std::optional<std::string> path) {
                Bundle::setPathForResource(name, type, std::move(path));
            });
    }
    replace(seams.applicationTermination, &ApplicationTermination::handler,
            &ApplicationTermination::setHandler);
    replace(seams.namedLog, &namedLogSink, &setNamedLogSink);
    replace(seams.systemLog, &systemLogSink, &setSystemLogSink);
    replace(seams.standardOutput, &standardOutputSink, &setStandardOutputSink);
}

void SeamInstallation::restore() noexcept {
    while (!undo_.empty()) {
        std::function<void()> undo = std::move(undo_.back());
        undo_.pop_back();
        undo();
    }
}

}  // namespace qv
