#include "SimulatedApplication.h"

#include <utility>

#include "Model/QVDevice.h"
#include "RunLoop/RunLoop.h"

namespace qvdevice {

SimulatedApplication::SimulatedApplication(EventSink& sink, std::optional<int> defaultDevice)
    : sink_(sink), defaultDevice_(defaultDevice) {}

void SimulatedApplication::noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) {
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

void SimulatedApplication::noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) {
    sink_.addCall("application", "noteDeviceBecameMissing:", device);
    std::erase(devices_, device);
}

void SimulatedApplication::noteDeviceIdentificationStarted() {
    sink_.addCall("application", "noteDeviceIdentificationStarted");
}

void SimulatedApplication::noteDeviceIdentificationStopped() {
    sink_.addCall("application", "noteDeviceIdentificationStopped");
}

void SimulatedApplication::noteDeviceDidRecognize(const std::shared_ptr<QVDevice>& device) {
    sink_.addCall("application", "noteDeviceDidRecognize:", device);
}

void SimulatedApplication::noteDeviceRecognitionError(int code) {
    qv::Json fields = qv::Json::object();
    fields["call"] = "noteDeviceRecognitionError:";
    fields["code"] = code;
    sink_.add("application", std::move(fields));
}

void SimulatedApplication::noteNetworkInfoDidUpdate(const qv::Value& info,
                                                    const std::shared_ptr<QVDevice>& sender) {
    qv::Json fields = qv::Json::object();
    fields["call"] = "noteNetworkInfoDidUpdate:sender:";
    fields["info"] = qv::jsonFromValue(info);
    sink_.add("application", std::move(fields),
              sender ? EventSink::deviceRecord(*sender) : std::string());
}

}  // namespace qvdevice
