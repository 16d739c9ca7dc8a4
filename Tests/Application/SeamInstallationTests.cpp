// The scoped seam installer: what it replaces is back when it goes, in reverse order, with the
// framework's shared objects gone before their registry and the run loop last; what it was not
// asked to touch stays as someone else set it; installations nest; and one that fails half-way
// leaves nothing behind.
#include "Application/SeamInstallation.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Application/PlatformFactory.h"
#include "Application/QVDeviceObserver.h"
#include "Foundation/MountedFileSystems.h"
#include "Foundation/Platform.h"
#include "Foundation/Task.h"
#include "IOKit/RecordingUSBDeviceAccess.h"
#include "IOKit/Registry.h"
#include "QVGsmKit/ScriptedGsmBackend.h"
#include "RunLoop/VirtualRunLoop.h"

namespace {

// Writes down what the other seams were when the framework reset stopped it.
class WitnessPlatform : public qv::DevicePlatform {
  public:
    void start() override {}
    void stop() override {
        stopped = true;
        loopAtStop = qv::RunLoop::installed();
        gsmAtStop = qv::GsmBackend::installed();
        launcherAtStop = qv::TaskLauncher::installed();
        namedLogAtStop = static_cast<bool>(qv::namedLogSink());
    }

    bool stopped = false;
    std::shared_ptr<qv::RunLoop> loopAtStop;
    std::shared_ptr<qv::GsmBackend> gsmAtStop;
    std::shared_ptr<qv::TaskLauncher> launcherAtStop;
    bool namedLogAtStop = true;
};

// A sink whose copies fail, as an allocation would.
struct UncopyableSink {
    UncopyableSink() = default;
    UncopyableSink(UncopyableSink&&) noexcept = default;
    UncopyableSink(const UncopyableSink&) { throw std::runtime_error("no copy"); }
    void operator()(const std::string&, const std::string&) const {}
};

// Every seam as it was before a test, put back by hand (the installer is what is under test).
class SeamInstallationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        loop_ = qv::RunLoop::installed();
        platform_ = qv::PlatformFactory::installed();
        gsm_ = qv::GsmBackend::installed();
        launcher_ = qv::TaskLauncher::installed();
        usb_ = qv::USBDeviceAccess::installed();
        mounts_ = qv::MountedFileSystems::installed();
        workspace_ = qv::Workspace::installed();
        version_ = qv::SystemVersion::installed();
        database_ = qv::Bundle::replacementForResource("DeviceDatabase", "plist");
    }
    void TearDown() override {
        qv::setNamedLogSink({});
        qv::setSystemLogSink({});
        qv::setStandardOutputSink({});
        qv::ApplicationTermination::setHandler({});
        qv::Bundle::setPathForResource("DeviceDatabase", "plist", database_);
        qv::SystemVersion::set(version_);
        qv::Workspace::setShared(workspace_);
        qv::MountedFileSystems::setShared(mounts_);
        qv::USBDeviceAccess::setShared(usb_);
        qv::TaskLauncher::setShared(launcher_);
        qv::GsmBackend::setCurrent(gsm_);
        qv::PlatformFactory::install(platform_);
        qv::RunLoop::setCurrent(loop_);
    }

    std::shared_ptr<qv::RunLoop> loop_;
    std::shared_ptr<qv::DevicePlatform> platform_;
    std::shared_ptr<qv::GsmBackend> gsm_;
    std::shared_ptr<qv::TaskLauncher> launcher_;
    std::shared_ptr<qv::USBDeviceAccess> usb_;
    std::shared_ptr<qv::MountedFileSystems> mounts_;
    std::shared_ptr<qv::Workspace> workspace_;
    std::optional<int> version_;
    std::optional<std::string> database_;
};

TEST_F(SeamInstallationTest, PutsBackWhatWasThereAndLeavesUnaskedSeamsAlone) {
    // What someone had installed before.
    auto loopBefore = std::make_shared<qv::VirtualRunLoop>();
    auto gsmBefore = std::make_shared<qv::ScriptedGsmBackend>();
    auto launcherBefore = std::make_shared<qv::RecordingTaskLauncher>();
    auto usbBefore = std::make_shared<qv::RecordingUSBDeviceAccess>();
    auto workspaceBefore = std::make_shared<qv::FixedWorkspace>(std::set<std::string>{});
    std::vector<std::string> heard;
    qv::RunLoop::setCurrent(loopBefore);
    qv::GsmBackend::setCurrent(gsmBefore);
    qv::TaskLauncher::setShared(launcherBefore);
    qv::USBDeviceAccess::setShared(usbBefore);
    qv::Workspace::setShared(workspaceBefore);
    qv::SystemVersion::set(0x1040);
    qv::Bundle::setPathForResource("DeviceDatabase", "plist", "/before.plist");
    qv::ApplicationTermination::setHandler([&heard]() { heard.push_back("terminate before"); });
    qv::setSystemLogSink([&heard](const std::string& line) { heard.push_back("before " + line); });

    qv::Seams seams;
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    auto gsm = std::make_shared<qv::ScriptedGsmBackend>();
    auto launcher = std::make_shared<qv::RecordingTaskLauncher>();
    auto workspace = std::make_shared<qv::FixedWorkspace>(std::set<std::string>{"a.b"});
    seams.runLoop = loop;
    seams.gsmBackend = gsm;
    seams.taskLauncher = launcher;
    seams.usbDeviceAccess = nullptr;  // the default, which is not what was there
    seams.workspace = workspace;
    seams.systemVersion = 0x1060;
    seams.resources.push_back({"DeviceDatabase", "plist", "/during.plist"});
    seams.resources.push_back({"Other", "txt", "/other.txt"});
    seams.applicationTermination = [&heard]() { heard.push_back("terminate during"); };
    seams.systemLog = [&heard](const std::string& line) { heard.push_back("during " + line); };
    auto mountsSetMeanwhile = std::make_shared<qv::FixedMountedFileSystems>();
    {
        qv::SeamInstallation installation(seams);
        EXPECT_EQ(qv::RunLoop::installed(), loop);
        EXPECT_EQ(qv::GsmBackend::installed(), gsm);
        EXPECT_EQ(qv::TaskLauncher::installed(), launcher);
        EXPECT_EQ(qv::USBDeviceAccess::installed(), nullptr);
        EXPECT_EQ(qv::Workspace::installed(), workspace);
        EXPECT_EQ(qv::SystemVersion::current(), 0x1060);
        EXPECT_EQ(qv::Bundle::replacementForResource("DeviceDatabase", "plist"), "/during.plist");
        EXPECT_EQ(qv::Bundle::replacementForResource("Other", "txt"), "/other.txt");
        qv::ApplicationTermination::terminate();
        qv::logSystem("line");
        // A seam the installation was not asked about, changed by someone else meanwhile.
        qv::MountedFileSystems::setShared(mountsSetMeanwhile);
    }
    EXPECT_EQ(qv::RunLoop::installed(), loopBefore);
    EXPECT_EQ(qv::GsmBackend::installed(), gsmBefore);
    EXPECT_EQ(qv::TaskLauncher::installed(), launcherBefore);
    EXPECT_EQ(qv::USBDeviceAccess::installed(), usbBefore);
    EXPECT_EQ(qv::Workspace::installed(), workspaceBefore);
    EXPECT_EQ(qv::SystemVersion::installed(), 0x1040);
    EXPECT_EQ(qv::Bundle::replacementForResource("DeviceDatabase", "plist"), "/before.plist");
    EXPECT_EQ(qv::Bundle::replacementForResource("Other", "txt"), std::nullopt);
    EXPECT_EQ(qv::MountedFileSystems::installed(), mountsSetMeanwhile);
    qv::ApplicationTermination::terminate();
    qv::logSystem("line");
    EXPECT_EQ(heard, (std::vector<std::string>{"terminate during", "during line",
                                               "terminate before", "before line"}));
}

TEST_F(SeamInstallationTest, TheFrameworkGoesBeforeItsRegistryAndTheRunLoopLast) {
    auto platform = std::make_shared<WitnessPlatform>();
    auto loop = std::make_shared<qv::VirtualRunLoop>();
    qv::Seams seams;
    seams.runLoop = loop;
    seams.freshFramework = true;
    seams.platform = platform;
    seams.gsmBackend = std::make_shared<qv::ScriptedGsmBackend>();
    seams.taskLauncher = std::make_shared<qv::RecordingTaskLauncher>();
    seams.namedLog = [](const std::string&, const std::string&) {};
    std::weak_ptr<QVDeviceObserver> sharedObserver;
    qv::RunLoop::setCurrent(nullptr);
    {
        qv::SeamInstallation installation(seams);
        // An application that started: the shared observer subscribes on this registry and the
        // factory starts the platform.
        auto observer = QVDeviceObserver::getInstance();
        sharedObserver = observer;
        observer->start();
        ASSERT_EQ(qv::PlatformFactory::observerCount(), 1);
        qv::Registry::shared().addEntry(IO_OBJECT_NULL, "IOUSBDevice", "",
                                        qv::Value(qv::Dictionary{{"idVendor", 0x12D1}}));
    }
    // The reset stopped the platform after the seams above it had been put back and before the
    // run loop went.
    ASSERT_TRUE(platform->stopped);
    EXPECT_EQ(platform->loopAtStop, loop);
    EXPECT_EQ(platform->gsmAtStop, gsm_);
    EXPECT_EQ(platform->launcherAtStop, launcher_);
    EXPECT_FALSE(platform->namedLogAtStop);
    EXPECT_EQ(qv::RunLoop::installed(), nullptr);
    EXPECT_EQ(qv::PlatformFactory::installed(), platform_);
    EXPECT_EQ(qv::PlatformFactory::observerCount(), 0);
    EXPECT_TRUE(sharedObserver.expired());
    // What the run put in the registry went with it.
    qv::Registry fresh;
    qv::Registry& shared = qv::Registry::shared();
    EXPECT_EQ(shared.entryDescendants(shared.root()).size(),
              fresh.entryDescendants(fresh.root()).size());
}

TEST_F(SeamInstallationTest, NestedInstallationsUnwindOneAtATime) {
    std::vector<std::string> heard;
    auto outerLauncher = std::make_shared<qv::RecordingTaskLauncher>();
    auto innerLauncher = std::make_shared<qv::RecordingTaskLauncher>();
    qv::Seams outer;
    outer.taskLauncher = outerLauncher;
    outer.systemVersion = 0x1040;
    outer.standardOutput = [&heard](const std::string& line) { heard.push_back("outer " + line); };
    qv::Seams inner;
    inner.taskLauncher = innerLauncher;
    inner.systemVersion = 0x1060;
    {
        qv::SeamInstallation first(outer);
        {
            qv::SeamInstallation second(inner);
            EXPECT_EQ(qv::TaskLauncher::installed(), innerLauncher);
            EXPECT_EQ(qv::SystemVersion::current(), 0x1060);
            qv::writeToStandardOutput("inner");  // the inner one left the outer's sink alone
        }
        EXPECT_EQ(qv::TaskLauncher::installed(), outerLauncher);
        EXPECT_EQ(qv::SystemVersion::current(), 0x1040);
        qv::writeToStandardOutput("after");
    }
    EXPECT_EQ(qv::TaskLauncher::installed(), launcher_);
    EXPECT_EQ(qv::SystemVersion::installed(), version_);
    EXPECT_FALSE(static_cast<bool>(qv::standardOutputSink()));
    EXPECT_EQ(heard, (std::vector<std::string>{"outer inner", "outer after"}));
}

TEST_F(SeamInstallationTest, OneThatFailsHalfWayLeavesNothingInstalled) {
    auto before = std::make_shared<qv::VirtualRunLoop>();
    qv::RunLoop::setCurrent(before);
    qv::Seams seams;
    seams.runLoop = std::make_shared<qv::VirtualRunLoop>();
    seams.gsmBackend = std::make_shared<qv::ScriptedGsmBackend>();
    seams.taskLauncher = std::make_shared<qv::RecordingTaskLauncher>();
    seams.systemVersion = 0x1060;
    seams.resources.push_back({"DeviceDatabase", "plist", "/during.plist"});
    seams.systemLog = [](const std::string&) {};
    seams.namedLog = qv::NamedLogSink(UncopyableSink{});  // the last to go in
    EXPECT_THROW(qv::SeamInstallation installation(seams), std::runtime_error);
    EXPECT_EQ(qv::RunLoop::installed(), before);
    EXPECT_EQ(qv::GsmBackend::installed(), gsm_);
    EXPECT_EQ(qv::TaskLauncher::installed(), launcher_);
    EXPECT_EQ(qv::SystemVersion::installed(), version_);
    EXPECT_EQ(qv::Bundle::replacementForResource("DeviceDatabase", "plist"), database_);
    EXPECT_FALSE(static_cast<bool>(qv::systemLogSink()));
    EXPECT_FALSE(static_cast<bool>(qv::namedLogSink()));
}

}  // namespace
