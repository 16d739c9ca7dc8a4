#include "LiveDevicePlatform.h"

#include "Foundation/Logging.h"
#include "IOKit/Registry.h"
#include "IOKit/UdevFeeder.h"
#include "PlatformFactory.h"
#include "QVGsmKit/GsmBackend.h"
#include "RunLoop/RunLoop.h"

namespace qv {

namespace {

void logBoth(const std::string& line) {
    logToNamedLog(kDeviceRecognitionLog, line);
    logToSystemLog(line);
}

}  // namespace

LiveDevicePlatform::LiveDevicePlatform() = default;

LiveDevicePlatform::~LiveDevicePlatform() {
    stop();
}

void LiveDevicePlatform::start() {
    if (feeder_) {
        return;
    }
    if (!GsmBackend::isInstalled()) {
        installedBackend_ = PlatformFactory::defaultModemBackend();
        GsmBackend::setCurrent(installedBackend_);
    }
    registry_ = &Registry::shared();
    feeder_ = std::make_unique<UdevFeeder>(*registry_);
    switch (feeder_->start()) {
        case UdevFeeder::StartResult::NoUdev:
            logBoth("No udev on this machine: no devices will be detected");
            return;
        case UdevFeeder::StartResult::MonitorFailed:
            logBoth(
                "No udev device monitor on this machine: only devices present at start are seen");
            return;
        case UdevFeeder::StartResult::EnumerationFailed:
            logBoth("The udev device enumeration failed: devices present at start are not seen");
            break;
        case UdevFeeder::StartResult::Started:
            break;
    }
    if (!feeder_->isUdevRunning()) {
        logBoth("udev is not running on this machine: devices plugged in later are not seen");
    }
    if (!feeder_->watchOn(RunLoop::current())) {
        logBoth("The udev monitor cannot be watched: devices plugged in later are not seen");
    }
}

void LiveDevicePlatform::stop() {
    if (feeder_) {
        feeder_->removeAll();
        feeder_.reset();
    }
    if (installedBackend_ && GsmBackend::current() == installedBackend_) {
        GsmBackend::setCurrent(nullptr);
    }
    installedBackend_.reset();
}

}  // namespace qv
