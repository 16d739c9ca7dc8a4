// The application's delegate of the device observer. Every method has an empty default: an
// application implements what it answers to, and the observer skips the rest.
#pragma once

#include <memory>

#include "Foundation/Value.h"

class QVDevice;

class QVDeviceObserverDelegate {
  public:
    virtual ~QVDeviceObserverDelegate() = default;

    virtual void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) {
        (void)device;
    }
    virtual void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) { (void)device; }
    virtual void noteDeviceIdentificationStarted() {}
    virtual void noteDeviceIdentificationStopped() {}
    virtual void noteDeviceDidRecognize(const std::shared_ptr<QVDevice>& device) { (void)device; }
    // The modem library's result code.
    virtual void noteDeviceRecognitionError(int code) { (void)code; }
    virtual void noteNetworkInfoDidUpdate(const qv::Value& info,
                                          const std::shared_ptr<QVDevice>& sender) {
        (void)info;
        (void)sender;
    }
};
