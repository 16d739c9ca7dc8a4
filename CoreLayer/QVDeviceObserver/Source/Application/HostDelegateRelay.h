// qv::HostDelegateRelay: the observer's delegate on the framework thread, passing every call on
// to the application's delegate on the host's context (HostCallQueue), with the values it carries.
//
// Device records cross as copies: the framework goes on using (and changing) its own records on
// its thread, the host reads its copy on its own. The copy has its own interfaces and names and
// shares the database and rules entries, which nothing changes after loading. The same unit is
// one host object from noteDeviceBecameAvailable to noteDeviceBecameMissing, so a host may keep
// the pointer and compare it. The host-side bookkeeping is touched on the host's thread only.
#pragma once

#include <map>
#include <memory>

#include "Application/QVDeviceObserverDelegate.h"

class QVDevice;

namespace qv {

class HostCallQueue;

class HostDelegateRelay : public QVDeviceObserverDelegate {
  public:
    HostDelegateRelay(QVDeviceObserverDelegate* hostDelegate, std::shared_ptr<HostCallQueue> calls);

    // The host's own copy of a framework record (framework thread).
    static std::shared_ptr<QVDevice> copyForHost(const QVDevice& device);

    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceIdentificationStarted() override;
    void noteDeviceIdentificationStopped() override;
    void noteDeviceDidRecognize(const std::shared_ptr<QVDevice>& device) override;
    void noteDeviceRecognitionError(int code) override;
    void noteNetworkInfoDidUpdate(const qv::Value& info,
                                  const std::shared_ptr<QVDevice>& sender) override;

  private:
    // The host's side: its delegate and its copies, by the framework record they stand for.
    struct HostSide {
        QVDeviceObserverDelegate* delegate = nullptr;
        std::map<const QVDevice*, std::shared_ptr<QVDevice>> copies;
        // The copy of a unit the host knows, or `fresh` when it knows none.
        std::shared_ptr<QVDevice> known(const QVDevice* key, std::shared_ptr<QVDevice> fresh) const;
    };
    struct Crossing {
        const QVDevice* key = nullptr;
        std::shared_ptr<QVDevice> fresh;
    };
    static Crossing cross(const std::shared_ptr<QVDevice>& device);

    std::shared_ptr<HostSide> host_;
    std::shared_ptr<HostCallQueue> calls_;
};

}  // namespace qv
