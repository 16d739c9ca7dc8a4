// qvdevice::RecordingObserver: the observer as the application gets it, with every monitor
// callback written to an event sink before the observer handles it.
#pragma once

#include <memory>

#include "Application/QVDeviceObserver.h"
#include "EventSink.h"

namespace qvdevice {

class RecordingObserver : public QVDeviceObserver {
  public:
    static std::shared_ptr<RecordingObserver> create(std::shared_ptr<QVDeviceMonitor> monitor,
                                                     EventSink& sink);

    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceIdentificationStarted() override;
    void noteDeviceIdentificationStopped() override;
    void noteStartedIdentifyingDevice(const std::shared_ptr<QVDevice>& device) override;
    void noteCouldNotIdentifyDevice(const std::shared_ptr<QVDevice>& device) override;

  private:
    RecordingObserver(std::shared_ptr<QVDeviceMonitor> monitor, EventSink& sink);
    EventSink& sink_;
};

}  // namespace qvdevice
