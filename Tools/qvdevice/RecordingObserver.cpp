#include "RecordingObserver.h"

#include <utility>

namespace qvdevice {

std::shared_ptr<RecordingObserver> RecordingObserver::create(
    std::shared_ptr<QVDeviceMonitor> monitor, EventSink& sink) {
    return std::shared_ptr<RecordingObserver>(new RecordingObserver(std::move(monitor), sink));
}

RecordingObserver::RecordingObserver(std::shared_ptr<QVDeviceMonitor> monitor, EventSink& sink)
    : QVDeviceObserver(std::move(monitor)), sink_(sink) {}

void RecordingObserver::noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) {
    sink_.addCall("monitor", "noteDeviceBecameAvailable:", device);
    QVDeviceObserver::noteDeviceBecameAvailable(device);
}

void RecordingObserver::noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) {
    sink_.addCall("monitor", "noteDeviceBecameMissing:", device);
    QVDeviceObserver::noteDeviceBecameMissing(device);
}

void RecordingObserver::noteDeviceIdentificationStarted() {
    sink_.addCall("monitor", "noteDeviceIdentificationStarted");
    QVDeviceObserver::noteDeviceIdentificationStarted();
}

void RecordingObserver::noteDeviceIdentificationStopped() {
    sink_.addCall("monitor", "noteDeviceIdentificationStopped");
    QVDeviceObserver::noteDeviceIdentificationStopped();
}

void RecordingObserver::noteStartedIdentifyingDevice(const std::shared_ptr<QVDevice>& device) {
    sink_.addCall("monitor", "noteStartedIdentifyingDevice:", device);
    QVDeviceObserver::noteStartedIdentifyingDevice(device);
}

void RecordingObserver::noteCouldNotIdentifyDevice(const std::shared_ptr<QVDevice>& device) {
    sink_.addCall("monitor", "noteCouldNotIdentifyDevice:", device);
    QVDeviceObserver::noteCouldNotIdentifyDevice(device);
}

}  // namespace qvdevice
