#include "Preparation/QVSystemHelper.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <memory>
#include <string>

#include "Foundation/MountedFileSystems.h"
#include "Foundation/Task.h"

namespace {

class SystemHelperTest : public ::testing::Test {
  protected:
    void SetUp() override { qv::MountedFileSystems::setShared(mounts_); }
    void TearDown() override { qv::MountedFileSystems::setShared(nullptr); }

    std::shared_ptr<qv::FixedMountedFileSystems> mounts_ =
        std::make_shared<qv::FixedMountedFileSystems>();
};

TEST_F(SystemHelperTest, MountPointOfADiskIsFoundThroughAnyOfItsPartitions) {
    mounts_->mount("/dev/nvme0n1p2", "/");
    mounts_->mount("/dev/sdb1", "/media/Modem");
    EXPECT_EQ(volumeNameForBSD("sdb1"), qv::Value("/media/Modem"));
    // The whole disk counts as mounted as soon as a partition is.
    EXPECT_EQ(volumeNameForBSD("sdb"), qv::Value("/media/Modem"));
    EXPECT_TRUE(volumeNameForBSD("sdc").isNil());
    EXPECT_TRUE(volumeNameForBSD("").isNil());
}

TEST_F(SystemHelperTest, MatchesAreSubstringsAndTheirMountPointsRunTogether) {
    mounts_->mount("/dev/sdb1", "/media/a");
    mounts_->mount("/dev/sdb10", "/media/b");
    mounts_->mount("tmpfs", "/run/user");
    // sdb1 also matches sdb10, as grep did.
    EXPECT_EQ(volumeNameForBSD("sdb1"), qv::Value("/media/a/media/b"));
    // The name may be found in the mount point too: grep saw the whole df line.
    mounts_->mount("/dev/sdc1", "/media/backup-of-sdb");
    EXPECT_EQ(volumeNameForBSD("sdb"), qv::Value("/media/a/media/b/media/backup-of-sdb"));
}

TEST_F(SystemHelperTest, ABlankEndsAMountPointAndTheAnswerIsCutAt127Bytes) {
    mounts_->mount("/dev/sr0", "/media/ZTE Modem");
    EXPECT_EQ(volumeNameForBSD("sr0"), qv::Value("/media/ZTE"));
    mounts_->clear();
    mounts_->mount("/dev/sr1", std::string(100, 'a'));
    mounts_->mount("/dev/sr10", std::string(100, 'b'));
    qv::Value cut = volumeNameForBSD("sr1");
    ASSERT_TRUE(cut.isString());
    EXPECT_EQ(*cut.asString(), std::string(100, 'a') + std::string(27, 'b'));
    // A character cut in two at the end is dropped, not answered half.
    mounts_->clear();
    mounts_->mount("/dev/sr2", std::string(126, 'c') + "\xC3\xA9");
    EXPECT_EQ(volumeNameForBSD("sr2"), qv::Value(std::string(126, 'c')));
}

TEST_F(SystemHelperTest, SendSignalRunsKillallWithTheDashedSignalAndWaits) {
    auto launcher = std::make_shared<qv::RecordingTaskLauncher>();
    qv::TaskResult failed;
    failed.launched = true;
    failed.exitStatus = 1;  // no such process: not examined
    launcher->setResult("/usr/bin/killall", failed);
    qv::TaskLauncher::setShared(launcher);
    QVSystemHelper::sendSignal("9", "ppp");
    QVSystemHelper::sendSignal("HUP", "pppd; rm -rf /");
    qv::TaskLauncher::setShared(nullptr);
    ASSERT_EQ(launcher->records().size(), 2u);
    EXPECT_EQ(launcher->records()[0].argv,
              (std::vector<std::string>{"/usr/bin/killall", "-9", "ppp"}));
    EXPECT_TRUE(launcher->records()[0].waited);
    // The name is one argument, never a shell word.
    EXPECT_EQ(launcher->records()[1].argv,
              (std::vector<std::string>{"/usr/bin/killall", "-HUP", "pppd; rm -rf /"}));
}

TEST(KernelMountedFileSystems, ReadsSourcesAndMountPointsOfMountInfo) {
    const std::string text =
        "22 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw\n"
        "40 22 11:0 / /media/ZTE\\040Modem ro,nosuid master:3 - iso9660 /dev/sr0 ro\n"
        "41 22 8:17 / /media/back\\134slash rw - vfat /dev/sdb1 rw\n"
        "not a mountinfo line\n"
        "42 22 0:5 / /run rw - tmpfs tmpfs rw\n";
    auto mounts = qv::KernelMountedFileSystems::parse(text);
    ASSERT_EQ(mounts.size(), 4u);
    EXPECT_EQ(mounts[1].device, "/dev/sr0");
    EXPECT_EQ(mounts[1].mountPoint, "/media/ZTE Modem");
    EXPECT_EQ(mounts[2].mountPoint, "/media/back\\slash");
    EXPECT_EQ(mounts[3].device, "tmpfs");
    EXPECT_EQ(qv::KernelMountedFileSystems::unescape("a\\04"), "a\\04");
    EXPECT_EQ(qv::KernelMountedFileSystems::unescape("\\400x"), "\\400x");

    // This process's own table has at least its root.
    auto own = qv::KernelMountedFileSystems().mounts();
    EXPECT_TRUE(std::any_of(own.begin(), own.end(),
                            [](const qv::MountedFileSystem& m) { return m.mountPoint == "/"; }));
    EXPECT_TRUE(qv::KernelMountedFileSystems("/nonexistent/mountinfo").mounts().empty());
}

}  // namespace
