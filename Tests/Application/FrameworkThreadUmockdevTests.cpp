// The framework on its own thread beside a host's GLib loop, on a fake sysfs, compared with the
// framework embedded directly on the host's loop. The stick is a Sierra MC8780 (1199:6832), whose
// row in the built-in table asks for a 3 s power-up delay: identification sleeps on the
// framework's thread until three seconds after the stick arrived. Each test reports the longest
// stall of the host's loop (from one turn to the next) while the stick was identified.
// Needs umockdev's preload library: ctest runs this under umockdev-wrapper; anywhere else it skips.
#ifdef QV_HAVE_UMOCKDEV

#include <gtest/gtest.h>
#include <umockdev.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Application/FrameworkThread.h"
#include "Application/PlatformFactory.h"
#include "Application/QVDeviceObserver.h"
#include "Application/QVPrioQueue.h"
#include "Application/ScriptedDevicePlatform.h"
#include "Events/QVDeviceNotificationCenter.h"
#include "Foundation/Logging.h"
#include "IOKit/Registry.h"
#include "Model/QVDevice.h"
#include "Model/QVSerialInterface.h"
#include "RunLoop/GLibRunLoop.h"
#include "Support/UmockdevTest.h"

namespace {

using Clock = std::chrono::steady_clock;

// The host application: what it heard, on which thread, and how far the host's loop had turned
// when it heard it.
class HostApplication : public QVDeviceObserverDelegate {
  public:
    explicit HostApplication(const std::atomic<long>& turns) : turns_(turns) {}

    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override {
        threads.push_back(std::this_thread::get_id());
        available.push_back(device);
        turnsAtAvailable = turns_.load();
    }
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override {
        threads.push_back(std::this_thread::get_id());
        missing.push_back(device);
        availableAtMissing = device && device->isAvailable();
    }
    void noteDeviceIdentificationStarted() override {
        threads.push_back(std::this_thread::get_id());
        calls.push_back("started");
    }
    void noteDeviceIdentificationStopped() override {
        threads.push_back(std::this_thread::get_id());
        calls.push_back("stopped");
    }

    std::vector<std::thread::id> threads;
    std::vector<std::string> calls;
    std::vector<std::shared_ptr<QVDevice>> available;
    std::vector<std::shared_ptr<QVDevice>> missing;
    long turnsAtAvailable = -1;
    bool availableAtMissing = true;

  private:
    const std::atomic<long>& turns_;
};

class FrameworkThreadUmockdev : public UmockdevTest {
  protected:
    void SetUp() override {
        UmockdevTest::SetUp();
        if (!testbedReady()) {
            return;
        }
        ready_ = true;
        // The host's loop: a context of its own, made thread-default as a GLib application's is.
        hostContext_ = g_main_context_new();
        g_main_context_push_thread_default(hostContext_);
        resetFramework();
        qv::setNamedLogSink([this](const std::string&, const std::string& line) {
            std::lock_guard<std::mutex> lock(logMutex_);
            log_.push_back(line);

            // The framework's thread is about to sleep out the power-up delay.
            if (line.rfind("Pushing device", 0) == 0) {
                turnsAtPushing_ = turns_.load();
            }
        });
        qv::PlatformFactory::install(nullptr);  // the live platform, as on a real machine
        // The host's heartbeat: a 2 ms timer whose gaps are the host loop's stalls.
        heartbeat_ = g_timeout_source_new(2);
        g_source_set_callback(heartbeat_, &FrameworkThreadUmockdev::beat, this, nullptr);
        g_source_attach(heartbeat_, hostContext_);
    }

    void TearDown() override {
        if (!ready_) {
            UmockdevTest::TearDown();
            return;
        }
        g_source_destroy(heartbeat_);
        g_source_unref(heartbeat_);
        qv::PlatformFactory::install(std::make_shared<qv::ScriptedDevicePlatform>());
        resetFramework();
        qv::setNamedLogSink({});
        qv::RunLoop::setCurrent(nullptr);
        g_main_context_pop_thread_default(hostContext_);
        g_main_context_unref(hostContext_);
        UmockdevTest::TearDown();
    }

    static void resetFramework() {
        QVDeviceObserver::resetSharedForTesting();
        QVDeviceNotificationCenter::defaultDeviceNotificationCenter()->removeAllNotifications();
        QVPrioQueue::resetSharedForTesting();
        QVDeviceNotificationCenter::resetSharedForTesting();
        qv::Registry::resetShared();
        qv::PlatformFactory::resetForTesting();
    }

    static gboolean beat(gpointer data) {
        auto* self = static_cast<FrameworkThreadUmockdev*>(data);
        Clock::time_point now = Clock::now();
        if (self->lastBeat_ != Clock::time_point{}) {
            self->longestStall_ = std::max(self->longestStall_, now - self->lastBeat_);
        }
        self->lastBeat_ = now;
        self->turns_.fetch_add(1);
        return G_SOURCE_CONTINUE;
    }

    // Turns the host's loop until `done` holds or `seconds` of real time passed.
    bool turnHostLoopUntil(const std::function<bool()>& done, double seconds = 20.0) {
        Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                   std::chrono::duration<double>(seconds));
        while (!done()) {
            if (Clock::now() >= end) {
                return false;
            }
            g_main_context_iteration(hostContext_, TRUE);
        }
        return true;
    }

    // A Sierra MC8780 with three vendor-specific interfaces, ttyUSB<first + n> on interface n.
    std::string plugMC8780(const std::string& name, int firstTTY) {
        gchar* stick = umockdev_testbed_add_device(
            testbed_, "usb", name.c_str(), nullptr, "idVendor", "1199", "idProduct", "6832",
            "product", "MC8780", "manufacturer", "Sierra Wireless", "bNumInterfaces", " 3", nullptr,
            "DEVTYPE", "usb_device", nullptr);
        for (int interface = 0; interface < 3; ++interface) {
            std::string interfaceName = name + ":1." + std::to_string(interface);
            std::string number = "0";
            number += std::to_string(interface);
            gchar* path = umockdev_testbed_add_device(
                testbed_, "usb", interfaceName.c_str(), stick, "bInterfaceNumber", number.c_str(),
                "bInterfaceClass", "ff", nullptr, "DEVTYPE", "usb_interface", nullptr);
            std::string tty = "ttyUSB" + std::to_string(firstTTY + interface);
            g_free(
                umockdev_testbed_add_device(testbed_, "tty", tty.c_str(), path, nullptr, nullptr));
            g_free(path);
        }
        std::string path = stick;
        g_free(stick);
        return path;
    }

    void reportStall(const char* way) {
        // A stall shows at the beat after it: let the loop beat twice more.
        const long turns = turns_.load();
        turnHostLoopUntil([&] { return turns_.load() >= turns + 2; });
        double milliseconds = std::chrono::duration<double, std::milli>(longestStall_).count();
        RecordProperty("longestHostLoopStallMilliseconds", std::to_string(milliseconds));
        std::printf(
            "%s: longest host-loop stall while a stick with a 3 s power-up delay was "
            "identified: %.1f ms\n",
            way, milliseconds);
    }

    void resetStall() {
        longestStall_ = {};
        lastBeat_ = {};
    }

    bool ready_ = false;
    GMainContext* hostContext_ = nullptr;
    GSource* heartbeat_ = nullptr;
    std::atomic<long> turns_{0};
    std::atomic<long> turnsAtPushing_{-1};
    Clock::time_point lastBeat_{};
    Clock::duration longestStall_{};
    std::mutex logMutex_;
    std::vector<std::string> log_;
};

std::vector<std::string> portPaths(const QVDevice& device) {
    std::vector<std::string> paths;
    for (const auto& interface : device.interfaces()) {
        if (auto serial = std::dynamic_pointer_cast<QVSerialInterface>(interface)) {
            paths.push_back(serial->path().value_or(""));
        }
    }
    return paths;
}

TEST_F(FrameworkThreadUmockdev, TheHostLoopTurnsWhileTheFrameworkWaitsOutAPowerUpDelay) {
    HostApplication application(turns_);
    const std::thread::id host = std::this_thread::get_id();
    std::unique_ptr<qv::FrameworkThread> framework =
        qv::FrameworkThread::start(&application, hostContext_);
    ASSERT_NE(framework, nullptr);
    // The observer is the process's one: a second thread is refused.
    EXPECT_EQ(qv::FrameworkThread::start(&application, hostContext_), nullptr);

    resetStall();
    std::string stick = plugMC8780("1-5", 0);
    ASSERT_TRUE(turnHostLoopUntil([&] { return !application.available.empty(); }));
    reportStall("framework thread");

    // The framework slept out the delay after "Pushing device" while the host's loop went on.
    ASSERT_GE(turnsAtPushing_.load(), 0) << "no \"Pushing device\" line";
    EXPECT_GT(application.turnsAtAvailable, turnsAtPushing_.load());

    // The host's copy: the framework's facts, in an object of the host's own.
    const auto& device = application.available[0];
    EXPECT_EQ(device->quorvelID(), 5060);
    EXPECT_EQ(portPaths(*device), (std::vector<std::string>{"/dev/cu.ttyUSB0", "/dev/cu.ttyUSB2"}));
    ASSERT_NE(device->portWithCapability("NetworkQuery"), nullptr);
    EXPECT_EQ(device->portWithCapability("NetworkQuery")->path(), "/dev/cu.ttyUSB2");
    EXPECT_TRUE(device->isAvailable());
    EXPECT_EQ(device->manufacturerID(), 14);  // Sierra, from the shared database entry

    // perform runs on the framework's thread, with the framework's own record.
    std::atomic<bool> performed{false};
    std::thread::id frameworkThread;
    const QVDevice* frameworkRecord = nullptr;
    std::size_t frameworkCount = 0;
    framework->perform([&](QVDeviceObserver& observer) {
        frameworkThread = std::this_thread::get_id();
        frameworkCount = observer.deviceList().size();
        frameworkRecord = observer.device(0).get();
        performed = true;
    });
    ASSERT_TRUE(turnHostLoopUntil([&] { return performed.load(); }));
    EXPECT_NE(frameworkThread, host);
    EXPECT_EQ(frameworkCount, 1u);
    EXPECT_NE(frameworkRecord, device.get());

    // The unplug reaches the host with the same host object, now unavailable.
    umockdev_testbed_uevent(testbed_, stick.c_str(), "remove");
    ASSERT_TRUE(turnHostLoopUntil([&] { return !application.missing.empty(); }));
    EXPECT_EQ(application.missing[0], application.available[0]);
    EXPECT_FALSE(application.availableAtMissing);

    // Every delegate call was made on the host's thread, in the framework's order.
    for (std::thread::id thread : application.threads) {
        EXPECT_EQ(thread, host);
    }
    ASSERT_FALSE(application.calls.empty());
    EXPECT_EQ(application.calls.front(), "started");

    // After stop nothing more reaches the host, even a stick that is plugged in right away.
    framework->stop();
    umockdev_testbed_remove_device(testbed_, stick.c_str());
    plugMC8780("1-6", 3);
    std::size_t callsAtStop = application.threads.size();
    turnHostLoopUntil([] { return false; }, 0.3);
    EXPECT_EQ(application.threads.size(), callsAtStop);
    // A stopped framework thread gives way to a new one.
    framework = qv::FrameworkThread::start(&application, hostContext_);
    ASSERT_NE(framework, nullptr);
    ASSERT_TRUE(turnHostLoopUntil([&] { return application.available.size() == 2; }));
    EXPECT_EQ(application.available[1]->quorvelID(), 5060);
    framework.reset();  // the destructor stops and joins
}

// The same stick on the host's own loop, as the framework embeds without a thread: the host does
// not turn while identification sleeps. The figure is the direct way's cost.
TEST_F(FrameworkThreadUmockdev, EmbeddedDirectlyTheHostLoopWaitsForThePowerUpDelay) {
    auto loop = std::make_shared<qv::GLibRunLoop>(hostContext_);
    qv::RunLoop::setCurrent(loop);
    HostApplication application(turns_);
    std::shared_ptr<QVDeviceObserver> observer = QVDeviceObserver::getInstance();
    observer->setDelegate(&application);
    observer->start();

    resetStall();
    plugMC8780("1-5", 0);
    ASSERT_TRUE(turnHostLoopUntil([&] { return !application.available.empty(); }));
    reportStall("direct");
    ASSERT_GE(turnsAtPushing_.load(), 0) << "no \"Pushing device\" line";
    EXPECT_EQ(application.turnsAtAvailable, turnsAtPushing_.load());
    observer->setDelegate(nullptr);
    observer->stop();
}

}  // namespace

#endif  // QV_HAVE_UMOCKDEV
