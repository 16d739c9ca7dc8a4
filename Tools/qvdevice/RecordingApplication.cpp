#include "RecordingApplication.h"

#include <utility>

#include "Model/QVDevice.h"
#include "RunLoop/RunLoop.h"

namespace qvdevice {

RecordingApplication::RecordingApplication(EventSink& sink, std::optional<int> defaultDevice)
    : sink_(sink), defaultDevice_(defaultDevice) {}

void RecordingApplication::noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) {
    sink_.addCall("application", "noteDeviceBecameAvailable:", device);
    devices_.push_back(device);
    if (defaultDevice_ && *defaultDevice_ >= 0 &&
        devices_.size() == static_cast<std::size_t>(*defaultDevice_) + 1) {
        std::weak_ptr<QVDeviceObserver> observer = observer_;
        int index = *defaultDevice_;
        qv::RunLoop::current().post([observer, index]() {
            if (auto strong = observer.lock()) {
                strong->setDefaultDevice(index);
                strong->devicesChanged();
            }
        });
    }
}

void RecordingApplication::noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) {
    sink_.addCall("application", "noteDeviceBecameMissing:", device);
    std::erase(devices_, device);
}

void RecordingApplication::noteDeviceIdentificationStarted() {
    sink_.addCall("application", "noteDeviceIdentificationStarted");
}

void RecordingApplication::noteDeviceIdentificationStopped() {
    sink_.addCall("application", "noteDeviceIdentificationStopped");
}

void RecordingApplication::noteDeviceDidRecognize(const std::shared_ptr<QVDevice>& device) {
    sink_.addCall("application", "noteDeviceDidRecognize:", device);
}

void RecordingApplication::noteDeviceRecognitionError(int code) {
    qv::Json fields = qv::Json::object();
    fields["call"] = "noteDeviceRecognitionError:";
    fields["code"] = code;
    sink_.add("application", std::move(fields));
}

void RecordingApplication::noteNetworkInfoDidUpdate(const qv::Value& info,
                                                    const std::shared_ptr<QVDevice>& sender) {
    qv::Json fields = qv::Json::object();
    fields["call"] = "noteNetworkInfoDidUpdate:sender:";
    fields["info"] = qv::jsonFromValue(info);
    sink_.add("application", std::move(fields),
              sender ? EventSink::deviceRecord(*sender) : std::string());
}

}  // namespace qvdevice
