// The platform factory counts observers: the registry's feed starts with the first observer that
// starts and stops with the last one that stops, whatever the order and however often each starts.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "Application/PlatformFactory.h"
#include "Application/QVDeviceObserver.h"
#include "Application/ScriptedDevicePlatform.h"
#include "Preparation/QVZTESerialPortsEnabler.h"
#include "Recognition/QVDeviceMonitor.h"
#include "Support/VirtualRegistryTest.h"

namespace {

class CountingPlatform : public qv::DevicePlatform {
  public:
    void start() override { calls.push_back("start"); }
    void stop() override { calls.push_back("stop"); }
    std::vector<std::string> calls;
};

class PlatformFactoryTest : public VirtualRegistryTest {
  protected:
    void SetUp() override {
        VirtualRegistryTest::SetUp();
        qv::PlatformFactory::resetForTesting();
        qv::PlatformFactory::install(platform_);
    }
    void TearDown() override {
        qv::PlatformFactory::resetForTesting();
        qv::PlatformFactory::install(std::make_shared<qv::ScriptedDevicePlatform>());
        VirtualRegistryTest::TearDown();
    }
    static std::shared_ptr<QVDeviceObserver> observer() {
        return QVDeviceObserver::initWithDeviceMonitor(QVDeviceMonitor::create());
    }

    std::shared_ptr<CountingPlatform> platform_ = std::make_shared<CountingPlatform>();
};

using Calls = std::vector<std::string>;

TEST_F(PlatformFactoryTest, TwoObserversShareOneFeedAndRestartsCountOnce) {
    auto first = observer();
    auto second = observer();
    first->start();
    first->start();  // twice counts once
    second->start();
    EXPECT_EQ(qv::PlatformFactory::observerCount(), 2);
    EXPECT_EQ(platform_->calls, Calls{"start"});

    first->stop();
    EXPECT_EQ(platform_->calls, Calls{"start"});  // the second still uses it
    first->stop();                                // a second stop releases nothing more
    EXPECT_EQ(qv::PlatformFactory::observerCount(), 1);
    second->stop();
    EXPECT_EQ(platform_->calls, (Calls{"start", "stop"}));

    // Started again: a fresh start of the platform; a destroyed observer lets go of it too.
    first->start();
    EXPECT_EQ(platform_->calls, (Calls{"start", "stop", "start"}));
    first.reset();
    EXPECT_EQ(platform_->calls, (Calls{"start", "stop", "start", "stop"}));
    EXPECT_EQ(qv::PlatformFactory::observerCount(), 0);
}

TEST_F(PlatformFactoryTest, AnInstalledPlatformServesTheNextFirstStart) {
    auto application = observer();
    application->start();
    auto replacement = std::make_shared<CountingPlatform>();
    qv::PlatformFactory::install(replacement);
    application->stop();
    // The running platform is the one that started, the replacement waits for the next start.
    EXPECT_EQ(platform_->calls, (Calls{"start", "stop"}));
    EXPECT_TRUE(replacement->calls.empty());
    application->start();
    EXPECT_EQ(replacement->calls, Calls{"start"});
    application->stop();
}

// An application may run the serial port enabler without any observer: it needs the feed too, and
// keeps it running across the observers' stops.
TEST_F(PlatformFactoryTest, AnEnablerOnItsOwnRunsTheFeed) {
    auto enabler = std::make_shared<QVZTESerialPortsEnabler>();
    enabler->startEnableSerialPortsForDevices();
    EXPECT_EQ(platform_->calls, Calls{"start"});
    auto application = observer();
    application->start();
    application->stop();
    EXPECT_EQ(platform_->calls, Calls{"start"});
}

}  // namespace
