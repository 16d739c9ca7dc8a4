// The framework live, as an application embeds it, on a fake sysfs: the real observer, monitor,
// notification center and udev feeder on a real GLib loop, with nothing installed but the live
// platform. Needs umockdev's preload library: ctest runs this under umockdev-wrapper; anywhere
// else it skips.
#ifdef QV_HAVE_UMOCKDEV

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <umockdev.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Application/PlatformFactory.h"
#include "Application/QVDeviceObserver.h"
#include "Application/QVPrioQueue.h"
#include "Application/SeamInstallation.h"
#include "Foundation/JsonValue.h"
#include "Foundation/Logging.h"
#include "IOKit/Registry.h"
#include "IOKit/UdevFeeder.h"
#include "Model/QVDevice.h"
#include "Model/QVSerialInterface.h"
#include "QVGsmKit/NullGsmBackend.h"
#include "Recognition/QVDeviceMonitor.h"
#include "RunLoop/GLibRunLoop.h"
#include "Support/ToolRunner.h"
#include "Support/UmockdevTest.h"

#ifdef QV_MODEM_SIMULATOR_PATH
constexpr const char* kModemSimulatorPath = QV_MODEM_SIMULATOR_PATH;
#else
constexpr const char* kModemSimulatorPath = "";
#endif
#ifdef QV_MODEM_SIMULATOR_PROFILE
constexpr const char* kModemSimulatorProfile = QV_MODEM_SIMULATOR_PROFILE;
#else
constexpr const char* kModemSimulatorProfile = "";
#endif

namespace {

using Clock = std::chrono::steady_clock;

// The application: what it heard, in order, with the real time of each announcement.
class RecordingApplication : public QVDeviceObserverDelegate {
  public:
    void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override {
        available.push_back(device);
        availableAt.push_back(Clock::now());
    }
    void noteDeviceBecameMissing(const std::shared_ptr<QVDevice>& device) override {
        missing.push_back(device);
    }

    std::vector<std::shared_ptr<QVDevice>> available;
    std::vector<Clock::time_point> availableAt;
    std::vector<std::shared_ptr<QVDevice>> missing;
};

class LiveFrameworkUmockdev : public UmockdevTest {
  protected:
    void SetUp() override {
        UmockdevTest::SetUp();
        if (!testbedReady()) {
            return;
        }
        ready_ = true;
        // The host's loop: a thread-default context, as a GLib application has one.
        context_ = g_main_context_new();
        g_main_context_push_thread_default(context_);
        loop_ = std::make_shared<qv::GLibRunLoop>();
        qv::Seams seams;
        seams.runLoop = loop_;
        seams.freshFramework = true;
        seams.platform = nullptr;  // the live platform, as on a real machine
        seams.namedLog = [this](const std::string&, const std::string& line) {
            log_.push_back(line);
        };
        seams_.emplace(seams);
    }

    void TearDown() override {
        if (!ready_) {
            UmockdevTest::TearDown();
            return;
        }
        if (observer_) {
            observer_->stop();
            observer_.reset();
        }
        seams_.reset();
        loop_.reset();
        g_main_context_pop_thread_default(context_);
        g_main_context_unref(context_);
        UmockdevTest::TearDown();
    }

    void startObserver() {
        observer_ = QVDeviceObserver::initWithDeviceMonitor(QVDeviceMonitor::create());
        observer_->setDelegate(&application_);
        observer_->start();
    }

    // Turns the loop until `done` holds or `seconds` of real time passed.
    bool runUntil(const std::function<bool()>& done, double seconds = 15.0) {
        double end = loop_->now() + seconds;
        while (!done()) {
            if (loop_->now() >= end) {
                return false;
            }
            loop_->runFor(0.02);
        }
        return true;
    }

    // A Huawei E1750 (12d1:1406) in modem mode at kernel name `name`, its three serial interfaces
    // announced in reversed order, as udev's parallel workers may deliver them; the kernel named
    // the ttys in the order it probed them, so interface 0 holds the last name.
    std::string plugE1750(const std::string& name, int firstTTY) {
        gchar* stick = umockdev_testbed_add_device(
            testbed_, "usb", name.c_str(), nullptr, "idVendor", "12d1", "idProduct", "1406",
            "product", "HUAWEI Mobile", "manufacturer", "HUAWEI Technology", "bNumInterfaces", " 3",
            nullptr, "DEVTYPE", "usb_device", nullptr);
        for (int interface = 2, probe = 0; interface >= 0; --interface, ++probe) {
            std::string interfaceName = name + ":1." + std::to_string(interface);
            std::string number = "0";  // appended: GCC 12 at -O3 warns falsely about "0" + s
            number += std::to_string(interface);
            gchar* path = umockdev_testbed_add_device(
                testbed_, "usb", interfaceName.c_str(), stick, "bInterfaceNumber", number.c_str(),
                "bInterfaceClass", "ff", nullptr, "DEVTYPE", "usb_interface", nullptr);
            std::string tty = "ttyUSB" + std::to_string(firstTTY + probe);
            g_free(
                umockdev_testbed_add_device(testbed_, "tty", tty.c_str(), path, nullptr, nullptr));
            g_free(path);
        }
        std::string path = stick;
        g_free(stick);
        return path;
    }

    static std::vector<std::string> portPaths(const QVDevice& device) {
        std::vector<std::string> paths;
        for (const auto& interface : device.interfaces()) {
            if (auto serial = std::dynamic_pointer_cast<QVSerialInterface>(interface)) {
                paths.push_back(serial->path().value_or(""));
            }
        }
        return paths;
    }

    GMainContext* context_ = nullptr;
    bool ready_ = false;  // SetUp went through: TearDown has a loop and a context to undo
    std::shared_ptr<qv::GLibRunLoop> loop_;
    std::shared_ptr<QVDeviceObserver> observer_;
    RecordingApplication application_;
    std::vector<std::string> log_;
    std::optional<qv::SeamInstallation> seams_;  // made in SetUp, gone in TearDown
};

TEST_F(LiveFrameworkUmockdev, AnnouncesAHotPluggedStickInInterfaceOrderThenItsUnplug) {
    startObserver();
    EXPECT_EQ(qv::PlatformFactory::observerCount(), 1);
    std::string stick = plugE1750("1-2", 0);
    auto lastEvent = Clock::now();

    ASSERT_TRUE(runUntil([&] { return !application_.available.empty(); }));
    ASSERT_EQ(application_.available.size(), 1u);
    const auto& device = *application_.available[0];
    EXPECT_EQ(device.quorvelID(), 320);
    // Interface 0 holds ttyUSB2 although its events came last: "ByPortNumber" position 0 is the
    // data port, position 2 (interface 2, ttyUSB0) the control port.
    EXPECT_EQ(portPaths(device), (std::vector<std::string>{"/dev/cu.ttyUSB2", "/dev/cu.ttyUSB0"}));
    ASSERT_NE(device.portWithCapability("NetworkQuery"), nullptr);
    EXPECT_EQ(device.portWithCapability("NetworkQuery")->path(), "/dev/cu.ttyUSB0");
    ASSERT_NE(device.getUUID(), nullptr);
    EXPECT_EQ(device.getUUID()->integerValue(), 0x01200000);
    // From the last uevent to the announcement: the quiet time of an unbound device plus at
    // most one examination tick and the loop's own turns.
    double seconds = std::chrono::duration<double>(application_.availableAt[0] - lastEvent).count();
    RecordProperty("secondsFromLastUeventToAvailable", std::to_string(seconds));
    std::printf("last uevent -> noteDeviceBecameAvailable: %.3f s\n", seconds);
    EXPECT_LT(seconds, qv::UdevFeeder::kDefaultQuietTime + 1.0 + 0.5);

    umockdev_testbed_uevent(testbed_, stick.c_str(), "remove");
    ASSERT_TRUE(runUntil([&] { return !application_.missing.empty(); }));
    EXPECT_EQ(application_.missing[0], application_.available[0]);
    EXPECT_EQ(observer_->deviceList().size(), 0u);
}

TEST_F(LiveFrameworkUmockdev, AnnouncesAStickPresentAtStartAndStartsCleanlyAgain) {
    plugE1750("2-1.4", 3);
    startObserver();
    ASSERT_TRUE(runUntil([&] { return !application_.available.empty(); }));
    EXPECT_EQ(application_.available[0]->getUUID()->integerValue(), 0x02140000);
    EXPECT_EQ(portPaths(*application_.available[0]),
              (std::vector<std::string>{"/dev/cu.ttyUSB5", "/dev/cu.ttyUSB3"}));

    // Starting twice counts once; a stop and a new start find the stick again, once.
    observer_->start();
    EXPECT_EQ(qv::PlatformFactory::observerCount(), 1);
    observer_->stop();
    EXPECT_EQ(qv::PlatformFactory::observerCount(), 0);
    EXPECT_TRUE(qv::Registry::shared().tree().children.empty());
    application_.available.clear();
    observer_->start();
    ASSERT_TRUE(runUntil([&] { return !application_.available.empty(); }));
    runUntil([] { return false; }, 1.5);  // nothing more comes
    EXPECT_EQ(application_.available.size(), 1u);
    EXPECT_EQ(qv::Registry::shared().tree().children.size(), 1u);
}

TEST_F(LiveFrameworkUmockdev, ThirtyTwoSticksPluggedAndUnpluggedAtOnce) {
    startObserver();
    constexpr int kSticks = 32;
    std::vector<std::string> sticks;
    // Root-hub ports above 15 take the fallback location IDs.
    for (int i = 1; i <= kSticks; ++i) {
        sticks.push_back(plugE1750("3-" + std::to_string(i), 3 * (i - 1)));
        // The loop reads between sticks, as it would between a hub's bursts: umockdev's event
        // socket holds fewer events than 32 sticks make (so does the kernel's, for a real hub).
        loop_->runFor(0.001);
    }
    ASSERT_TRUE(runUntil([&] { return application_.available.size() >= kSticks; }, 30.0))
        << application_.available.size() << " announced";
    runUntil([] { return false; }, 1.5);
    ASSERT_EQ(application_.available.size(), static_cast<std::size_t>(kSticks));

    std::set<std::int64_t> locations;
    std::set<std::string> ports;
    for (const auto& device : application_.available) {
        locations.insert(device->getUUID()->integerValue());
        auto paths = portPaths(*device);
        ASSERT_EQ(paths.size(), 2u);
        // Each stick's own ports: interface 0 and interface 2 of one stick are three names apart.
        std::string first = paths[0].substr(std::strlen("/dev/cu.ttyUSB"));
        std::string second = paths[1].substr(std::strlen("/dev/cu.ttyUSB"));
        EXPECT_EQ(std::stoi(first), std::stoi(second) + 2);
        ports.insert(paths.begin(), paths.end());
    }
    EXPECT_EQ(locations.size(), static_cast<std::size_t>(kSticks));
    EXPECT_EQ(ports.size(), static_cast<std::size_t>(2 * kSticks));

    for (const auto& stick : sticks) {
        umockdev_testbed_uevent(testbed_, stick.c_str(), "remove");
        loop_->runFor(0.001);
    }
    ASSERT_TRUE(runUntil([&] { return application_.missing.size() >= kSticks; }, 30.0));
    runUntil([] { return false; }, 0.5);
    EXPECT_EQ(application_.missing.size(), static_cast<std::size_t>(kSticks));
    std::set<const QVDevice*> missing;
    for (const auto& device : application_.missing) {
        missing.insert(device.get());
    }
    EXPECT_EQ(missing.size(), static_cast<std::size_t>(kSticks));
    EXPECT_TRUE(observer_->deviceList().empty());
}

TEST_F(LiveFrameworkUmockdev, QvdeviceRunPrintsTheSticksOfThisMachine) {
    plugE1750("1-4", 0);
    ToolRun run = runQvdevice({"run", "--for", "2.5", "--json"});
    ASSERT_EQ(run.code, 0) << run.err;
    int announced = 0;
    std::istringstream lines(run.out);
    qv::Json last;
    for (std::string line; std::getline(lines, line);) {
        last = qv::Json::parse(line);
        if (last["kind"] == "application" && last["call"] == "noteDeviceBecameAvailable:") {
            ++announced;
            EXPECT_EQ(last["device"]["_quorvelID"], 320);
            EXPECT_GT(last["t"].get<double>(), 0.0);
        }
    }
    EXPECT_EQ(announced, 1) << run.out;
    EXPECT_EQ(last["kind"], "run");
    EXPECT_EQ(last["message"], "1 device(s) present at the end");
}

// The modem part: the stick's control tty is a pty served by the modem simulator, the application
// chooses the stick as its default device, and the live modem library initialises it and reads
// its network information. Skips while the simulator is not built or the live platform's modem
// library is still the null one.
TEST_F(LiveFrameworkUmockdev, InitialisesTheDefaultStickThroughTheModemSimulator) {
    const std::string simulator = kModemSimulatorPath;
    if (simulator.empty()) {
        GTEST_SKIP() << "the modem simulator (qv-modem-simulator) is not built";
    }
    if (std::dynamic_pointer_cast<qv::NullGsmBackend>(qv::PlatformFactory::defaultModemBackend())) {
        GTEST_SKIP() << "the live platform's modem library is still the null backend";
    }
    // The simulator prints the pty's path as its first line.
    GError* error = nullptr;
    std::vector<const char*> argv = {simulator.c_str()};
    const std::string profile = kModemSimulatorProfile;
    if (!profile.empty()) {
        argv.push_back(profile.c_str());
    }
    argv.push_back(nullptr);
    GSubprocess* modem = g_subprocess_newv(argv.data(), G_SUBPROCESS_FLAGS_STDOUT_PIPE, &error);
    ASSERT_NE(modem, nullptr) << (error != nullptr ? error->message : "");
    GDataInputStream* lines = g_data_input_stream_new(g_subprocess_get_stdout_pipe(modem));
    gchar* pty = g_data_input_stream_read_line(lines, nullptr, nullptr, nullptr);
    ASSERT_NE(pty, nullptr);
    std::string ptyPath = pty;
    g_free(pty);

    // ttyUSB0 is interface 2 of the stick below, its control ("NetworkQuery") port. The fake /dev
    // holds both names the engine may open.
    std::string dev = std::string(umockdev_testbed_get_root_dir(testbed_)) + "/dev";
    g_mkdir_with_parents(dev.c_str(), 0755);
    for (const char* name : {"/ttyUSB0", "/cu.ttyUSB0"}) {
        std::string link = dev + name;
        std::remove(link.c_str());
        ASSERT_EQ(symlink(ptyPath.c_str(), link.c_str()), 0);
    }

    struct ModemApplication : RecordingApplication {
        std::weak_ptr<QVDeviceObserver> observer;
        int recognised = 0;
        int networkInfos = 0;
        void noteDeviceBecameAvailable(const std::shared_ptr<QVDevice>& device) override {
            RecordingApplication::noteDeviceBecameAvailable(device);
            auto weak = observer;
            qv::RunLoop::current().post([weak]() {
                if (auto strong = weak.lock()) {
                    strong->setDefaultDevice(0);
                    strong->devicesChanged();
                }
            });
        }
        void noteDeviceDidRecognize(const std::shared_ptr<QVDevice>&) override { ++recognised; }
        void noteNetworkInfoDidUpdate(const qv::Value&, const std::shared_ptr<QVDevice>&) override {
            ++networkInfos;
        }
    } application;
    observer_ = QVDeviceObserver::initWithDeviceMonitor(QVDeviceMonitor::create());
    application.observer = observer_;
    observer_->setDelegate(&application);
    observer_->start();
    QVPrioQueue::getInstance()->startExecution();
    std::string stick = plugE1750("1-3", 0);

    EXPECT_TRUE(runUntil([&] { return application.recognised > 0; }, 30.0));
    EXPECT_TRUE(runUntil([&] { return application.networkInfos > 0; }, 30.0));
    umockdev_testbed_uevent(testbed_, stick.c_str(), "remove");
    EXPECT_TRUE(runUntil([&] { return !application.missing.empty(); }));
    observer_->setDelegate(nullptr);
    QVPrioQueue::getInstance()->stopExecution();

    g_subprocess_force_exit(modem);
    g_subprocess_wait(modem, nullptr, nullptr);
    g_object_unref(lines);
    g_object_unref(modem);
}

}  // namespace

#endif  // QV_HAVE_UMOCKDEV
