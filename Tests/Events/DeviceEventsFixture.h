// A fresh process registry on a virtual run loop, with the "DeviceRecognition" log captured; the
// shared notification center is emptied after each test so no port outlives its registry.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Logging.h"
#include "IOKit/IOKitLib.h"
#include "IOKit/Registry.h"
#include "RunLoop/VirtualRunLoop.h"

class DeviceEventsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        qv::Registry::resetShared();
        loop_ = std::make_shared<qv::VirtualRunLoop>();
        qv::RunLoop::setCurrent(loop_);
        auto lines = lines_;
        qv::setNamedLogSink([lines](const std::string& logName, const std::string& message) {
            if (logName == qv::kDeviceRecognitionLog) {
                lines->push_back(message);
            }
        });
    }
    void TearDown() override {
        QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->removeAllNotifications();
        qv::setNamedLogSink({});
        qv::RunLoop::setCurrent(nullptr);
        qv::Registry::resetShared();
    }

    qv::Registry& registry() { return qv::Registry::shared(); }

    io_registry_entry_t addUsb(int vendor, int product, qv::Value location,
                               io_registry_entry_t parent = IO_OBJECT_NULL) {
        qv::Value properties(qv::Dictionary{{"idVendor", vendor},
                                            {"idProduct", product},
                                            {"USB Product Name", "Stick"},
                                            {"USB Vendor Name", "Maker"}});
        if (!location.isNil()) {
            properties.set("locationID", std::move(location));
        }
        return registry().addEntry(parent, "IOUSBDevice", "", std::move(properties));
    }
    io_registry_entry_t add(io_registry_entry_t parent, const std::string& className,
                            qv::Value properties = {}, const std::string& name = "") {
        return registry().addEntry(parent, className, name, std::move(properties));
    }
    io_registry_entry_t addSerial(io_registry_entry_t parent, const std::string& tty) {
        return add(
            parent, "IOSerialBSDClient",
            qv::Value(qv::Dictionary{{"IOTTYDevice", tty}, {"IOCalloutDevice", "/dev/cu." + tty}}));
    }
    io_registry_entry_t addBsd(io_registry_entry_t parent, const std::string& className,
                               const std::string& bsdName) {
        return add(parent, className, qv::Value(qv::Dictionary{{"BSD Name", bsdName}}));
    }

    std::shared_ptr<qv::VirtualRunLoop> loop_;
    std::shared_ptr<std::vector<std::string>> lines_ = std::make_shared<std::vector<std::string>>();
};
