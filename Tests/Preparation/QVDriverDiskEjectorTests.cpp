#include "Preparation/QVDriverDiskEjector.h"

#include <algorithm>

#include "Events/DeviceEventsFixture.h"
#include "Foundation/Platform.h"
#include "Foundation/Task.h"
#include "IOKit/ScriptedFeeder.h"

namespace {

class EjectorTest : public DeviceEventsTest {
  protected:
    void SetUp() override {
        DeviceEventsTest::SetUp();
        qv::TaskLauncher::setShared(launcher_);
        ejector_->setDiskUtilityPath("/usr/libexec/unmount");
    }
    void TearDown() override {
        qv::TaskLauncher::setShared(nullptr);
        DeviceEventsTest::TearDown();
    }

    // Plays a story into the registry and hands the stick to the ejector once it is there.
    void play(const char* json) {
        std::string error;
        auto timeline = qv::ScriptedTimeline::fromJson(qv::Json::parse(json), &error);
        ASSERT_TRUE(timeline) << error;
        feeder_ = std::make_unique<qv::ScriptedFeeder>(registry(), *timeline);
        feeder_->schedule(*loop_);
        loop_->runPending();
        ejector_->addDevice(QVIODevice::deviceWithServiceEntry(feeder_->handleFor("stick")));
    }
    std::vector<std::vector<std::string>> launches() const {
        std::vector<std::vector<std::string>> argvs;
        for (const auto& record : launcher_->records()) {
            argvs.push_back(record.argv);
        }
        return argvs;
    }
    bool logged(const std::string& line) const {
        return std::find(lines_->begin(), lines_->end(), line) != lines_->end();
    }
    bool loggedTimeout() const {
        return std::any_of(lines_->begin(), lines_->end(), [](const std::string& line) {
            return line.starts_with("Timeout ejecting driver discs for device: ");
        });
    }

    std::shared_ptr<qv::RecordingTaskLauncher> launcher_ =
        std::make_shared<qv::RecordingTaskLauncher>();
    std::shared_ptr<QVDriverDiskEjector> ejector_ = std::make_shared<QVDriverDiskEjector>();
    std::unique_ptr<qv::ScriptedFeeder> feeder_;
};

using Argvs = std::vector<std::vector<std::string>>;

TEST_F(EjectorTest, UnmountsTheCDOneSecondAfterThePortsAppear) {
    play(R"({"timeline":[
        {"at":0,"add":{"entry":{"id":"stick","class":"IOUSBDevice",
            "properties":{"idVendor":4817,"idProduct":5382,"locationID":1},
            "children":[{"id":"cd","class":"IOCDMedia","properties":{"BSD Name":"sr0"}}]}}},
        {"at":3.5,"add":{"parent":"stick","entry":{"id":"tty","class":"IOSerialBSDClient",
            "properties":{"IOTTYDevice":"ttyUSB0","IOCalloutDevice":"/dev/cu.ttyUSB0"}}}}]})");
    // Ticks at 1, 2 and 3 find no ports; the tick at 4 does and leaves the device.
    loop_->runUntil(4.0);
    EXPECT_TRUE(launches().empty());
    EXPECT_TRUE(ejector_->hasHandledAllDevices());
    loop_->runUntil(4.99);
    EXPECT_TRUE(launches().empty());
    loop_->runUntil(5.0);
    EXPECT_EQ(launches(), (Argvs{{"/usr/libexec/unmount", "unmountDisk", "sr0"}}));
    EXPECT_TRUE(logged("Now removing driver volume 'sr0'"));
    EXPECT_FALSE(launcher_->records()[0].waited);

    loop_->runUntil(60.0);
    EXPECT_EQ(launches().size(), 1u);
    EXPECT_FALSE(loggedTimeout());
    EXPECT_EQ(loop_->scheduledTimerCount(), 0u);
}

TEST_F(EjectorTest, AnEthernetInterfaceIsEnoughExceptOnSonyEricsson) {
    play(R"({"timeline":[
        {"at":0,"add":{"entry":{"id":"stick","class":"IOUSBDevice",
            "properties":{"idVendor":6610,"idProduct":49,"locationID":2},
            "children":[{"id":"cd","class":"IOCDMedia","properties":{"BSD Name":"sr1"}},
                        {"id":"net","class":"IOEthernetInterface",
                         "properties":{"BSD Name":"wwan0"}}]}}},
        {"at":0,"add":{"entry":{"id":"phone","class":"IOUSBDevice",
            "properties":{"idVendor":4046,"idProduct":53,"locationID":3},
            "children":[{"id":"cd2","class":"IOCDMedia","properties":{"BSD Name":"sr2"}},
                        {"id":"net2","class":"IOEthernetInterface",
                         "properties":{"BSD Name":"usb0"}}]}}}]})");
    ejector_->addDevice(QVIODevice::deviceWithServiceEntry(feeder_->handleFor("phone")));
    loop_->runUntil(2.0);
    EXPECT_EQ(launches(), (Argvs{{"/usr/libexec/unmount", "unmountDisk", "sr1"}}));
    loop_->runUntil(31.0);
    EXPECT_TRUE(loggedTimeout());
    EXPECT_EQ(launches().size(), 1u);
}

TEST_F(EjectorTest, WithoutACDItTimesOut) {
    play(R"({"timeline":[
        {"at":0,"add":{"entry":{"id":"stick","class":"IOUSBDevice",
            "properties":{"idVendor":4817,"idProduct":4099,"locationID":4},
            "children":[{"id":"tty","class":"IOSerialBSDClient",
                "properties":{"IOTTYDevice":"ttyUSB0","IOCalloutDevice":"/dev/cu.ttyUSB0"}}]}}}]})");
    auto device = ejector_->addedIODevices().front();
    loop_->runUntil(30.0);
    EXPECT_FALSE(loggedTimeout());
    loop_->runUntil(31.0);
    EXPECT_TRUE(logged("Timeout ejecting driver discs for device: " + device->description()));
    EXPECT_FALSE(std::any_of(lines_->begin(), lines_->end(), [](const std::string& line) {
        return line.starts_with("Timeout handling device");
    }));
    EXPECT_TRUE(launches().empty());
    EXPECT_TRUE(ejector_->hasHandledAllDevices());
}

TEST_F(EjectorTest, TheCDGoneBeforeTheUnmountAndTheDefaultTool) {
    play(R"({"timeline":[
        {"at":0,"add":{"entry":{"id":"stick","class":"IOUSBDevice",
            "properties":{"idVendor":4817,"idProduct":5382,"locationID":5},
            "children":[{"id":"cd","class":"IOCDMedia","properties":{"BSD Name":"sr0"}},
                {"id":"tty","class":"IOSerialBSDClient",
                 "properties":{"IOCalloutDevice":"/dev/cu.ttyUSB0"}}]}}},
        {"at":1.5,"remove":"cd"}]})");
    auto device = ejector_->addedIODevices().front();
    loop_->runUntil(1.5);
    // Someone else refreshes the shared snapshot before the delayed unmount runs.
    device->updateFromIORegistry();
    loop_->runUntil(3.0);
    EXPECT_TRUE(logged("Now removing driver volume '(null)'"));
    EXPECT_TRUE(launches().empty());

    auto plain = std::make_shared<QVDriverDiskEjector>();
    qv::Bundle::setResourcesDirectory("/opt/qv/Resources");
    EXPECT_EQ(plain->diskUtilityPath(), "/opt/qv/Resources/qv-unmount-disk");
    qv::Bundle::setResourcesDirectory(std::nullopt);
}

}  // namespace
