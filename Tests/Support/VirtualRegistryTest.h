// A fresh process registry on a virtual run loop, with the "DeviceRecognition" log captured. The
// framework's shared objects (notification center, observer, monitor) are dropped after each test,
// before the registry goes, so that no port or snapshot outlives the registry it points into.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Application/SeamInstallation.h"
#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Logging.h"
#include "IOKit/Registry.h"
#include "RunLoop/VirtualRunLoop.h"

class VirtualRegistryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        loop_ = std::make_shared<qv::VirtualRunLoop>();
        qv::Seams seams;
        seams.runLoop = loop_;
        seams.freshFramework = true;
        auto lines = lines_;
        seams.namedLog = [lines](const std::string& logName, const std::string& message) {
            if (logName == qv::kDeviceRecognitionLog) {
                lines->push_back(message);
            }
        };
        registrySeams_.emplace(seams);
    }
    void TearDown() override { registrySeams_.reset(); }

    std::shared_ptr<qv::VirtualRunLoop> loop_;
    std::shared_ptr<std::vector<std::string>> lines_ = std::make_shared<std::vector<std::string>>();

  private:
    std::optional<qv::SeamInstallation> registrySeams_;
};
