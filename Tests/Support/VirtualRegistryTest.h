// A fresh process registry on a virtual run loop, with the "DeviceRecognition" log captured. The
// shared notification center is emptied after each test, before the registry goes, so that no
// port or snapshot outlives the registry it points into.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Logging.h"
#include "IOKit/Registry.h"
#include "RunLoop/VirtualRunLoop.h"

class VirtualRegistryTest : public ::testing::Test {
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

    std::shared_ptr<qv::VirtualRunLoop> loop_;
    std::shared_ptr<std::vector<std::string>> lines_ = std::make_shared<std::vector<std::string>>();
};
