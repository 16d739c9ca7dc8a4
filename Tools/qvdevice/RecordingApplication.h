// qvdevice::RecordingApplication: the connection application of `simulate` and `run`. It keeps its
// own list of devices, writes down what it hears, and once its list is long enough chooses the
// default device and calls devicesChanged:, after the call that brought the news has returned, as
// an application reacting to the news would.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "Application/QVDeviceObserver.h"
#include "Application/QVDeviceObserverDelegate.h"
#include "EventSink.h"

namespace qvdevice {

class RecordingApplication : public QVDeviceObserverDelegate {
  public:
    RecordingApplication(EventSink& sink, std::optional<int> defaultDevice);

    void setObserver(std::weak_ptr<QVDeviceObserver> observer) { observer_ = std::move(observer); }
    std::size_t deviceCount() const { return devices_.size(); }
    // A restarted observer begins with an empty list, and so does the application.
    void forgetDevices() { devices_.clear(); }

    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceIdentificationStarted() override;
    void noteDeviceIdentificationStopped() override;
    void noteDeviceDidRecognize(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceRecognitionError(int code) override;
    void noteNetworkInfoDidUpdate(const qv::Value& info,
                                  const std::shared_ptr<QVDevice>& sender) override;

  private:
    EventSink& sink_;
    std::optional<int> defaultDevice_;
    std::weak_ptr<QVDeviceObserver> observer_;
    std::vector<std::shared_ptr<QVDevice>> devices_;
};

}  // namespace qvdevice
