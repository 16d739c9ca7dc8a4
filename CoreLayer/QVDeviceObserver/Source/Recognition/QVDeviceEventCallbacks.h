// QVDeviceEventCallbacks: what the device monitor tells its delegate (the device observer, or an
// application that drives a monitor itself). Every method has an empty default, so a delegate
// implements only what it cares about. Called on the monitor's run-loop thread.
#pragma once

#include <memory>

class QVDevice;

class QVDeviceEventCallbacks {
  public:
    virtual ~QVDeviceEventCallbacks() = default;

    virtual void noteDeviceIdentificationStopped() {}
    virtual void noteDeviceIdentificationStarted() {}
    virtual void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) { (void)device; }
    virtual void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) {
        (void)device;
    }
    // The record may be only partly filled.
    virtual void noteCouldNotIdentifyDevice(const std::shared_ptr<QVDevice>& device) {
        (void)device;
    }
    virtual void noteStartedIdentifyingDevice(const std::shared_ptr<QVDevice>& device) {
        (void)device;
    }
};
