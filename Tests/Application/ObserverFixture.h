// A device observer around a fresh monitor, with an application delegate that writes each call
// down as "call location" (a missing device also says whether the observer still listed it).
#pragma once

#include "Model/QVSerialInterface.h"
#include "Model/QVUSBDevice.h"
#include "Recognition/MonitorFixture.h"

class AppLog : public QVDeviceObserverDelegate {
  public:
    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& d) override {
        calls.push_back(tagOf("available", d));
    }
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& d) override {
        const auto& list = observer->deviceList();
        bool listed = std::find(list.begin(), list.end(), d) != list.end();
        calls.push_back(tagOf("missing", d) + (listed ? " listed" : ""));
    }
    void noteDeviceDidRecognize(const std::shared_ptr<QVDevice>& d) override {
        calls.push_back(tagOf("recognized", d));
    }
    void noteDeviceRecognitionError(int code) override {
        calls.push_back("error " + std::to_string(code));
    }
    void noteNetworkInfoDidUpdate(const qv::Value& info,
                                  const std::shared_ptr<QVDevice>& sender) override {
        calls.push_back(tagOf("netinfo " + info["Operator"].stringValue(), sender));
    }
    std::vector<std::string> calls;
    const QVDeviceObserver* observer = nullptr;
};

class ObserverTest : public MonitorTest {
  protected:
    void SetUp() override {
        MonitorTest::SetUp();
        observer_ = QVDeviceObserver::create();
        app_.observer = observer_.get();
        observer_->setDelegate(&app_);
    }
    void TearDown() override {
        observer_.reset();
        MonitorTest::TearDown();
    }
    // A record as the monitor announces it: model 320 at `location`, with the port "ttyUSB2"
    // for network queries unless told otherwise.
    static std::shared_ptr<QVDevice> record(int location, bool networkPort = true) {
        auto device = QVUSBDevice::device();
        device->setQuorvelID(320);
        device->setUUID(qv::Value(location));
        device->setProductName("Stick " + std::to_string(location));
        if (networkPort) {
            device->addInterface(
                QVSerialInterface::portWithCapabilities({"NetworkQuery"}, "/dev/cu.ttyUSB2"));
        }
        return device;
    }

    std::shared_ptr<QVDeviceObserver> observer_;
    AppLog app_;
    qv::Value answer_{qv::Dictionary{{"Operator", "Alpha"}}};
};
