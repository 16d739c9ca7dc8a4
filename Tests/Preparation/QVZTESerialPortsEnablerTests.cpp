#include "Preparation/QVZTESerialPortsEnabler.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "Events/DeviceEventsFixture.h"
#include "Foundation/MountedFileSystems.h"
#include "Foundation/Task.h"
#include "IOKit/RecordingUSBDeviceAccess.h"

namespace {

using Argvs = std::vector<std::vector<std::string>>;
using Lines = std::vector<std::string>;

constexpr const char* kDiskUtility = "/opt/qv/diskutil";
constexpr const char* kCardPrepTool = "/opt/qv/CardPrepTool";
constexpr uid_t kNobody = 65534;

class EnablerTest : public DeviceEventsTest {
  protected:
    void SetUp() override {
        DeviceEventsTest::SetUp();
        qv::TaskLauncher::setShared(launcher_);
        qv::MountedFileSystems::setShared(mounts_);
        qv::USBDeviceAccess::setShared(usb_);
        auto out = stdout_;
        qv::setStandardOutputSink([out](const std::string& line) { out->push_back(line); });
        // The disk utility does its work: what it unmounts is gone from the table.
        launcher_->setObserver([this](const qv::RecordingTaskLauncher::Record& record) {
            if (record.argv.size() >= 3 && record.argv[0] == kDiskUtility) {
                mounts_->unmountDevice("/dev/" + record.argv.back());
            }
        });
        enabler_->setDiskUtilityPath(kDiskUtility);
        enabler_->setCardPrepToolPath(kCardPrepTool);
    }
    void TearDown() override {
        qv::setStandardOutputSink({});
        qv::USBDeviceAccess::setShared(nullptr);
        qv::MountedFileSystems::setShared(nullptr);
        qv::TaskLauncher::setShared(nullptr);
        DeviceEventsTest::TearDown();
    }

    io_registry_entry_t stick(int vendor, int product, int location, const char* cd,
                              std::vector<std::string> ttys = {}) {
        io_registry_entry_t device = addUsb(vendor, product, location);
        if (cd != nullptr) {
            addBsd(device, "IOCDMedia", cd);
        }
        for (const std::string& tty : ttys) {
            addSerial(device, tty);
        }
        return device;
    }

    Argvs launches() const {
        Argvs argvs;
        for (const auto& record : launcher_->records()) {
            argvs.push_back(record.argv);
        }
        return argvs;
    }
    bool logged(const std::string& prefix) const {
        return std::any_of(lines_->begin(), lines_->end(),
                           [&](const std::string& line) { return line.starts_with(prefix); });
    }

    std::shared_ptr<qv::RecordingTaskLauncher> launcher_ =
        std::make_shared<qv::RecordingTaskLauncher>();
    std::shared_ptr<qv::FixedMountedFileSystems> mounts_ =
        std::make_shared<qv::FixedMountedFileSystems>();
    std::shared_ptr<qv::RecordingUSBDeviceAccess> usb_ =
        std::make_shared<qv::RecordingUSBDeviceAccess>();
    std::shared_ptr<Lines> stdout_ = std::make_shared<Lines>();
    std::shared_ptr<QVZTESerialPortsEnabler> enabler_ = std::make_shared<QVZTESerialPortsEnabler>();
};

TEST_F(EnablerTest, SubscribesToTheTableInOrderAndQueuesSticksAlreadyThere) {
    const auto& models = QVZTESerialPortsEnabler::subscribedModels();
    ASSERT_EQ(models.size(), 22u);
    EXPECT_EQ(models.front().vendorID, 0x19D2);
    EXPECT_EQ(models.front().productID, 0x0040);
    EXPECT_EQ(models[11].productID, 0x1017);
    EXPECT_EQ(models[12].vendorID, 0x0AF0);
    EXPECT_EQ(models[13].productID, 0x1F15);
    EXPECT_EQ(models.back().productID, 0x1F1E);
    EXPECT_TRUE(std::none_of(models.begin(), models.end(),
                             [](const auto& m) { return m.productID == 0x1F1A; }));

    stick(0x19D2, 0x2000, 1, "sr0");
    stick(0x12D1, 0x1F1A, 2, "sr1");  // deliberately left out
    enabler_->startEnableSerialPortsForDevices();
    ASSERT_EQ(enabler_->addedIODevices().size(), 1u);
    EXPECT_EQ(enabler_->addedIODevices()[0]->productID(), 0x2000);
    EXPECT_TRUE(enabler_->isExaminingForTesting());
}

TEST_F(EnablerTest, ZTEStickWithAMountedCDIsUnmountedEjectedAndLeavesTheList) {
    stick(0x19D2, 0x2000, 1, "sr0");
    stick(0x19D2, 0x0040, 2, "sr1");  // CD listed but never mounted
    mounts_->mount("/dev/sr0", "/media/ZTE Modem");
    enabler_->startEnableSerialPortsForDevices();

    loop_->runUntil(1.0);
    EXPECT_EQ(launches(), (Argvs{{kDiskUtility, "unmountDisk", "force", "sr0"},
                                 {kDiskUtility, "eject", "sr0"}}));
    EXPECT_TRUE(std::all_of(launcher_->records().begin(), launcher_->records().end(),
                            [](const auto& r) { return r.waited; }));
    EXPECT_TRUE(logged("Enabling SerialPorts for device: "));
    EXPECT_TRUE(usb_->calls().empty());  // only the Option model is ever re-enumerated
    ASSERT_EQ(enabler_->addedIODevices().size(), 1u);
    EXPECT_EQ(enabler_->addedIODevices()[0]->productID(), 0x0040);

    // The other stick's CD never mounts: it is looked at until its time-out and left alone.
    loop_->runUntil(30.0);
    EXPECT_FALSE(logged("Timeout handling device: "));
    loop_->runUntil(31.0);
    EXPECT_TRUE(logged("Timeout handling device: "));
    EXPECT_EQ(launches().size(), 2u);
    EXPECT_TRUE(enabler_->hasHandledAllDevices());
}

TEST_F(EnablerTest, ACDMountedLaterIsSwitchedAtTheNextTick) {
    stick(0x19D2, 0x1001, 1, "sr0");
    enabler_->startEnableSerialPortsForDevices();
    loop_->runUntil(5.0);
    EXPECT_TRUE(launches().empty());
    mounts_->mount("/dev/sr0", "/media/cdrom");
    loop_->runUntil(6.0);
    EXPECT_EQ(launches().size(), 2u);
}

TEST_F(EnablerTest, HuaweiQuickStartSticksGetTheToolWithTheirProductIDAndNoDiskUtility) {
    stick(0x12D1, 0x1F15, 1, "sr0");
    stick(0x12D1, 0x1F1E, 2, "sr1");
    mounts_->mount("/dev/sr0", "/media/a");
    mounts_->mount("/dev/sr1", "/media/b");
    enabler_->startEnableSerialPortsForDevices();
    loop_->runUntil(1.0);
    EXPECT_EQ(launches(), (Argvs{{kCardPrepTool, "/pid=,1f15"}, {kCardPrepTool, "/pid=,1f1e"}}));
    EXPECT_FALSE(launcher_->records()[0].waited);
    EXPECT_TRUE(enabler_->hasHandledAllDevices());

    auto snapshot = [&](int vendor, int product) {
        return QVIODevice::deviceWithServiceEntry(addUsb(vendor, product, 9));
    };
    EXPECT_TRUE(enabler_->needsHuaweiQuickStartSwitcher(snapshot(0x12D1, 0x1F19)));
    EXPECT_FALSE(enabler_->needsHuaweiQuickStartSwitcher(snapshot(0x12D1, 0x1F1A)));
    EXPECT_FALSE(enabler_->needsHuaweiQuickStartSwitcher(snapshot(0x19D2, 0x1F15)));
    EXPECT_FALSE(enabler_->needsHuaweiQuickStartSwitcher(nullptr));
    // No leading zeros, lower case.
    launcher_->clear();
    enabler_->ejectHuaweiQS(snapshot(0x12D1, 0x00AB));
    EXPECT_EQ(launches(), (Argvs{{kCardPrepTool, "/pid=,ab"}}));
}

TEST_F(EnablerTest, SecondaryDiskIsEjectedOnlyWhenAskedForAndMounted) {
    auto withCard = [&](int location, const char* cd, const char* card) {
        io_registry_entry_t device = stick(0x19D2, 0x2000, location, cd);
        add(device, "IOMedia", qv::Value(qv::Dictionary{{"BSD Name", card}, {"Leaf", false}}));
    };
    withCard(1, "sr0", "sdb");
    mounts_->mount("/dev/sr0", "/media/cd");
    mounts_->mount("/dev/sdb1", "/media/card");
    enabler_->setEjectSecondaryDisk(true);
    EXPECT_TRUE(enabler_->ejectSecondaryDisk());
    enabler_->startEnableSerialPortsForDevices();
    loop_->runUntil(1.0);
    EXPECT_EQ(launches(), (Argvs{{kDiskUtility, "unmountDisk", "force", "sr0"},
                                 {kDiskUtility, "eject", "sr0"},
                                 {kDiskUtility, "unmountDisk", "force", "sdb"},
                                 {kDiskUtility, "eject", "sdb"}}));
    EXPECT_TRUE(logged("Eject secondary disk for device: "));

    // Asked for, but the card is not mounted: left alone, and nothing said about it. The stick
    // arrives while the enabler listens.
    lines_->clear();
    launcher_->clear();
    withCard(2, "sr1", "sdc");
    mounts_->mount("/dev/sr1", "/media/cd2");
    loop_->runUntil(3.0);
    EXPECT_EQ(launches(), (Argvs{{kDiskUtility, "unmountDisk", "force", "sr1"},
                                 {kDiskUtility, "eject", "sr1"}}));
    EXPECT_FALSE(logged("Eject secondary disk"));
}

TEST_F(EnablerTest, OptionStickIsReEnumeratedOnlyWithoutTTYPorts) {
    io_registry_entry_t bare = stick(0x0AF0, 0x7501, 1, "sr0");
    stick(0x0AF0, 0x7501, 2, "sr1", {"ttyHS0"});
    mounts_->mount("/dev/sr1", "/media/b");
    enabler_->startEnableSerialPortsForDevices();
    loop_->runUntil(1.0);
    // The stick with ports: ejected, not re-enumerated.
    EXPECT_EQ(launches().size(), 2u);
    EXPECT_TRUE(usb_->calls().empty());
    EXPECT_TRUE(stdout_->empty());

    mounts_->mount("/dev/sr0", "/media/a");
    usb_->setOpenStatus(bare, kIOReturnExclusiveAccess);
    loop_->runUntil(2.0);
    // The walk reaches every attached stick of the model, the one with ports too.
    std::vector<std::string> operations = usb_->operations();
    EXPECT_EQ(operations,
              (std::vector<std::string>{"create", "USBDeviceOpen", "Release", "create",
                                        "USBDeviceOpen", "USBDeviceReEnumerate(0)", "Release"}));
    ASSERT_EQ(stdout_->size(), 3u);
    EXPECT_EQ((*stdout_)[0], qv::format("Found device for reEnumerate 0x%x", bare));
    EXPECT_EQ((*stdout_)[1], "unable to open interface err:e00002c5");
    EXPECT_TRUE((*stdout_)[2].starts_with("Found device for reEnumerate 0x"));
    EXPECT_TRUE(std::none_of(usb_->calls().begin(), usb_->calls().end(),
                             [](const auto& c) { return c.operation == "USBDeviceClose"; }));
}

TEST_F(EnablerTest, ReEnumerationReportsEachFailureAndGoesOn) {
    io_registry_entry_t first = addUsb(0x0AF0, 0x7501, 1);
    addUsb(0x0AF0, 0x7501, 2);
    usb_->setCreateStatus(first, kIOReturnNotPrivileged);
    enabler_->doReEnumerate_vid(0x0AF0, 0x7501);
    // A plug-in that cannot be made is reported with the release's status (which succeeded).
    ASSERT_EQ(stdout_->size(), 3u);
    EXPECT_EQ((*stdout_)[1], "unable to create a plugin (00000000)");
    std::vector<std::string> operations = usb_->operations();
    EXPECT_EQ(operations.back(), "Release");
    EXPECT_EQ(std::count(operations.begin(), operations.end(), "USBDeviceReEnumerate(0)"), 1);

    // A node the user may not write (libusb's LIBUSB_ERROR_ACCESS): the log says what is missing.
    stdout_->clear();
    lines_->clear();
    usb_->setCreateStatus(first, kIOReturnSuccess);
    usb_->setOpenStatus(first, kIOReturnNotPrivileged);
    enabler_->doReEnumerate_vid(0x0AF0, 0x7501);
    EXPECT_EQ((*stdout_)[1], "unable to open interface err:e00002c1");
    EXPECT_TRUE(
        logged("No permission to reset USB device 0af0:7501: this user cannot write its "
               "node under /dev/bus/usb."));
    usb_->setOpenStatus(first, kIOReturnSuccess);
    usb_->setCreateStatus(first, kIOReturnNotPrivileged);

    // Another model, or a stick of the model that has ports: nothing.
    stdout_->clear();
    io_registry_entry_t ported = addUsb(0x0AF0, 0x7501, 3);
    addSerial(ported, "ttyHS0");
    enabler_->reEnumerateIfNoPorts(QVIODevice::deviceWithServiceEntry(ported), 0x0AF0, 0x7501);
    enabler_->reEnumerateIfNoPorts(QVIODevice::deviceWithServiceEntry(addUsb(0x19D2, 0x2000, 4)),
                                   0x0AF0, 0x7501);
    EXPECT_TRUE(stdout_->empty());
    // Without ports: every stick of the model, three now, the failing one reported again.
    enabler_->reEnumerateIfNoPorts(QVIODevice::deviceWithServiceEntry(first), 0x0AF0, 0x7501);
    EXPECT_EQ(stdout_->size(), 4u);
}

TEST_F(EnablerTest, AStickWhoseCalloutPathIsItsOnlyPortIsStillReEnumerated) {
    // ports are the TTY names: a client with only a callout path leaves them empty.
    io_registry_entry_t device = stick(0x0AF0, 0x7501, 1, "sr0");
    add(device, "IOSerialBSDClient",
        qv::Value(qv::Dictionary{{"IOCalloutDevice", "/dev/cu.ttyHS0"}}));
    mounts_->mount("/dev/sr0", "/media/a");
    enabler_->startEnableSerialPortsForDevices();
    loop_->runUntil(1.0);
    std::vector<std::string> operations = usb_->operations();
    EXPECT_EQ(std::count(operations.begin(), operations.end(), "USBDeviceReEnumerate(0)"), 1);
}

TEST_F(EnablerTest, AUserWhoMayNotWriteTheUSBNodeIsToldSoAndRootResetsTheStick) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to make a root-owned node and to act as nobody";
    }
    // A node with /dev/bus/usb's modes (root:root 0664): everyone may read, only root may write.
    char directoryTemplate[] = "/tmp/qv-usb-XXXXXX";
    ASSERT_NE(mkdtemp(directoryTemplate), nullptr);
    const std::string directory = directoryTemplate;
    const std::string node = directory + "/002";
    ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
    std::FILE* file = std::fopen(node.c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    ASSERT_EQ(chown(node.c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(node.c_str(), 0664), 0);
    io_registry_entry_t device = addUsb(0x0AF0, 0x7501, 1);
    usb_->setDeviceNode(device, node);

    bool becameNobody = false;
    // The registry belongs to one thread; this one waits while the other acts as nobody.
    registry().releaseOwningThreadForTesting();
    std::thread user([&] {
        becameNobody = syscall(SYS_setgroups, 0, nullptr) == 0 &&
                       syscall(SYS_setresgid, kNobody, kNobody, kNobody) == 0 &&
                       syscall(SYS_setresuid, kNobody, kNobody, kNobody) == 0;
        if (becameNobody) {
            enabler_->doReEnumerate_vid(0x0AF0, 0x7501);
        }
    });
    user.join();
    ASSERT_TRUE(becameNobody);
    EXPECT_TRUE(
        logged("No permission to reset USB device 0af0:7501: this user cannot write its "
               "node under /dev/bus/usb."));
    std::vector<std::string> operations = usb_->operations();
    EXPECT_EQ(std::count(operations.begin(), operations.end(), "USBDeviceReEnumerate(0)"), 0);

    // Root opens the same node and resets the stick; a node that is gone is no device.
    lines_->clear();
    enabler_->doReEnumerate_vid(0x0AF0, 0x7501);
    operations = usb_->operations();
    EXPECT_EQ(std::count(operations.begin(), operations.end(), "USBDeviceReEnumerate(0)"), 1);
    EXPECT_FALSE(logged("No permission"));
    std::remove(node.c_str());
    rmdir(directory.c_str());
    enabler_->doReEnumerate_vid(0x0AF0, 0x7501);
    EXPECT_EQ(usb_->calls().back().operation, "Release");
    EXPECT_EQ(std::count_if(usb_->calls().begin(), usb_->calls().end(),
                            [](const qv::RecordingUSBDeviceAccess::Call& call) {
                                return call.operation == "USBDeviceOpen" &&
                                       call.status == kIOReturnNoDevice;
                            }),
              1);
}

}  // namespace
