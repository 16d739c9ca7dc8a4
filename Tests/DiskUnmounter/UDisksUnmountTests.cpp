// The udisks2 way, against a stand-in service on a private bus (GIO's test bus, which runs its
// own dbus-daemon). The disks are those of the fixture sysfs tree.
#include <gio/gio.h>

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "FakeUDisksService.h"
#include "UnmountDiskCommand.h"

namespace {

using diskunmounter::UnmountDiskCommand;
using diskunmounter::UnmounterOptions;
using diskunmountertest::FakeBlock;
using diskunmountertest::FakeUDisksService;

const std::string kData = QV_TEST_DATA_DIR "/DiskUnmounter";

class UDisksUnmount : public ::testing::Test {
  protected:
    void SetUp() override {
        gchar* daemon = g_find_program_in_path("dbus-daemon");
        if (!daemon) {
            GTEST_SKIP() << "needs dbus-daemon";
        }
        g_free(daemon);
        const char* session = g_getenv("DBUS_SESSION_BUS_ADDRESS");
        savedSessionAddress_ = session ? session : "";
        hadSessionAddress_ = session != nullptr;
        bus_ = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(bus_);
        address_ = g_test_dbus_get_bus_address(bus_);
    }

    void TearDown() override {
        service_.reset();
        if (bus_) {
            // stop, not down: down waits for a session bus singleton this test never made.
            g_test_dbus_stop(bus_);
            g_object_unref(bus_);
        }
        if (hadSessionAddress_) {
            g_setenv("DBUS_SESSION_BUS_ADDRESS", savedSessionAddress_.c_str(), TRUE);
        } else {
            g_unsetenv("DBUS_SESSION_BUS_ADDRESS");
        }
    }

    void serve(std::vector<FakeBlock> blocks) {
        service_ = std::make_unique<FakeUDisksService>(address_, std::move(blocks));
        std::string error;
        ASSERT_TRUE(service_->start(&error)) << error;
    }

    // Runs the unmounter on `name` with udisks2 on the private bus; answers status, out, err.
    std::vector<std::string> unmount(
        const std::string& name, bool dryRun = false,
        diskunmounter::DiskCommand command = diskunmounter::DiskCommand::UnmountDisk,
        bool force = false) {
        UnmounterOptions options;
        options.command = command;
        options.force = force;
        options.diskName = name;
        options.dryRun = dryRun;
        options.sysfsRoot = kData + "/sys";
        options.mountInfoPath = kData + "/mountinfo";
        options.busAddress = address_;
        std::ostringstream out;
        std::ostringstream err;
        int status = UnmountDiskCommand(options, out, err).run();
        return {std::to_string(status), out.str(), err.str()};
    }

    static std::vector<FakeBlock> stickAndOtherDisk() {
        return {
            {"sdb", 8, 16, "stick", false, {}, false},
            {"sdb1", 8, 17, "stick", true, {"/media/user/STICK", "/home/user/bound"}, false},
            {"sdb2", 8, 18, "stick", true, {}, false},
            {"sdc1", 8, 33, "other", true, {"/media/user/OTHER"}, false},
            {"sr0", 11, 0, "cdrom", true, {"/media/user/Driver CD"}, false},
        };
    }

    GTestDBus* bus_ = nullptr;
    std::string address_;
    std::string savedSessionAddress_;
    bool hadSessionAddress_ = false;
    std::unique_ptr<FakeUDisksService> service_;
};

TEST_F(UDisksUnmount, UnmountDiskOnlyUnmountsAndEjectThenEjects) {
    serve(stickAndOtherDisk());
    // Two mount points of sdb1: udisks2 takes one per call, so a second round is needed.
    EXPECT_EQ(unmount("sdb"), (std::vector<std::string>{"0",
                                                        "unmounted \"/media/user/STICK\" (sdb1)\n"
                                                        "unmounted \"/home/user/bound\" (sdb1)\n",
                                                        ""}));
    // The CD stays in its drive: the enabler's eject that follows finds it there.
    EXPECT_EQ(unmount("sr0"),
              (std::vector<std::string>{"0", "unmounted \"/media/user/Driver CD\" (sr0)\n", ""}));
    EXPECT_EQ(unmount("sr0", false, diskunmounter::DiskCommand::Eject),
              (std::vector<std::string>{"0", "ejected sr0\n", ""}));
    // sdc1 is never asked for; nobody is asked for a password.
    EXPECT_EQ(service_->calls(), (std::vector<std::string>{
                                     "Unmount sdb1 (no interaction)",
                                     "Unmount sdb1 (no interaction)",
                                     "Unmount sr0 (no interaction)",
                                     "Eject cdrom (no interaction)",
                                 }));
}

TEST_F(UDisksUnmount, ReportsABusyFilesystemAndDryRunsWithoutCalls) {
    std::vector<FakeBlock> blocks = stickAndOtherDisk();
    blocks[1].busy = true;
    blocks.erase(blocks.begin() + 3);  // sdc1: udisks2 knows nothing of sdc
    serve(blocks);
    EXPECT_EQ(
        unmount("sdb", true),
        (std::vector<std::string>{"0",
                                  "disk sdb (8:16) with partitions sdb1 (8:17), sdb2 (8:18)\n"
                                  "would unmount \"/media/user/STICK\" (sdb1) through udisks2\n"
                                  "would unmount \"/home/user/bound\" (sdb1) through udisks2\n",
                                  ""}));
    EXPECT_EQ(service_->calls(), std::vector<std::string>{});
    EXPECT_EQ(unmount("sdb"),
              (std::vector<std::string>{"1", "",
                                        "qv-unmount-disk: cannot unmount \"/media/user/STICK\" "
                                        "(sdb1) through udisks2: Error unmounting /dev/sdb1: "
                                        "target is busy\n"}));
    // A disk udisks2 does not know is left to the kernel way (here dry, on the fixture table).
    std::vector<std::string> unknown = unmount("sdc", true);
    EXPECT_EQ(unknown[1],
              "disk sdc (8:32) with partitions sdc1 (8:33)\n"
              "not using udisks2 (udisks2 does not manage sdc)\n"
              "would unmount \"/run/media/user/OTHER\" (sdc1) with umount2\n");
}

TEST_F(UDisksUnmount, ForceDetachesABusyFilesystemAndEjectTakesAnyDisksMedium) {
    std::vector<FakeBlock> blocks = stickAndOtherDisk();
    blocks[1].busy = true;
    serve(blocks);
    using diskunmounter::DiskCommand;
    EXPECT_EQ(unmount("sdb", true, DiskCommand::UnmountDisk, true)[1],
              "disk sdb (8:16) with partitions sdb1 (8:17), sdb2 (8:18)\n"
              "would force-unmount \"/media/user/STICK\" (sdb1) through udisks2\n"
              "would force-unmount \"/home/user/bound\" (sdb1) through udisks2\n");
    EXPECT_EQ(unmount("sdb", false, DiskCommand::UnmountDisk, true)[0], "0");
    // The stick's memory card is no CD, but eject takes its medium out all the same.
    EXPECT_EQ(unmount("sdb", false, DiskCommand::Eject),
              (std::vector<std::string>{"0", "ejected sdb\n", ""}));
    EXPECT_EQ(
        unmount("sdb1", false, DiskCommand::Eject),
        (std::vector<std::string>{
            "1", "", "qv-unmount-disk: cannot eject sdb1: it is a partition, not a whole disk\n"}));
    EXPECT_EQ(service_->calls(), (std::vector<std::string>{
                                     "Unmount sdb1 (no interaction) (force)",
                                     "Unmount sdb1 (no interaction) (force)",
                                     "Eject stick (no interaction)",
                                 }));
}

}  // namespace
