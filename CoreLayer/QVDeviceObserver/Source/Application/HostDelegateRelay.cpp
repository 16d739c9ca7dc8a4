#include "Application/HostDelegateRelay.h"

#include <utility>

#include "Application/HostCallQueue.h"
#include "Model/QVDevice.h"
#include "Model/QVEthernetInterface.h"
#include "Model/QVInterface.h"
#include "Model/QVSerialInterface.h"
#include "Model/QVUSBDevice.h"

namespace qv {

namespace {

std::shared_ptr<QVInterface> copyOfInterface(const QVInterface& interface) {
    std::shared_ptr<QVInterface> copy;
    if (dynamic_cast<const QVSerialInterface*>(&interface) != nullptr) {
        copy = QVSerialInterface::loadDictionary(interface.toDictionary());
    } else if (dynamic_cast<const QVEthernetInterface*>(&interface) != nullptr) {
        copy = QVEthernetInterface::loadDictionary(interface.toDictionary());
    } else {
        copy = QVInterface::loadDictionary(interface.toDictionary());
    }
    copy->setChanged(interface.isChanged());
    return copy;
}

}  // namespace

HostDelegateRelay::HostDelegateRelay(QVDeviceObserverDelegate* hostDelegate,
                                     std::shared_ptr<HostCallQueue> calls)
    : host_(std::make_shared<HostSide>()), calls_(std::move(calls)) {
    host_->delegate = hostDelegate;
}

std::shared_ptr<QVDevice> HostDelegateRelay::copyForHost(const QVDevice& device) {
    std::shared_ptr<QVDevice> copy = device.copy();
    if (auto usb = std::dynamic_pointer_cast<QVUSBDevice>(copy)) {
        usb->removeAllInterfaces();
        for (const auto& interface : device.interfaces()) {
            if (interface) {
                usb->addInterface(copyOfInterface(*interface));
            }
        }
    }
    copy->setDriverBundle(device.driverBundle());
    copy->setDatabaseEntry(device.databaseEntry());
    copy->setAllowedDeviceRulesEntry(device.allowedDeviceRulesEntry());
    copy->setChanged(device.isChanged());
    return copy;
}

std::shared_ptr<QVDevice> HostDelegateRelay::HostSide::known(
    const QVDevice* key, std::shared_ptr<QVDevice> fresh) const {
    auto found = copies.find(key);
    return found != copies.end() ? found->second : fresh;
}

HostDelegateRelay::Crossing HostDelegateRelay::cross(const std::shared_ptr<QVDevice>& device) {
    if (!device) {
        return {};
    }
    return {device.get(), copyForHost(*device)};
}

void HostDelegateRelay::noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) {
    calls_->post([host = host_, crossing = cross(device)] {
        if (crossing.key != nullptr) {
            // A new unit (or a framework record at an address that served another before).
            host->copies[crossing.key] = crossing.fresh;
        }
        if (host->delegate) {
            host->delegate->noteDeviceBecameAvailable(crossing.fresh);
        }
    });
}

void HostDelegateRelay::noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) {
    const bool available = device && device->isAvailable();
    calls_->post([host = host_, crossing = cross(device), available] {
        std::shared_ptr<QVDevice> copy = host->known(crossing.key, crossing.fresh);
        if (copy) {
            copy->setAvailable(available);
        }
        host->copies.erase(crossing.key);
        if (host->delegate) {
            host->delegate->noteDeviceBecameMissing(copy);
        }
    });
}

void HostDelegateRelay::noteDeviceIdentificationStarted() {
    calls_->post([host = host_] {
        if (host->delegate) {
            host->delegate->noteDeviceIdentificationStarted();
        }
    });
}

void HostDelegateRelay::noteDeviceIdentificationStopped() {
    calls_->post([host = host_] {
        if (host->delegate) {
            host->delegate->noteDeviceIdentificationStopped();
        }
    });
}

void HostDelegateRelay::noteDeviceDidRecognize(const std::shared_ptr<QVDevice>& device) {
    calls_->post([host = host_, crossing = cross(device)] {
        if (host->delegate) {
            host->delegate->noteDeviceDidRecognize(host->known(crossing.key, crossing.fresh));
        }
    });
}

void HostDelegateRelay::noteDeviceRecognitionError(int code) {
    calls_->post([host = host_, code] {
        if (host->delegate) {
            host->delegate->noteDeviceRecognitionError(code);
        }
    });
}

void HostDelegateRelay::noteNetworkInfoDidUpdate(const qv::Value& info,
                                                 const std::shared_ptr<QVDevice>& sender) {
    calls_->post([host = host_, info, crossing = cross(sender)] {
        if (host->delegate) {
            host->delegate->noteNetworkInfoDidUpdate(info,
                                                     host->known(crossing.key, crossing.fresh));
        }
    });
}

}  // namespace qv
