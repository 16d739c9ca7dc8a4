// Every test of this binary runs with a scripted platform installed: a test that starts an
// observer fills the registry itself and never reaches this machine's udev. Tests of the live
// platform install it themselves (and put this one back).
#include <gtest/gtest.h>

#include <memory>

#include "Application/PlatformFactory.h"
#include "Application/ScriptedDevicePlatform.h"

namespace {

class ScriptedPlatformEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        qv::PlatformFactory::install(std::make_shared<qv::ScriptedDevicePlatform>());
    }
    void TearDown() override { qv::PlatformFactory::install(nullptr); }
};

[[maybe_unused]] ::testing::Environment* const gEnvironment =
    ::testing::AddGlobalTestEnvironment(new ScriptedPlatformEnvironment);

}  // namespace
